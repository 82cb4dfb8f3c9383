#include "e2e/expected_rows.h"

#include "platform/component_class.h"

#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>

#include <nlohmann/json.hpp>

namespace
{

using nlohmann::json;

struct component_kind {
    unsigned long number = 0;
    std::string kind; // plain, sensor, indicator
    std::string text;
};

std::string trimmed(const std::string &text)
{
    const size_t first = text.find_first_not_of(" `");
    return first == std::string::npos ? std::string()
                                      : text.substr(first, text.find_last_not_of(" `") - first + 1);
}

// The catalogue as it is documented for who writes a description.
std::map<std::string, component_kind> documented_catalogue()
{
    std::map<std::string, component_kind> all;
    std::ifstream in(KAVPLAT_SOURCE_DIR "/docs/description.md");
    bool inside = false;
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with("| Name | Number | Kind | Class |")) {
            inside = true;
        } else if (inside && !line.starts_with("|")) {
            break;
        } else if (inside && line.starts_with("| `")) {
            std::vector<std::string> cells;
            std::istringstream row(line.substr(1));
            for (std::string cell; std::getline(row, cell, '|');) {
                cells.push_back(trimmed(cell));
            }
            all[cells.at(0)] = {std::stoul(cells.at(1)), cells.at(2), cells.at(4)};
        }
    }
    if (all.empty()) {
        throw std::runtime_error("docs/description.md has no catalogue");
    }
    return all;
}

// Serial numbers and aliases keep 31 octets, the others 254.
std::string cut(const json &record, const char *key, size_t octets)
{
    return record.is_object() ? record.value(key, std::string()).substr(0, octets) : std::string();
}

std::string container_name(const std::string &name)
{
    return name.substr(0, name.rfind('/'));
}

long position_of(const std::string &name)
{
    size_t begin = name.size();
    while (begin > 1 && isdigit(static_cast<unsigned char>(name[begin - 1])) != 0) {
        begin--;
    }
    return begin == name.size() ? -1 : std::stol(name.substr(begin)) + 1;
}

// A container first, then what it holds, in the order of the file.
void list_below(const std::string &name, const std::map<std::string, std::vector<json>> &held,
                std::vector<json> &list)
{
    const auto found = held.find(name);
    if (found == held.end()) {
        return;
    }
    for (const json &component : found->second) {
        list.push_back(component);
        list_below(component.at("name"), held, list);
    }
}

bool can(const json &component, const char *capability)
{
    for (const json &name : component.value("capabilities", json::array())) {
        if (name == capability) {
            return true;
        }
    }
    return false;
}

} // namespace

std::vector<expected_row> expected_rows(const std::filesystem::path &description,
                                        const std::string &firmware)
{
    const json document = json::parse(std::ifstream(description));
    const json product = document.value("product", json::object());
    const json chassis = document.value("chassis", json::object());
    const std::map<std::string, component_kind> catalogue = documented_catalogue();

    std::map<std::string, std::vector<json>> held;
    for (const json &component : document.at("components")) {
        held[container_name(component.at("name"))].push_back(component);
    }
    std::vector<json> components;
    list_below("", held, components);

    std::vector<expected_row> rows;
    std::map<std::string, unsigned long> indexes;
    for (const json &component : components) {
        if (component.contains("capability_bytes")) {
            throw std::runtime_error("raw capabilities are not worked out here");
        }
        component_kind kind;
        const json &type = component.at("type");
        if (type.is_number()) {
            kind = {type, "plain", "Unspecified component"};
            for (const auto &[name, known] : catalogue) {
                if (known.number == type) {
                    kind = known;
                }
            }
        } else {
            kind = catalogue.at(type);
        }
        const json fru = component.value("fru", json());
        const bool has_fru = can(component, "fru-info");

        expected_row row;
        row.index = rows.size() + 1;
        row.name = component.at("name");
        row.component_type = kind.number;
        row.kind = kind.kind;
        row.description = kind.text;
        row.physical_class = kind.kind == "sensor" ? 8
                             : kind.kind == "indicator"
                                 ? 1
                                 : long{physical_class_of_type(static_cast<uint32_t>(kind.number))};
        const auto container = indexes.find(container_name(row.name));
        if (container != indexes.end()) {
            row.contained_in = static_cast<long>(container->second);
            row.position = position_of(row.name);
        }
        row.is_fru =
            has_fru || can(component, "field-replaceable") || can(component, "hot-pluggable");
        if (kind.number == 2 || kind.number == 3) {
            row.description = cut(product, "description", 255);
            row.serial = cut(product, "serial", 31);
            row.model = cut(product, "model", 254);
            row.maker = "Telvane Corporation";
            row.firmware = firmware;
            row.alias = has_fru ? cut(fru, "alias", 31) : "";
            if (product.contains("vantor_id")) {
                row.alias = cut(product, "vantor_id", 31);
            }
        } else if (kind.number == 59) {
            row.description = cut(chassis, "description", 255);
            row.serial = cut(chassis, "serial", 31);
            row.model = cut(chassis, "model", 254);
            row.maker = cut(chassis, "manufacturer", 254);
            row.alias = cut(chassis, "vantor_id", 31);
        } else if (has_fru) {
            row.serial = cut(fru, "serial", 31);
            row.model = cut(fru, "model", 254);
            row.maker = cut(fru, "manufacturer", 254);
            row.alias = cut(fru, "alias", 31);
            row.software = cut(fru, "software_revision", 254);
        }
        indexes[row.name] = row.index;
        rows.push_back(std::move(row));
    }
    return rows;
}

snmp_value expected_value(const expected_row &row, unsigned column)
{
    switch (column) {
    case 2:
        return text_value(row.description);
    case 3:
        return object_value({0, 0});
    case 4:
        return integer_value(row.contained_in);
    case 5:
        return integer_value(row.physical_class);
    case 6:
        return integer_value(row.position);
    case 7:
        return text_value(row.name);
    case 9:
        return text_value(row.firmware);
    case 10:
        return text_value(row.software);
    case 11:
        return text_value(row.serial);
    case 12:
        return text_value(row.maker);
    case 13:
        return text_value(row.model);
    case 14:
        return text_value(row.alias);
    case 8:
    case 15:
        return text_value("");
    case 16:
        return integer_value(row.is_fru ? 1 : 2);
    default:
        throw std::out_of_range("no column " + std::to_string(column));
    }
}
