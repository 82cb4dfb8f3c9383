#include "generated_server.h"

#include <nlohmann/json.hpp>

namespace
{

using nlohmann::ordered_json;

ordered_json fru(const char *model, size_t number)
{
    return {{"model", model},
            {"manufacturer", "Generated Parts"},
            {"serial", "GP-" + std::to_string(100000 + number)}};
}

ordered_json describe(const generated_component &component, size_t number)
{
    ordered_json out = {{"name", component.name}};
    switch (component.kind) {
    case part::root:
        out["type"] = "system";
        break;
    case part::board:
        out["type"] = "io-module";
        out["capabilities"] = {"field-replaceable", "fru-info", "hot-pluggable"};
        out["ready_to_remove"] = "not-ready";
        out["fru"] = fru("GP-BOARD", number);
        out["interface"] = "lo";
        break;
    case part::numeric_sensor:
        out["type"] = "temperature-sensor";
        out["sensor"] = {{"class", "threshold"},
                         {"type", "temperature"},
                         {"units", "degrees-c"},
                         {"reading", 20.5 + static_cast<double>(number % 40)},
                         {"thresholds", {{"upper_non_critical", 80}, {"upper_critical", 90}}}};
        break;
    case part::binary_sensor:
        out["type"] = "presence-sensor";
        out["sensor"] = {{"class", "discrete"},
                         {"type", "presence"},
                         {"reading", "present"},
                         {"raw_reading", 2}};
        break;
    case part::indicator:
        out["type"] = "fault-led";
        out["indicator"] = {{"state", "off"}};
        break;
    case part::slot:
        out["type"] = "dimm-slot";
        out["capabilities"] = {"holder"};
        break;
    case part::module:
        out["type"] = "memory-module";
        out["capabilities"] = {"field-replaceable", "fru-info"};
        out["ready_to_remove"] = "not-ready";
        out["fru"] = fru("GP-DIMM", number);
        break;
    }
    return out;
}

void add_board(std::vector<generated_component> &to, const std::string &board)
{
    to.push_back({board, part::board});
    for (int i = 0; i < 14; i++) {
        to.push_back({board + "/T" + std::to_string(i), part::numeric_sensor});
    }
    for (int i = 0; i < 14; i++) {
        to.push_back({board + "/PRSNT" + std::to_string(i), part::binary_sensor});
    }
    for (int i = 0; i < 6; i++) {
        to.push_back({board + "/LED" + std::to_string(i), part::indicator});
    }
    for (int i = 0; i < 8; i++) {
        const std::string slot = board + "/D" + std::to_string(i);
        to.push_back({slot, part::slot});
        to.push_back({slot + "/DIMM", part::module});
    }
}

} // namespace

std::string board_name(size_t number)
{
    return "/SYS/IOM" + std::to_string(number);
}

std::vector<generated_component> generate_server(size_t size)
{
    std::vector<generated_component> all = {{"/SYS", part::root}};
    for (size_t board = 0; all.size() < size; board++) {
        add_board(all, board_name(board));
    }
    all.resize(size);
    return all;
}

std::string describe_server(const std::vector<generated_component> &components)
{
    ordered_json out;
    out["product"] = {
        {"model", "GP-1"}, {"serial", "GP1-1"}, {"description", "A generated server"}};
    for (size_t i = 0; i < components.size(); i++) {
        out["components"].push_back(describe(components[i], i));
    }
    return out.dump(1);
}
