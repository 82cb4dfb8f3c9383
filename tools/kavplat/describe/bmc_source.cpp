#include "tools/kavplat/describe/bmc.h"
#include "tools/kavplat/describe/locations.h"
#include "tools/kavplat/describe/parts.h"

#include <algorithm>
#include <set>

namespace kavplat_describe
{
namespace
{

/* Kinds of entities, as IPMI numbers them. */
enum : unsigned {
    processor = 0x03,
    disk = 0x04,
    management_module = 0x06,
    memory = 0x08,
    processor_module = 0x09,
    supply = 0x0a,
    front_panel = 0x0c,
    drive_backplane = 0x0f,
    power_domain = 0x13,
    power_board = 0x15,
    chassis = 0x17,
    sub_chassis = 0x18,
    drive_bay = 0x1a,
    fan = 0x1d,
    cooling_domain = 0x1e,
    memory_device = 0x20,
    environment = 0x27,
    management_firmware = 0x2e,
    air_inlet_of_old = 0x37,
    air_inlet = 0x40,
    another_processor = 0x41,
};

struct kind_of_component {
    unsigned entity;
    std::vector<std::string_view> as; /* what it is in a machine that others told of ... */
    const char *inside;               /* ... and what is in it when it is there; or null */
    const char *label;                /* one that nobody else told of; null: it is not made */
    const char *type;
    const char *inner_label;
};

const kind_of_component kinds[] = {
    {processor, {"cpu-socket"}, "processor", nullptr, nullptr, nullptr},
    {processor, {"processor"}, nullptr, nullptr, nullptr, nullptr},
    {memory, {"dimm-slot"}, "memory-module", nullptr, nullptr, nullptr},
    {supply, {"psu-bay"}, "power-supply", "PSU", "psu-bay", "PS"},
    {fan, {"fan", "blower"}, nullptr, "FAN", "fan", nullptr},
    {cooling_domain, {}, nullptr, "COOLING", "cooling-domain", nullptr},
    {disk, {"drive-bay"}, nullptr, "HDD", "drive-bay", nullptr},
    {management_module, {"service-processor"}, nullptr, "SP", "service-processor", nullptr},
    {front_panel, {}, nullptr, "FP", "front-panel", nullptr},
    {drive_backplane, {}, nullptr, "BP", "drive-backplane", nullptr},
    {power_board, {}, nullptr, "PDB", "power-distribution-board", nullptr},
};

/* A fan whose presence is told can be missing in its place. */
const kind_of_component fan_in_bay = {fan, {}, "fan", "FAN", "fan-bay", "FAN"};

constexpr const char *made_here = "BMC"; /* where what nobody else told of is */

constexpr unsigned of_the_whole[] = {power_domain, chassis,          sub_chassis,
                                     environment,  air_inlet_of_old, air_inlet};

/* Makers take one or the other number for the same thing. */
constexpr struct {
    unsigned number;
    unsigned same_as;
} synonyms[] = {{processor_module, processor},
                {another_processor, processor},
                {memory_device, memory},
                {drive_bay, disk},
                {management_firmware, management_module}};

const struct {
    const char *quantity;
    const char *prefix;
    const measured &what;
} quantities[] = {
    {"temperature", "T_", temperature}, {"voltage", "V_", voltage},
    {"current", "I_", current},         {"power", "P_", power},
    {"energy", "E_", energy},           {"speed", "FAN_", speed},
    {"humidity", "RH_", humidity},      {"percent", "U_", charge},
};
const measured unnamed{"usage-sensor", "other", "none", 1};

struct place {
    component *holder = nullptr; /* has the presence */
    component *inner = nullptr;  /* what is in it, or the holder; null: it is not there */
};

bmc_entity canonical(bmc_entity it)
{
    const auto *other =
        std::ranges::find_if(synonyms, [it](const auto &each) { return each.number == it.kind; });
    return {other == std::end(synonyms) ? it.kind : other->same_as, it.instance};
}

std::optional<unsigned> number_at_end(const std::string &label)
{
    const size_t last = label.find_last_not_of("0123456789");
    return number_after(label, label.substr(0, last == label.npos ? 0 : last + 1));
}

class places
{
  public:
    places(const bmc_inventory &told, machine &into);
    place of(const std::string &name, bmc_entity it);

  private:
    std::vector<component *> all_of(const std::vector<std::string_view> &types) const;
    component *inside(const component &holder, std::string_view type) const;
    component *known_one(const kind_of_component &kind, unsigned instance) const;
    place find(bmc_entity it);
    place place_in(component &holder, const kind_of_component &kind, bmc_entity it);

    machine &into_;
    std::map<bmc_entity, bool> present_;
    std::map<unsigned, std::set<unsigned>> instances_; /* by kind */
    std::map<bmc_entity, place> found_;
};

places::places(const bmc_inventory &told, machine &into) : into_(into)
{
    for (const bmc_sensor &each : told.sensors) {
        const bmc_entity entity = canonical(each.entity);
        instances_[entity.kind].insert(entity.instance);
        if (each.present) {
            present_.try_emplace(entity, false).first->second |= *each.present;
        }
    }
    for (const bmc_unit &each : told.units) {
        const bmc_entity entity = canonical(each.entity);
        instances_[entity.kind].insert(entity.instance);
    }
}

std::vector<component *> places::all_of(const std::vector<std::string_view> &types) const
{
    std::vector<component *> found;
    for (component &each : into_.all) {
        if (each.where != made_here && std::ranges::find(types, each.type) != types.end()) {
            found.push_back(&each);
        }
    }
    std::ranges::stable_sort(found, [](const component *one, const component *other) {
        return comes_before(one->label, other->label);
    });
    return found;
}

component *places::inside(const component &holder, std::string_view type) const
{
    const auto found = std::ranges::find_if(into_.all, [&](const component &each) {
        return each.parent == &holder && each.type == type;
    });
    return found == into_.all.end() ? nullptr : &*found;
}

/* By the numbers in the labels, where they are those of the instances; or else the first,
 * the second and so on. */
component *places::known_one(const kind_of_component &kind, unsigned instance) const
{
    const std::set<unsigned> &instances = instances_.at(kind.entity);
    const std::vector<component *> all = all_of(kind.as);
    std::map<unsigned, component *> by_number;
    for (component *each : all) {
        if (const auto number = number_at_end(each->label); number && instances.contains(*number)) {
            by_number.emplace(*number, each);
        }
    }
    if (by_number.size() == all.size()) {
        const auto found = by_number.find(instance);
        return found == by_number.end() ? nullptr : found->second;
    }
    const unsigned first = instances.contains(0) ? 0 : 1;
    const bool counted_on = *instances.rbegin() - first < all.size();
    const size_t at =
        counted_on
            ? instance - first
            : static_cast<size_t>(std::distance(instances.begin(), instances.find(instance)));
    return at < all.size() ? all[at] : nullptr;
}

place places::place_in(component &holder, const kind_of_component &kind, bmc_entity it)
{
    const auto told = present_.find(it);
    if (kind.inside == nullptr) {
        return {&holder, &holder};
    }
    component *inner = inside(holder, kind.inside);
    if (told != present_.end() && !told->second) {
        if (inner != nullptr) { /* it was there when the machine was started */
            inner->gone = true;
        }
        return {&holder, nullptr};
    }
    if (inner == nullptr && kind.inner_label != nullptr) {
        inner = &into_.add(holder, kind.inner_label, kind.inside);
    }
    return {&holder, inner == nullptr ? &holder : inner};
}

place places::find(bmc_entity it)
{
    for (const kind_of_component &each : kinds) {
        if (each.entity != it.kind) {
            continue;
        }
        if (component *known = each.as.empty() ? nullptr : known_one(each, it.instance);
            known != nullptr) {
            return place_in(*known, each, it);
        }
        if (each.label != nullptr) {
            const kind_of_component &kind =
                it.kind == fan && present_.contains(it) ? fan_in_bay : each;
            component &made = into_.add(into_.root(), kind.label + std::to_string(it.instance),
                                        kind.type, made_here);
            if (kind.inside != nullptr || it.kind == disk) {
                made.capabilities = {"holder"};
            }
            return place_in(made, kind, it);
        }
    }
    component *holder = std::ranges::find(of_the_whole, it.kind) == std::end(of_the_whole)
                            ? &into_.board()
                            : &into_.root();
    return {holder, holder};
}

place places::of(const std::string &name, bmc_entity it)
{
    it = canonical(it);
    if (it.kind == memory) {
        /* Makers number modules by channels, in ways of their own; the name is better. */
        if (component *module = module_named_in(into_, name); module != nullptr) {
            return {module->parent, module};
        }
    }
    const auto known = found_.find(it);
    return known != found_.end() ? known->second : found_.emplace(it, find(it)).first->second;
}

json bound(const bmc_inventory &told, const std::string &key, const std::string &what = {})
{
    json value = {{"file", bmc_file(told.directory, key, what.c_str())}};
    if (!what.empty() && what != "valid") {
        value["offset"] = 1; /* 0 and 1 to 1 and 2, which say false and true */
    }
    return value;
}

void add_flag(const bmc_inventory &told, const bmc_sensor &it, const std::string &flag,
              const place &where, machine &into)
{
    const bool presence = flag == "presence";
    component *holder = presence ? where.holder : where.inner;
    if (holder == nullptr) {
        return;
    }
    component &made =
        add_discrete(into, *holder, presence ? "PRSNT" : label_of(it.name + ' ' + flag),
                     presence               ? "presence-sensor"
                     : flag == "predictive" ? "predictive-sensor"
                                            : "fault-sensor",
                     presence ? "presence" : "other", bound(told, it.key, flag));
    made.where = it.key;
    made.keys["sensor"]["valid"] = bound(told, it.key, "valid");
}

void add_sensor(const bmc_inventory &told, const bmc_sensor &it, const place &where, machine &into)
{
    for (const std::string &flag : it.flags) {
        add_flag(told, it, flag, where, into);
    }
    if (it.quantity.empty() || where.inner == nullptr) {
        return;
    }
    const auto *known = std::ranges::find_if(
        quantities, [&it](const auto &each) { return it.quantity == each.quantity; });
    const bool is_known = known != std::end(quantities);
    const measured &what = is_known ? known->what : unnamed;
    component &made =
        add_reading(into, *where.inner, (is_known ? known->prefix : "") + label_of(it.name, it.key),
                    what, bound(told, it.key));
    made.where = it.key;
    made.keys["sensor"]["valid"] = bound(told, it.key, "valid");
    constexpr const char *by_trust[] = {"upper_critical",     "upper_fatal", "lower_critical",
                                        "upper_non_critical", "lower_fatal", "lower_non_critical"};
    std::vector<std::pair<std::string, double>> limits;
    for (const char *key : by_trust) {
        if (const auto limit = it.limits.find(key); limit != it.limits.end()) {
            limits.emplace_back(*limit);
        }
    }
    add_limits(made, what, limits);
}

bool says_anything(const identity &it)
{
    return !it.model.empty() || !it.serial.empty() || !it.manufacturer.empty();
}

/* What other sources said is kept. */
void give(std::string &into, const std::string &text)
{
    if (into.empty()) {
        into = identity_text(text);
    }
}

void give(identity &into, const identity &from)
{
    give(into.model, from.model);
    give(into.manufacturer, from.manufacturer);
    give(into.serial, from.serial);
    give(into.alias, from.alias);
    give(into.software_revision, from.software_revision);
}

void add_whole(const bmc_unit &it, machine &into)
{
    give(into.root().fru, it.product);
    give(into.product.model, it.product.model);
    give(into.product.serial, it.product.serial);
    give(into.chassis.model, it.chassis.model);
    give(into.chassis.serial, it.chassis.serial);
    give(into.board().fru, it.board);
}

} // namespace

void add_bmc(const bmc_inventory &told, machine &into)
{
    places where(told, into);
    for (const bmc_unit &each : told.units) {
        if (each.whole) {
            add_whole(each, into);
        } else if (const place found = where.of("", each.entity);
                   found.inner != nullptr && found.inner != &into.root()) {
            give(found.inner->fru, says_anything(each.product) ? each.product : each.board);
        }
    }
    for (const bmc_sensor &each : told.sensors) {
        add_sensor(told, each, where.of(each.name, each.entity), into);
    }
}

} // namespace kavplat_describe
