/*
 * Hot-plug, failures and requests in any order, and after each step a look at
 * the whole cache.
 *
 * The input is a program: each byte chooses an operation, the bytes behind it
 * say what the platform answers, which names are meant and which calls and
 * allocations fail. Where nothing fails, a model says what the rows must be
 * after an event; where something does, the cache must still be sound and the
 * log must say so.
 *
 * Events may come in the middle of a table's walk and, where the library waits
 * or calls the platform without its lock, in the middle of a build too, as they
 * do on the threads of a real platform. Here all of it runs on one thread, so
 * an input always does the same.
 */
#include "fakes/fake_platform.h"
#include "fakes/fake_system.h"
#include "fuzz/must.h"
#include "kavdata/cache_internal.h"
#include "kavPlatMIB/platform_table.h"
#include "monitor/monitor.h"
#include "table/table.h"

#include "entityMappingMIB/mapping_tables.h"
#include "entityMIB/entityMIB.h"
#include "entityMIB/entPhysicalTable.h"
#include "entitySensorMIB/entPhySensorTable.h"
#include "entityStateMIB/entStateTable.h"

#include <algorithm>
#include <cstring>
#include <dlfcn.h>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace
{

// ---- The input ----

class program
{
  public:
    program(const uint8_t *data, size_t size) : at_(data), end_(data + size) {}

    bool ended() const { return at_ == end_; }
    unsigned byte() { return at_ != end_ ? *at_++ : 0U; }
    unsigned below(unsigned limit) { return byte() % limit; }
    bool one_in(unsigned n) { return byte() % n == n - 1; }
    uint32_t word()
    {
        const uint32_t high = byte();
        return high << 8 | byte();
    }
    std::string text(size_t length)
    {
        std::string out;
        while (out.size() < length && at_ != end_) {
            out.push_back(static_cast<char>(*at_ != 0 ? *at_ : 1));
            at_++;
        }
        return out;
    }
    // A record as whoever wrote it left it.
    template <class Record>
    Record record()
    {
        Record out = {};
        const size_t size = std::min<size_t>(sizeof out, byte());
        const std::string bytes = text(size);
        memcpy(&out, bytes.data(), bytes.size());
        return out;
    }

  private:
    const uint8_t *at_;
    const uint8_t *end_;
};

// ---- What is under test ----

struct served_table {
    Netsnmp_First_Data_Point *first;
    Netsnmp_Next_Data_Point *next;
    Netsnmp_Node_Handler *handler;
    bool two_indexes = false;
};

#define SERVED(name)                                                                               \
    {name##_get_first_data_point, name##_get_next_data_point, name##_handler,                      \
     kavplat::name.states != nullptr},
#define SERVED_WITHOUT_EXPORTS(name)                                                               \
    {kavplat::name.get_first, kavplat::name.get_next, kavplat::name.handler},
#define SERVED_BY_PAIRS(name)                                                                      \
    {kavplat::name.get_first, kavplat::name.get_next, kavplat::name.handler, true},
const served_table tables[] = {
    SERVED(entPhysicalTable) KAV_PLAT_TABLES(SERVED) SERVED_WITHOUT_EXPORTS(entPhySensorTable)
        SERVED_WITHOUT_EXPORTS(entStateTable) SERVED_BY_PAIRS(entPhysicalContainsTable)
            SERVED_BY_PAIRS(entAliasMappingTable)};
#undef SERVED_BY_PAIRS
#undef SERVED_WITHOUT_EXPORTS
#undef SERVED

constexpr const char *calls[] = {
    "capi_get_inventory",
    "capi_get_component_desc_str",
    "capi_is_sensor_type",
    "capi_is_indicator_type",
    "capi_get_sensor",
    "capi_get_sensor_info",
    "capi_get_indicator",
    "capi_get_fru_info",
    "capi_get_product_ops_info",
    "capi_get_chassis_ops_info",
    "capi_get_product_vantor_id",
    "capi_get_chassis_vantor_id",
    "capi_get_power_state",
    "capi_get_rdy2rm_status",
    "capi_get_enable_disable_state",
    "capi_is_sensor_with_OK_semantics",
    "event_mgr_get_handle",
    "event_mgr_subscribe_event_class",
    "event_mgr_subscribe_event",
    "capi_get_interface_name",
    "capi_get_indicator_meaning",
};

// Types that take different ways through the library; two of them are made
// sensors and one an indicator below.
constexpr uint32_t sensor_type = 30;
constexpr uint32_t indicator_type = 110;
constexpr uint32_t types[] = {0,
                              CAPI_TYPE_SYSTEM,
                              CAPI_TYPE_CHASSIS,
                              CAPI_TYPE_MIDPLANE,
                              CAPI_TYPE_DRIVE_BAY,
                              CAPI_TYPE_SLOT_IDENTITY,
                              CAPI_TYPE_FAULT_SENSOR,
                              CAPI_TYPE_PREDICTIVE_SENSOR,
                              sensor_type,
                              indicator_type,
                              4,
                              6,
                              12,
                              48,
                              52,
                              92,
                              176,
                              177,
                              UINT32_MAX};

constexpr const char *names[] = {
    "/SYS",
    "/SYS/MB",
    "/SYS/MB/P0",
    "/SYS/MB/P0/T0",
    "/SYS/MB2",
    "/SYS/HDD0",
    "/SYS/HDD0/PRSNT",
    "/SYS/HDD10",
    "/SYS/X/SYS/MB/Y",
    "/SYS/FAN",
    "/SYS/IOX0/SWITCH",
    "/SYS/P4294967296",
    "/SYS/P99999999999999999999",
    "/SYS/P2147483647",
    "Unknown",
    "/",
    "",
    "noslash",
    "//",
    "/SYS/",
    "42",
    "/CH",
};

uint32_t highest()
{
    return getMaxPhysicalIndex();
}

unsigned error_lines = 0;

// Everything of one run.
struct world {
    explicit world(program &input) : in(input) {}

    program &in;
    fake_platform platform;
    std::set<std::string> ever_named = {"Unknown", "/SYS"};
    std::set<uint32_t> unmapped; // rows whose mapping found no memory
    unsigned sleeps = 0;
    bool refresh_in_call = false; // once, in the next call of the platform
    bool change_in_call = false;  // once, in the next one without the lock
    bool request_in_call = false;
    bool nested = false; // something came in between: the model does not know
    unsigned depth = 0;
};

std::string a_name(world &w)
{
    program &in = w.in;
    const unsigned which = in.below(40);
    if (which < std::size(names)) {
        return names[which];
    }
    switch (which) {
    case 30:
        return "/SYS/" + std::string(in.word() % 700, 'a');
    case 31: // about the limits
        return "/SYS/" + std::string(247 + in.below(10), 'b');
    case 32:
        return "/SYS/MB/" + std::string(in.below(255), '/');
    case 33:
    case 34:
        return in.text(in.below(12));
    case 35:
        return "/SYS/C" + std::to_string(in.byte());
    default: { // one that is there, or a child of it
        const phys_entry *entry =
            highest() != 0 ? kavplat::entry_at(1 + in.word() % highest()) : nullptr;
        std::string name = entry ? entry->entPhysicalName : "/SYS";
        if (which >= 38 && name.size() < 400) {
            name += "/T" + std::to_string(in.below(12));
        }
        return name;
    }
    }
}

fake_component a_component(world &w)
{
    program &in = w.in;
    fake_component out;
    if (!in.one_in(12)) {
        out.name = a_name(w);
    }
    out.type = types[in.below(std::size(types))];
    const unsigned bits = in.byte();
    for (unsigned i = 0; i < out.capabilities.size(); i++) {
        if (bits & (1U << (i % 8))) {
            out.capabilities[i] = static_cast<uint8_t>(in.byte());
        }
    }
    w.ever_named.insert(out.name && !out.name->empty() ? *out.name : "Unknown");
    return out;
}

std::vector<fake_component> a_list(world &w)
{
    program &in = w.in;
    unsigned count = in.below(8);
    const bool long_one = in.one_in(16);
    std::vector<fake_component> list;
    while (count-- != 0 && !in.ended()) {
        list.push_back(a_component(w));
    }
    if (long_one) { // for the hash table's growth
        const unsigned first = in.byte();
        for (unsigned i = 0; i < 40; i++) {
            list.push_back(component(("/SYS/C" + std::to_string(first + i)).c_str(), 200));
            w.ever_named.insert(*list.back().name);
        }
    }
    return list;
}

std::string name_of(const fake_component &c)
{
    return c.name && !c.name->empty() ? *c.name : "Unknown";
}

// ---- Soundness ----

void check_text(const char *text, size_t longest)
{
    must(!text || strlen(text) <= longest);
}

void check_row(const world &w, const phys_entry &row, uint32_t index)
{
    must(row.entPhysicalIndex == index);
    must(row.entPhysicalName != nullptr);
    must(w.ever_named.contains(row.entPhysicalName)); // no row that never was
    must(strnlen(row.entPhysicalDescr, sizeof row.entPhysicalDescr) < sizeof row.entPhysicalDescr);
    check_text(row.entPhysicalHardwareRev, 0);
    check_text(row.entPhysicalFirmwareRev, 254);
    check_text(row.entPhysicalSoftwareRev, 254);
    check_text(row.entPhysicalSerialNum, 31);
    check_text(row.entPhysicalMfgName, 254);
    check_text(row.entPhysicalModelName, 254);
    check_text(row.entPhysicalAlias, 31);
    check_text(row.entPhysicalAssetID, 0);
    check_text(row.holderCol2, HOLDER_TEXT_SIZE - 1);
    check_text(row.binarySensorText1, SENSOR_TEXT_SIZE - 1);
    check_text(row.binarySensorText2, SENSOR_TEXT_SIZE - 1);
    must(row.circuitPackDescr == row.entPhysicalDescr);
    must(row.entPhysicalClass >= 1 && row.entPhysicalClass <= PHYSICAL_CLASS_MODULE);
    must(row.entPhysicalIsFRU == TRUTH_TRUE || row.entPhysicalIsFRU == TRUTH_FALSE);
    must(row.sensorKind >= 0 && row.sensorKind <= 3);
    must(row.entPhysicalContainedIn >= 0 &&
         static_cast<uint32_t>(row.entPhysicalContainedIn) <= index + highest());
    must(row.entPhysicalParentRelPos == -1 || row.entPhysicalParentRelPos > 0);
}

// What a row holds are the rows that name it as their container.
void check_contents()
{
    std::vector<size_t> named(size_t{highest()} + 1);
    for (uint32_t i = 1; i <= highest(); i++) {
        const phys_entry *row = physicalTable[i];
        if (row && static_cast<uint32_t>(row->entPhysicalContainedIn) <= highest()) {
            named[static_cast<uint32_t>(row->entPhysicalContainedIn)]++;
        }
    }
    for (uint32_t i = 1; i <= highest(); i++) {
        const phys_entry *row = physicalTable[i];
        const phys_entry *before = nullptr;
        for (const phys_entry *held = row ? kavplat::first_held(*row) : nullptr; held;
             held = kavplat::next_held(*held)) {
            must(held->entPhysicalContainedIn == static_cast<int32_t>(i));
            must(held == physicalTable[held->entPhysicalIndex]);
            must(held->previous_held == before);
            must(named[i] != 0); // it ends
            named[i]--;
            before = held;
        }
        must(!row || (row->last_held == before && named[i] == 0));
    }
}

// The mapping that a search for this text comes to first.
const hash_entry *first_mapping(const char *text)
{
    const uint32_t mixed = hash(htab, &text);
    for (const hash_entry *e = htab->buckets[mixed % htab->bucket_count]; e; e = e->next) {
        if (strcmp(*static_cast<const char *const *>(e->key), text) == 0) {
            return e;
        }
    }
    return nullptr;
}

void check_cache(world &w, bool allocation_failed)
{
    if (!physicalTable) {
        must(highest() == 0 && localCacheSize == 0);
        must(!htab || hashtable_count(htab) == 0);
        w.unmapped.clear();
        return;
    }
    must(highest() <= localCacheSize);
    must(physicalTable[0] == nullptr);
    check_contents();
    for (uint32_t i = highest() + 1; i <= localCacheSize; i++) {
        must(physicalTable[i] == nullptr);
    }
    // Each mapping is that of one row, by the very pointer to its name.
    std::set<uint32_t> mapped;
    if (htab) {
        for (uint32_t b = 0; b < htab->bucket_count; b++) {
            for (const hash_entry *e = htab->buckets[b]; e; e = e->next) {
                must(e->hash_value % htab->bucket_count == b);
                const uint32_t index = *static_cast<const uint32_t *>(e->value);
                must(index >= 1 && index <= highest());
                const phys_entry *row = physicalTable[index];
                must(row && row->entPhysicalName == *static_cast<const char *const *>(e->key));
                must(mapped.insert(index).second);
            }
        }
        must(hashtable_count(htab) == mapped.size());
    }
    for (uint32_t i = 1; i <= highest(); i++) {
        const phys_entry *row = physicalTable[i];
        if (!row) {
            must(!mapped.contains(i));
            w.unmapped.erase(i);
            continue;
        }
        check_row(w, *row, i);
        if (!htab) {
            continue; // inserted while no build succeeds; the next event builds all anew
        }
        if (!mapped.contains(i)) {
            // Only for want of memory.
            must(allocation_failed || w.unmapped.contains(i));
            w.unmapped.insert(i);
            continue;
        }
        // Reachable, or shadowed by the namesake that the table's order puts first.
        const hash_entry *first = first_mapping(row->entPhysicalName);
        must(first != nullptr);
        must(kavplat::find_name(row->entPhysicalName) ==
             *static_cast<const uint32_t *>(first->value));
    }
}

// ---- The model ----

struct rows_model {
    std::vector<std::optional<std::string>> rows; // by index; [0] never is one
    uint32_t size = 0;

    bool operator==(const rows_model &) const = default;

    bool has(const std::string &name) const
    {
        return std::ranges::find(rows, std::optional(name)) != rows.end();
    }
    uint32_t highest() const { return static_cast<uint32_t>(rows.size() - 1); }
    void make_room(uint32_t added)
    {
        if (highest() + added > size) {
            size += highest() + 2 * added;
        }
    }
};

rows_model present_rows()
{
    rows_model out;
    out.size = localCacheSize;
    out.rows.resize(highest() + 1);
    for (uint32_t i = 1; i <= highest(); i++) {
        if (const phys_entry *row = kavplat::entry_at(i)) {
            out.rows[i] = row->entPhysicalName;
        }
    }
    return out;
}

void model_remove(rows_model &m, const std::string &nac)
{
    const uint32_t index = kavplat::find_name(nac.c_str());
    if (index == 0) {
        return;
    }
    m.rows[index].reset();
    const std::string prefix = (nac + "/").substr(0, 254);
    for (uint32_t i = index + 1; i <= m.highest(); i++) {
        if (m.rows[i] && m.rows[i]->find(prefix) != std::string::npos) {
            m.rows[i].reset();
        }
    }
}

void model_insert(rows_model &m, const std::vector<fake_component> &list)
{
    if (list.empty()) {
        return;
    }
    m.make_room(static_cast<uint32_t>(list.size()));
    for (const fake_component &c : list) {
        m.rows.emplace_back(name_of(c));
    }
}

void model_update(rows_model &m, const std::string &nac, const std::vector<fake_component> &list)
{
    if (list.empty()) {
        return;
    }
    std::set<uint32_t> listed;
    uint32_t added = 0;
    for (const fake_component &c : list) {
        const uint32_t index = kavplat::find_name(name_of(c).c_str());
        if (index != 0) {
            listed.insert(index);
        } else {
            added++;
        }
    }
    if (nac == root_nac) {
        for (uint32_t i = 1; i <= m.highest(); i++) {
            if (!listed.contains(i)) {
                m.rows[i].reset();
            }
        }
    }
    m.make_room(added);
    for (const fake_component &c : list) {
        if (!m.has(name_of(c))) {
            m.rows.emplace_back(name_of(c));
        }
    }
}

// ---- Operations ----

void hot_plug(world &w, int event)
{
    constexpr uint32_t most_rows = 1500; // the check looks at all of them
    program &in = w.in;
    std::string nac = event == EVENT_MGR_UPDATE_INVENTORY && !in.one_in(3) ? root_nac : a_name(w);
    std::vector<fake_component> list;
    if (event != EVENT_MGR_HOT_REMOVE) {
        if (highest() > most_rows) {
            return;
        }
        list = a_list(w);
        const auto server = w.platform.locked();
        server->lists[nac] = list;
        if (in.one_in(8)) {
            server->null_list_when_empty = !server->null_list_when_empty;
        }
    }
    const bool fails =
        event != EVENT_MGR_HOT_REMOVE &&
        (w.platform->fail.contains("capi_get_inventory") || w.platform->inventory_after != 0);
    rows_model expected = present_rows();
    const bool modelled = w.depth == 0 && !w.nested && kavplat::cache_is_built() && !fails &&
                          w.unmapped.empty() && w.platform->fail_for.empty();
    if (modelled) {
        switch (event) {
        case EVENT_MGR_HOT_REMOVE:
            model_remove(expected, nac);
            break;
        case EVENT_MGR_HOT_INSERT:
            model_insert(expected, list);
            break;
        default:
            model_update(expected, nac, list);
            break;
        }
    }
    const unsigned failed = fake_system::failed_allocations();
    // A payload need not outlive the call, nor be anybody's name but its own.
    w.platform.deliver(EVENT_MGR_CLASS_HARDWARE, event, nac.c_str());
    if (modelled && !w.nested && failed == fake_system::failed_allocations()) {
        must(present_rows() == expected);
    }
}

void change(world &w)
{
    constexpr int events[] = {EVENT_MGR_HOT_INSERT, EVENT_MGR_HOT_INSERT, EVENT_MGR_HOT_REMOVE,
                              EVENT_MGR_HOT_REMOVE, EVENT_MGR_UPDATE_INVENTORY};
    hot_plug(w, events[w.in.below(std::size(events))]);
}

void refresh(world &w)
{
    const std::string nac = a_name(w);
    const bool named = !w.in.one_in(16);
    w.platform.deliver(EVENT_MGR_CLASS_INTERNAL, EVENT_MGR_REFRESH_SENSOR,
                       named ? nac.c_str() : nullptr);
}

void odd_event(world &w)
{
    const int event_class = static_cast<int>(w.in.byte());
    const int event = static_cast<int>(w.in.byte());
    w.platform.deliver(event_class, event, nullptr);
    w.platform.deliver(EVENT_MGR_CLASS_HARDWARE, event, nullptr);
}

void disconnect(world &w)
{
    w.platform.deliver(EVENT_MGR_CLASS_CONNECTION, EVENT_MGR_DISCONNECT, nullptr);
}

void set_failures(world &w)
{
    program &in = w.in;
    const auto server = w.platform.locked();
    const char *call = calls[in.below(std::size(calls))];
    switch (in.below(6)) {
    case 0:
        server->fail.clear();
        server->fail_for.clear();
        server->subscription_failures.clear();
        server->handle_failures = 0;
        break;
    case 1:
        server->fail[call] = static_cast<int>(in.byte()) - 128;
        break;
    case 2:
        server->fail_for[call][a_name(w)] = static_cast<int>(in.byte()) - 128;
        break;
    case 3:
        server->inventory_after = in.below(3);
        break;
    case 4:
        server->handle_failures = in.below(12);
        break;
    default:
        server->subscription_failures[1 + in.below(6)] = -5;
        break;
    }
}

void set_data(world &w)
{
    program &in = w.in;
    const std::string nac = a_name(w);
    const auto server = w.platform.locked();
    switch (in.below(10)) {
    case 0: {
        auto record = in.record<capi_sensor_record>();
        // Most of them of a class that is looked into, and valid.
        if (!in.one_in(4)) {
            record.sensor_class = in.one_in(2) ? CAPI_SENSOR_DISCRETE : CAPI_SENSOR_THRESHOLD;
            record.reading_status = CAPI_READING_VALID;
        }
        server->sensors[nac] = record;
        break;
    }
    case 1:
        server->sensor_infos[nac] = in.record<capi_sensor_record>();
        break;
    case 2:
        server->indicators[nac] = in.record<capi_indicator_record>();
        break;
    case 3:
        memset(&server->frus[nac], static_cast<int>(in.byte()), sizeof(capi_fru_record));
        break;
    case 4:
        memset(&server->product, static_cast<int>(in.byte()), sizeof server->product);
        break;
    case 5:
        memset(&server->chassis, static_cast<int>(in.byte()), sizeof server->chassis);
        break;
    case 6:
        server->power_states[nac] = static_cast<int32_t>(in.byte()) - 2;
        server->ready_to_remove[nac] = static_cast<int32_t>(in.byte()) - 2;
        break;
    case 7:
        server->enable_states[nac] = {static_cast<int32_t>(in.byte()) - 2,
                                      std::string(in.byte(), 'w')};
        server->ok_semantics.insert(nac);
        break;
    case 8:
        server->meanings[nac] = static_cast<int32_t>(in.byte()) - 2;
        server->interfaces[nac] = in.one_in(4) ? "no-such-port" : "lo";
        break;
    default:
        server->product_vantor_id = std::string(in.byte(), 'v');
        server->chassis_vantor_id = std::string(in.byte(), 'v');
        if (in.one_in(3)) {
            server->descriptions[types[in.below(std::size(types))]] = std::nullopt;
        } else {
            server->default_description = std::string(in.word() % 600, 'd');
        }
        break;
    }
}

uint32_t an_index(world &w)
{
    switch (w.in.below(6)) {
    case 0:
        return 0;
    case 1:
        return highest();
    case 2:
        return highest() + 1;
    case 3:
        return UINT32_MAX;
    default:
        return w.in.word();
    }
}

void look_up(world &w)
{
    const uint32_t index = an_index(w);
    const auto physical_class = static_cast<int32_t>(w.in.below(12));
    const phys_entry *entry = get_entry(index);
    must(!entry || entry->entPhysicalIndex == index);
    entry = getnext_entry(index);
    must(!entry || entry->entPhysicalIndex > index);
    entry = get_entry_by_ent_class(index, physical_class);
    must(!entry || (entry->entPhysicalIndex == index && entry->entPhysicalClass == physical_class));
    entry = getnext_entry_by_ent_class(index, physical_class);
    must(!entry || (entry->entPhysicalIndex > index && entry->entPhysicalClass == physical_class));
    const std::string nac = a_name(w);
    const uint32_t found = kav_plat_mib_find_by_nac(nac.c_str());
    must(found == 0 ||
         (kavplat::entry_at(found) && kavplat::entry_at(found)->entPhysicalName == nac));
}

void free_table_info(void *info)
{
    free(info);
}

// One of the rows that a walk came by, asked for in one column.
struct question {
    netsnmp_request_info request = {};
    netsnmp_variable_list var = {};
};

void ask(world &w, const served_table &t, const std::vector<void *> &rows)
{
    program &in = w.in;
    std::vector<question> questions(1 + in.below(3));
    netsnmp_agent_request_info reqinfo = {};
    constexpr int odd_modes[] = {MODE_SET_RESERVE1, MODE_SET_UNDO, MODE_GETNEXT, MODE_GETBULK};
    reqinfo.mode = in.one_in(8) ? odd_modes[in.below(std::size(odd_modes))] : MODE_GET;
    for (size_t i = 0; i < questions.size(); i++) {
        question &q = questions[i];
        q.var.type = ASN_NULL;
        q.request.requestvb = &q.var;
        q.request.agent_req_info = &reqinfo;
        q.request.next = i + 1 < questions.size() ? &questions[i + 1].request : nullptr;
        auto *info = static_cast<netsnmp_table_request_info *>(
            fake_system::heap_block(sizeof(netsnmp_table_request_info)));
        *info = {};
        info->colnum = in.below(20);
        netsnmp_request_add_list_data(
            &q.request, netsnmp_create_data_list(TABLE_HANDLER_NAME, info, free_table_info));
        if (!rows.empty() && !in.one_in(8)) {
            netsnmp_request_add_list_data(
                &q.request, netsnmp_create_data_list(TABLE_ITERATOR_NAME,
                                                     rows[in.byte() % rows.size()], nullptr));
        }
    }
    t.handler(nullptr, nullptr, &reqinfo, &questions.front().request);
    for (question &q : questions) {
        const u_char type = q.var.type;
        must(type == ASN_NULL || type == ASN_INTEGER || type == ASN_GAUGE ||
             type == ASN_TIMETICKS || type == ASN_OCTET_STR || type == ASN_OBJECT_ID ||
             type == SNMP_NOSUCHINSTANCE || type == SNMP_NOSUCHOBJECT);
        must(type != ASN_INTEGER || q.var.val_len == 4 || q.var.val_len == sizeof(long));
        volatile u_char sum = 0; // every byte can be read
        for (size_t i = 0; q.var.val.string && i < q.var.val_len; i++) {
            sum = static_cast<u_char>(sum + q.var.val.string[i]);
        }
        netsnmp_free_request_data_sets(&q.request);
        snmp_free_var_internals(&q.var);
    }
}

void in_between(world &w)
{
    if (w.depth < 3) {
        w.depth++;
        w.nested = true;
        w.in.one_in(3) ? refresh(w) : change(w);
        w.depth--;
    }
}

// As net-snmp's iterator does it: from get-first to the end of the handler, the
// rows that answer kept until then.
void request(world &w)
{
    program &in = w.in;
    const served_table &t = tables[in.below(std::size(tables))];
    netsnmp_variable_list indexes[2] = {};
    netsnmp_variable_list &index = indexes[0];
    index.next_variable = t.two_indexes ? &indexes[1] : nullptr;
    index.type = indexes[1].type = ASN_INTEGER;
    if (!in.one_in(4)) {
        const auto start = static_cast<long>(an_index(w));
        snmp_set_var_value(&index, &start, sizeof start);
    }
    void *loop = nullptr;
    void *data = nullptr;
    std::vector<void *> rows;
    std::pair<uint32_t, uint32_t> last = {0, 0};
    netsnmp_variable_list *found = t.first(&loop, &data, &index, nullptr);
    while (found) {
        must(found == &index && data);
        uint32_t number[2] = {0, 0};
        for (int i = 0; i < (t.two_indexes ? 2 : 1); i++) {
            must(indexes[i].val_len == sizeof(long));
            number[i] = static_cast<uint32_t>(*indexes[i].val.integer);
        }
        const std::pair here = {number[0], number[1]};
        must(here > last && here.first <= highest());
        last = here;
        rows.push_back(data);
        if (in.one_in(16)) {
            in_between(w);
        }
        if (in.ended() && rows.size() > 64) {
            break;
        }
        found = t.next(&loop, &data, &index, nullptr);
    }
    if (in.one_in(4)) {
        in_between(w);
    }
    snmp_free_var_internals(&indexes[0]);
    snmp_free_var_internals(&indexes[1]);
    if (in.one_in(16)) {
        return; // the agent gave up; the next request ends this pass too
    }
    ask(w, t, rows);
}

void scalars()
{
    netsnmp_variable_list var = {};
    netsnmp_request_info request = {};
    netsnmp_agent_request_info reqinfo = {};
    request.requestvb = &var;
    reqinfo.mode = MODE_GET;
    handle_entLastChangeTime(nullptr, nullptr, &reqinfo, &request);
    must(var.type == ASN_TIMETICKS);
    handle_kavPlatStartTime(nullptr, nullptr, &reqinfo, &request);
    must(var.type == ASN_OCTET_STR && var.val_len == 8);
    snmp_free_var_internals(&var);
}

void step(world &w)
{
    program &in = w.in;
    switch (in.below(20)) {
    case 0:
    case 1:
        hot_plug(w, EVENT_MGR_HOT_INSERT);
        break;
    case 2:
    case 3:
        hot_plug(w, EVENT_MGR_HOT_REMOVE);
        break;
    case 4:
        hot_plug(w, EVENT_MGR_UPDATE_INVENTORY);
        break;
    case 5:
        refresh(w);
        break;
    case 6:
        set_failures(w);
        break;
    case 7:
    case 8:
        set_data(w);
        break;
    case 9:
        look_up(w);
        break;
    case 10:
        free_local_cache();
        break;
    case 11:
        fake_system::set_uptime(in.one_in(4) ? UINT32_MAX - in.byte() : in.word());
        break;
    case 12:
        disconnect(w);
        break;
    case 13:
        odd_event(w);
        break;
    case 14:
        w.refresh_in_call = true;
        break;
    case 15:
        w.change_in_call = true;
        break;
    case 16:
        scalars();
        break;
    default:
        request(w);
        break;
    }
}

// ---- Around it ----

void arm_allocations(program &in)
{
    switch (in.below(8)) {
    case 6:
        fake_system::fail_allocation(1 + in.below(64), 1 + in.below(3));
        break;
    case 7:
        fake_system::fail_allocations_from(size_t{in.word()} / 4);
        break;
    default:
        break;
    }
}

// The checked step: what fails for want of memory is told in the log, unless it
// was made up for. A warning will do where all works on.
template <class Step>
void checked(world &w, Step &&do_step)
{
    arm_allocations(w.in);
    const unsigned failed = fake_system::failed_allocations();
    const unsigned errors = error_lines;
    const uint32_t buckets = htab ? htab->bucket_count : 0;
    w.nested = false;
    do_step();
    fake_system::allow_allocations();
    const bool any_failed = fake_system::failed_allocations() != failed;
    const bool grew_in_place = htab && htab->bucket_count > buckets;
    must(!any_failed || error_lines != errors || grew_in_place);
    check_cache(w, any_failed);
}

// What the library calls while it does not hold its lock may find that the world
// went on.
void on_platform_call(world &w, const fake_call &call)
{
    if (w.depth >= 3 || call.function == "capi_free_inventory") {
        return;
    }
    if (w.refresh_in_call) {
        w.refresh_in_call = false;
        w.depth++;
        refresh(w);
        w.depth--;
    }
    if (!kavplat::this_thread_holds_cache_lock()) {
        if (w.request_in_call) { // the first build: requests, but no events yet
            w.depth++;
            w.request_in_call = false;
            netsnmp_variable_list index = {};
            void *loop = nullptr;
            void *data = nullptr;
            std::vector<void *> rows;
            const served_table &t = tables[w.in.below(std::size(tables) - 8)];
            if (!t.two_indexes) {
                for (auto *found = t.first(&loop, &data, &index, nullptr); found;
                     found = t.next(&loop, &data, &index, nullptr)) {
                    rows.push_back(data);
                }
                ask(w, t, rows);
            }
            snmp_free_var_internals(&index);
            w.depth--;
        } else if (w.change_in_call && call.function == "capi_get_sensor_info") {
            w.change_in_call = false; // a refresh holds no lock
            w.depth++;
            w.nested = true;
            change(w);
            w.depth--;
        }
    }
}

// A server that does not come up would be waited for without limit.
unsigned recover(world &w)
{
    if (w.depth < 2 && kavplat::cache_is_built() && w.sleeps % 2 == 0 &&
        !kavplat::this_thread_holds_cache_lock()) {
        w.depth++;
        w.nested = true;
        change(w);
        w.depth--;
    }
    if (++w.sleeps > 3) {
        w.sleeps = 0;
        fake_system::allow_allocations();
        const auto server = w.platform.locked();
        server->fail.clear();
        server->fail_for.clear();
        server->inventory_after = 0;
        server->lists.erase("/");
        if (server->components.empty() || !server->components.front().name ||
            server->components.front().name->empty()) {
            server->components.insert(server->components.begin(),
                                      component("/SYS", CAPI_TYPE_SYSTEM));
        }
    }
    return 0;
}

void reset()
{
    must(monitor_fru_lock() == 0);
    kavplat::end_agent_pass();
    kavplat::drop_cache();
    cache_valid = 1;
    entLastChangeTime = 0;
    root_nac[0] = '\0';
    must(monitor_fru_unlock() == 0);
}

bool running = false;

// The fuzzer has a thread of its own that really sleeps.
void set_sleep(std::function<unsigned(unsigned)> replacement)
{
    static const std::thread::id self = std::this_thread::get_id();
    fake_system::on_sleep.set([replacement = std::move(replacement)](unsigned seconds) {
        if (std::this_thread::get_id() == self) {
            return replacement(seconds);
        }
        std::this_thread::sleep_for(std::chrono::seconds(seconds));
        return 0U;
    });
}

} // namespace

// libFuzzer puts the C++ library before the sanitizer's; what matters is that
// both come before libc.
extern "C" [[gnu::visibility("default")]] const char *__asan_default_options()
{
    return "verify_asan_link_order=0";
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    set_sleep([](unsigned) { return 0U; });
    atexit([] { // the fuzzer's thread goes on sleeping while the process ends
        fake_system::on_sleep.clear();
        fake_system::on_system.clear();
    });
    // The fuzzer's own merging starts processes by system().
    fake_system::on_system.set([](const char *command) {
        must(!running);
        using function = int (*)(const char *);
        static const auto real = reinterpret_cast<function>(dlsym(RTLD_NEXT, "system"));
        return real(command);
    });
    netsnmp_log_handler *handler = netsnmp_register_loghandler(NETSNMP_LOGHANDLER_NONE, LOG_DEBUG);
    handler->handler = [](netsnmp_log_handler *, int priority, const char *text) {
        must(strlen(text) > 0 || priority == LOG_DEBUG);
        error_lines += priority <= LOG_WARNING ? 1 : 0;
        return 1;
    };
    char all[] = "ALL";
    debug_register_tokens(all);
    // No build belongs to a connection: each run does its own.
    reset();
    fake_platform platform;
    platform->handle_failures = 100;
    fake_system::on_pthread_create.set(
        [](pthread_t *, const pthread_attr_t *, fake_system::thread_body, void *) { return 0; });
    evtmgr_callback(nullptr, EVENT_MGR_CLASS_CONNECTION, EVENT_MGR_DISCONNECT, nullptr);
    fake_system::on_pthread_create.clear();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    running = true;
    program in(data, size);
    {
        world w(in);
        fake_system::set_uptime(123456);
        set_sleep([&w](unsigned) { return recover(w); });
        // A thread's whole life, at once.
        fake_system::on_pthread_create.set(
            [](pthread_t *, const pthread_attr_t *, fake_system::thread_body, void *) {
                evtmgr_register();
                return 0;
            });
        const unsigned how = in.byte();
        snmp_set_do_debugging((how & 1) != 0);
        {
            const auto server = w.platform.locked();
            server->record_calls = false;
            server->spoil_on_failure = (how & 2) == 0;
            server->sensor_types = {sensor_type, CAPI_TYPE_SLOT_IDENTITY, CAPI_TYPE_FAULT_SENSOR,
                                    CAPI_TYPE_PREDICTIVE_SENSOR};
            server->indicator_types = {indicator_type};
            server->on_call = [&w](const fake_call &call) { on_platform_call(w, call); };
        }
        if ((how & 4) == 0) {
            const std::vector<fake_component> list = a_list(w);
            w.platform->components = {component("/SYS", CAPI_TYPE_SYSTEM)};
            w.platform->components.insert(w.platform->components.end(), list.begin(), list.end());
        }
        evtmgr_register(); // a callback to deliver to
        w.request_in_call = (how & 8) != 0;
        if ((how & 16) == 0) {
            checked(w, [] { init_local_cache(); });
        }
        w.request_in_call = false;
        while (!in.ended()) {
            checked(w, [&w] { step(w); });
        }
        fake_system::on_pthread_create.clear();
        set_sleep([](unsigned) { return 0U; });
        w.platform->on_call = nullptr;
        reset();
        snmp_set_do_debugging(0);
    }
    running = false;
    return 0;
}
