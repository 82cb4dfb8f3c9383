#include "tools/kavplat/describe/bmc_client.h"

#include "tools/kavplat/describe/output.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <unistd.h>

namespace kavplat_describe
{
namespace
{

constexpr const char *device = "/dev/ipmi0";

} // namespace

bool has_bmc()
{
    return ::access(device, F_OK) == 0;
}

bool may_ask_bmc()
{
    return ::access(device, R_OK | W_OK) == 0;
}

} // namespace kavplat_describe

#ifdef KAVPLAT_HAS_FREEIPMI

#include <freeipmi/freeipmi.h>

namespace kavplat_describe
{
namespace
{

using clock = std::chrono::steady_clock;

constexpr auto between_inventories = std::chrono::minutes(10);
constexpr size_t most_records = 4096;
constexpr size_t most_sensors = 1000;
constexpr uint8_t service_processor = 0x20; /* its address; others would be asked through it */

struct deleter {
    void operator()(ipmi_ctx *it) const
    {
        ::ipmi_ctx_close(it);
        ::ipmi_ctx_destroy(it);
    }
    void operator()(ipmi_sdr_ctx *it) const { ::ipmi_sdr_ctx_destroy(it); }
    void operator()(ipmi_sensor_read_ctx *it) const { ::ipmi_sensor_read_ctx_destroy(it); }
    void operator()(ipmi_fru_ctx *it) const { ::ipmi_fru_ctx_destroy(it); }
    void operator()(fiid_obj *it) const { ::fiid_obj_destroy(it); }
    void operator()(double *it) const { std::free(it); }
};
template <typename held>
using pointer = std::unique_ptr<held, deleter>;

using record = std::vector<uint8_t>;

/* A record of a sensor may stand for several in a row. */
struct asked_sensor {
    size_t record = 0;
    uint8_t offset = 0;
    unsigned unit = 0; /* of a quantity, as IPMI numbers them */
    std::vector<bmc_flag> flags{};
    bmc_sensor it{};
};

template <typename held>
held *or_throw(held *it)
{
    if (it == nullptr) {
        throw std::bad_alloc();
    }
    return it;
}

std::string password_of(const bmc_target &target, std::string &why)
{
    std::string password;
    std::ifstream file(target.password_file);
    if (!target.password_file.empty() && !std::getline(file, password)) {
        why = target.password_file + ": " +
              (file.is_open() ? "there is no password in it" : std::strerror(errno));
    }
    return password;
}

/* From the units of the service processor to those of a description. */
double converted(unsigned unit, double value)
{
    constexpr double fahrenheit_zero = 32;
    constexpr double per_fahrenheit = 5.0 / 9;
    constexpr double kelvin_zero = 273.15;
    return unit == IPMI_SENSOR_UNIT_DEGREES_F   ? (value - fahrenheit_zero) * per_fahrenheit
           : unit == IPMI_SENSOR_UNIT_DEGREES_K ? value - kelvin_zero
                                                : value;
}

const char *quantity_of(unsigned unit, bool percentage, unsigned sensor_type)
{
    constexpr unsigned humidity_sensor = 0x29;
    if (percentage) {
        return sensor_type == humidity_sensor ? "humidity" : "percent";
    }
    switch (unit) {
    case IPMI_SENSOR_UNIT_DEGREES_C:
    case IPMI_SENSOR_UNIT_DEGREES_F:
    case IPMI_SENSOR_UNIT_DEGREES_K:
        return "temperature";
    case IPMI_SENSOR_UNIT_VOLTS:
        return "voltage";
    case IPMI_SENSOR_UNIT_AMPS:
        return "current";
    case IPMI_SENSOR_UNIT_WATTS:
        return "power";
    case IPMI_SENSOR_UNIT_JOULES:
        return "energy";
    case IPMI_SENSOR_UNIT_RPM:
        return "speed";
    default:
        return "other";
    }
}

/* No more digits than a sensor of one byte means. */
std::string as_text(double value)
{
    char text[40];
    std::snprintf(text, sizeof text, "%.7g", value);
    return text;
}

double rounded(double value)
{
    return std::stod(as_text(value));
}

std::string text_of(ipmi_fru_ctx *from, const ipmi_fru_field_t &field, uint8_t language)
{
    char text[IPMI_FRU_AREA_STRING_MAX + 1] = {};
    unsigned length = IPMI_FRU_AREA_STRING_MAX;
    if (field.type_length_field_length == 0 ||
        ::ipmi_fru_type_length_field_to_string(from, field.type_length_field,
                                               field.type_length_field_length, language, text,
                                               &length) < 0) {
        return {};
    }
    return identity_text(text);
}

/* A byte says how long it is. */
std::string name_in(const record &from, size_t at)
{
    const size_t length = std::min<size_t>(from[at] & 0x1fU, from.size() - at - 1);
    return identity_text({reinterpret_cast<const char *>(from.data()) + at + 1, length});
}

/* A part number says more to who orders one, a name to who looks at it. */
void set_model(identity &into, std::string name, std::string part)
{
    into.model = part.empty() ? name : part;
    into.alias = part.empty() || part == name ? "" : std::move(name);
}

void read_area(ipmi_fru_ctx *from, bmc_unit &into)
{
    static thread_local uint8_t bytes[IPMI_FRU_AREA_SIZE_MAX + 1];
    unsigned type = 0;
    unsigned length = 0;
    if (::ipmi_fru_read_data_area(from, &type, &length, bytes, sizeof bytes - 1) < 0 ||
        length == 0) {
        return;
    }
    uint8_t language = 0;
    ipmi_fru_field_t maker = {}, name = {}, part = {}, version = {}, serial = {}, tag = {},
                     file = {};
    if (type == IPMI_FRU_AREA_TYPE_CHASSIS_INFO_AREA) {
        uint8_t kind = 0;
        if (::ipmi_fru_chassis_info_area(from, bytes, length, &kind, &part, &serial, nullptr, 0) ==
            0) {
            into.chassis.model = text_of(from, part, language);
            into.chassis.serial = text_of(from, serial, language);
        }
    } else if (type == IPMI_FRU_AREA_TYPE_BOARD_INFO_AREA) {
        uint32_t made = 0;
        if (::ipmi_fru_board_info_area(from, bytes, length, &language, &made, &maker, &name,
                                       &serial, &part, &file, nullptr, 0) == 0) {
            set_model(into.board, text_of(from, name, language), text_of(from, part, language));
            into.board.manufacturer = text_of(from, maker, language);
            into.board.serial = text_of(from, serial, language);
        }
    } else if (type == IPMI_FRU_AREA_TYPE_PRODUCT_INFO_AREA) {
        if (::ipmi_fru_product_info_area(from, bytes, length, &language, &maker, &name, &part,
                                         &version, &serial, &tag, &file, nullptr, 0) == 0) {
            set_model(into.product, text_of(from, name, language), text_of(from, part, language));
            into.product.manufacturer = text_of(from, maker, language);
            into.product.serial = text_of(from, serial, language);
            into.product.software_revision = text_of(from, version, language);
        }
    }
}

} // namespace

struct bmc_client::session {
    pointer<ipmi_ctx> connection;
    pointer<ipmi_sdr_ctx> records_of;
    std::vector<record> records;
    std::vector<asked_sensor> sensors;
    clock::time_point next_inventory;

    bool connect(const bmc_target &target, std::string &why);
    bool read_records(const bmc_target &target, std::string &why);
    void find_sensors();
    void add_sensors(size_t number);
    void add_limits(const record &from, asked_sensor &into);
    std::vector<bmc_unit> units();
    bmc_unit unit(uint8_t number, bmc_entity entity);
    bool read(asked_sensor &sensor, double &value, uint16_t &states);
    bool is_lost() const;
};

bool bmc_client::session::connect(const bmc_target &target, std::string &why)
{
    /* In milliseconds. A lost packet is sent again, a lost host is given up. */
    constexpr unsigned longest_silence = 5000;
    constexpr unsigned again = 500;
    constexpr uint8_t hmac_sha1_aes = 3; /* the cipher suite that every one of them has */
    connection.reset(or_throw(::ipmi_ctx_create()));
    records_of.reset(or_throw(::ipmi_sdr_ctx_create()));
    if (target.host.empty()) {
        if (::ipmi_ctx_open_inband(connection.get(), IPMI_DEVICE_OPENIPMI, 1, 0, 0, device, 0, 0) <
            0) {
            why = std::string(device) + ": " + ::ipmi_ctx_errormsg(connection.get());
        }
        return why.empty();
    }
    const std::string password = password_of(target, why);
    if (why.empty() &&
        ::ipmi_ctx_open_outofband_2_0(
            connection.get(), target.host.c_str(), target.user.c_str(), password.c_str(), nullptr,
            0, IPMI_PRIVILEGE_LEVEL_USER, hmac_sha1_aes, longest_silence, again,
            /* Some take the highest privilege, when none is named, for none. */
            IPMI_WORKAROUND_FLAGS_OUTOFBAND_2_0_OPEN_SESSION_PRIVILEGE, 0) < 0) {
        why = target.host + ": " + ::ipmi_ctx_errormsg(connection.get());
    }
    return why.empty();
}

/* The records are kept in a file, since to read them takes some service processors half
 * a minute; they say when they were changed last. */
bool bmc_client::session::read_records(const bmc_target &target, std::string &why)
{
    const std::string file =
        target.directory + "/records" + (target.host.empty() ? "" : '-' + label_of(target.host));
    ipmi_sdr_ctx *from = records_of.get();
    if (::ipmi_sdr_cache_open(from, connection.get(), file.c_str()) < 0 &&
        (::ipmi_sdr_cache_create(from, connection.get(), file.c_str(),
                                 IPMI_SDR_CACHE_CREATE_FLAGS_OVERWRITE, nullptr, nullptr) < 0 ||
         ::ipmi_sdr_cache_open(from, connection.get(), file.c_str()) < 0)) {
        why = std::string("its records of sensors: ") + ::ipmi_sdr_ctx_errormsg(from);
        return false;
    }
    records.clear();
    int more = ::ipmi_sdr_cache_first(from) == 0 ? 1 : 0;
    while (more == 1 && records.size() < most_records) {
        uint8_t bytes[IPMI_SDR_MAX_RECORD_LENGTH];
        if (const int length = ::ipmi_sdr_cache_record_read(from, bytes, sizeof bytes);
            length > 0) {
            records.emplace_back(bytes, bytes + length);
        }
        more = ::ipmi_sdr_cache_next(from);
    }
    ::ipmi_sdr_cache_close(from);
    return true;
}

void bmc_client::session::add_limits(const record &from, asked_sensor &into)
{
    static constexpr struct {
        const char *field;
        const char *key;
    } all[] = {
        {"lower_non_critical_threshold", "lower_non_critical"},
        {"lower_critical_threshold", "lower_critical"},
        {"lower_non_recoverable_threshold", "lower_fatal"},
        {"upper_non_critical_threshold", "upper_non_critical"},
        {"upper_critical_threshold", "upper_critical"},
        {"upper_non_recoverable_threshold", "upper_fatal"},
    };
    constexpr size_t number = 7;
    int8_t r_exponent = 0, b_exponent = 0;
    int16_t m = 0, b = 0;
    uint8_t linearization = 0, format = 0;
    const pointer<fiid_obj> answer(or_throw(::fiid_obj_create(tmpl_cmd_get_sensor_thresholds_rs)));
    if (::ipmi_sdr_parse_sensor_decoding_data(records_of.get(), from.data(),
                                              static_cast<unsigned>(from.size()), &r_exponent,
                                              &b_exponent, &m, &b, &linearization, &format) < 0 ||
        ::ipmi_cmd_get_sensor_thresholds(connection.get(), from.at(number), answer.get()) < 0) {
        return;
    }
    for (const auto &each : all) {
        uint64_t readable = 0;
        uint64_t raw = 0;
        double value = 0;
        if (::fiid_obj_get(answer.get(), (std::string("readable_thresholds.") + each.field).c_str(),
                           &readable) == 1 &&
            readable != 0 && ::fiid_obj_get(answer.get(), each.field, &raw) == 1 &&
            ::ipmi_sensor_decode_value(r_exponent, b_exponent, m, b, linearization, format,
                                       static_cast<uint8_t>(raw), &value) == 0) {
            into.it.limits[each.key] = rounded(converted(into.unit, value));
        }
    }
}

/* Records of sensors begin alike, whether they are full or compact. */
void bmc_client::session::add_sensors(size_t number)
{
    enum : size_t {
        type = 3,
        owner = 5,
        unit = 6,
        first = 7,
        entity = 8,
        instance = 9,
        sensor_type = 12,
        reading_type = 13,
        can_tell = 18,
        units = 20,
        base_unit = 21,
        compact_name = 31,
        full_name = 47
    };
    constexpr uint8_t threshold = 0x01;
    const record &from = records[number];
    const bool full = from.size() > type && from[type] == IPMI_SDR_FORMAT_FULL_SENSOR_RECORD;
    if (from.size() <= (full ? full_name : compact_name) ||
        (!full && from[type] != IPMI_SDR_FORMAT_COMPACT_SENSOR_RECORD) ||
        from[owner] != service_processor) {
        return;
    }
    const auto length = static_cast<unsigned>(from.size());
    uint8_t count = 1, modifier_type = 0, modifier = 0, entities_differ = 0;
    if (!full &&
        ::ipmi_sdr_parse_sensor_record_sharing(records_of.get(), from.data(), length, &count,
                                               &modifier_type, &modifier, &entities_differ) < 0) {
        return;
    }
    for (unsigned i = 0; i < std::max<unsigned>(count, 1) && sensors.size() < most_sensors; i++) {
        asked_sensor one;
        one.record = number;
        one.offset = static_cast<uint8_t>(i);
        char key[24];
        std::snprintf(key, sizeof key, "%02x.%x.%02x", from[owner], from[unit] & 3U,
                      (from[first] + i) & 0xffU);
        one.it.key = key;
        if (std::ranges::any_of(sensors,
                                [&key](const auto &known) { return known.it.key == key; })) {
            continue;
        }
        one.it.name = name_in(from, full ? full_name : compact_name);
        if (count > 1) { /* a number, or a letter, tells them apart */
            const unsigned which = modifier + i;
            one.it.name += modifier_type == 0 ? std::to_string(which)
                                              : std::string(1, static_cast<char>('A' + which % 26));
        }
        /* From 0x60 on instances are numbered by each controller. */
        constexpr unsigned of_controllers = 0x60;
        const unsigned which = from[instance] & 0x7fU;
        one.it.entity = {from[entity], (which >= of_controllers ? which - of_controllers : which) +
                                           (entities_differ != 0 ? i : 0)};
        if (from[reading_type] == threshold) {
            if (!full) {
                continue; /* nobody says what its number means */
            }
            const bool plain = (from[units] & 0x3eU) == 0; /* not by time, not by another unit */
            one.unit = plain ? from[base_unit] : 0;
            one.it.quantity = quantity_of(one.unit, (from[units] & 1U) != 0, from[sensor_type]);
            add_limits(from, one);
        } else {
            one.flags = bmc_flags(from[sensor_type], from[reading_type],
                                  static_cast<uint16_t>(from[can_tell] | from[can_tell + 1] << 8));
            for (const bmc_flag &each : one.flags) {
                one.it.flags.emplace_back(each.name);
            }
            if (one.flags.empty()) {
                continue;
            }
        }
        sensors.push_back(std::move(one));
    }
}

void bmc_client::session::find_sensors()
{
    sensors.clear();
    for (size_t i = 0; i < records.size(); i++) {
        add_sensors(i);
    }
}

bmc_unit bmc_client::session::unit(uint8_t number, bmc_entity entity)
{
    bmc_unit it;
    it.entity = entity;
    const pointer<ipmi_fru_ctx> from(or_throw(::ipmi_fru_ctx_create(connection.get())));
    if (::ipmi_fru_open_device_id(from.get(), number) == 0) {
        do {
            read_area(from.get(), it);
        } while (::ipmi_fru_next(from.get()) == 1);
        ::ipmi_fru_close_device_id(from.get());
    }
    return it;
}

std::vector<bmc_unit> bmc_client::session::units()
{
    enum : size_t { type = 3, address = 5, number = 6, access = 7, entity = 12, instance = 13 };
    constexpr uint8_t logical = 0x80;
    std::vector<bmc_unit> found;
    found.push_back(unit(0, {}));
    found.front().whole = true;
    for (const record &each : records) {
        if (each.size() > instance && each[type] == IPMI_SDR_FORMAT_FRU_DEVICE_LOCATOR_RECORD &&
            each[address] == service_processor && (each[access] & logical) != 0 &&
            each[number] != 0) {
            found.push_back(unit(each[number], {each[entity], each[instance]}));
        }
    }
    return found;
}

/* False: it says nothing at the time. */
bool bmc_client::session::read(asked_sensor &sensor, double &value, uint16_t &states)
{
    const record &from = records[sensor.record];
    const pointer<ipmi_sensor_read_ctx> reader(
        or_throw(::ipmi_sensor_read_ctx_create(connection.get())));
    double *found = nullptr;
    uint8_t raw = 0;
    const int result =
        ::ipmi_sensor_read(reader.get(), from.data(), static_cast<unsigned>(from.size()),
                           sensor.offset, &raw, &found, &states);
    const pointer<double> number(found);
    if (result < 0 || (!sensor.it.quantity.empty() && found == nullptr)) {
        return false;
    }
    value = found == nullptr ? 0 : converted(sensor.unit, *found);
    return true;
}

/* What a sensor says wrongly is its own affair, silence is everybody's. */
bool bmc_client::session::is_lost() const
{
    switch (::ipmi_ctx_errnum(connection.get())) {
    case IPMI_ERR_CONNECTION_TIMEOUT:
    case IPMI_ERR_SESSION_TIMEOUT:
    case IPMI_ERR_DRIVER_TIMEOUT:
    case IPMI_ERR_MESSAGE_TIMEOUT:
    case IPMI_ERR_DEVICE_NOT_OPEN:
    case IPMI_ERR_SYSTEM_ERROR:
        return true;
    default:
        return false;
    }
}

bool has_bmc_client()
{
    return true;
}

bmc_client::bmc_client(bmc_target target) : target_(std::move(target))
{
    inventory_.directory = target_.directory;
}

bmc_client::~bmc_client() = default;

namespace
{

bool write_value(const std::string &file, const std::string &text, std::string &why)
{
    const bool good = replace_file(file, text + '\n', why, false);
    if (!good) {
        why = file + ": " + why;
    }
    return good;
}

} // namespace

bool bmc_client::look(std::string &why)
{
    const auto now = clock::now();
    const auto lose = [this, &why](const std::string &reason) {
        session_.reset();
        disbelieve(inventory_);
        why = reason;
        return false;
    };
    if (session_ == nullptr || now >= session_->next_inventory) {
        std::error_code failure;
        std::filesystem::create_directories(target_.directory, failure);
        if (failure) {
            return lose(target_.directory + ": " + failure.message());
        }
        auto fresh = session_ == nullptr ? std::make_unique<session>() : std::move(session_);
        if ((fresh->connection == nullptr && !fresh->connect(target_, why)) ||
            !fresh->read_records(target_, why)) {
            return lose(why);
        }
        fresh->find_sensors();
        inventory_.units = fresh->units();
        if (fresh->is_lost()) {
            return lose("it does not answer any more");
        }
        fresh->next_inventory = now + between_inventories;
        session_ = std::move(fresh);
    }
    bool moved = false;
    std::vector<bmc_sensor> seen;
    for (asked_sensor &each : session_->sensors) {
        double value = 0;
        uint16_t states = 0;
        const bool good = session_->read(each, value, states);
        if (!good && session_->is_lost()) {
            return lose("it does not answer any more");
        }
        const std::optional<bool> before = each.it.present;
        bool written = true;
        for (const bmc_flag &flag : each.flags) {
            const bool is_so = (states & flag.states) != 0;
            if (std::string_view(flag.name) == "presence" && good) {
                each.it.present = is_so;
            }
            written = written && write_value(bmc_file(target_.directory, each.it.key, flag.name),
                                             good && is_so ? "1" : "0", why);
        }
        if (!each.it.quantity.empty() &&
            (good || ::access(bmc_file(target_.directory, each.it.key).c_str(), F_OK) != 0)) {
            written = written &&
                      write_value(bmc_file(target_.directory, each.it.key), as_text(value), why);
        }
        if (!written || !write_value(bmc_file(target_.directory, each.it.key, "valid"),
                                     good && target_.believed ? "1" : "0", why)) {
            return lose(why);
        }
        moved = moved || (before && before != each.it.present);
        seen.push_back(each.it);
    }
    inventory_.sensors = std::move(seen);
    if (moved) { /* what was plugged says who it is */
        inventory_.units = session_->units();
    }
    return true;
}

} // namespace kavplat_describe

#else

namespace kavplat_describe
{

struct bmc_client::session {
};

bool has_bmc_client()
{
    return false;
}

bmc_client::bmc_client(bmc_target target) : target_(std::move(target)) {}
bmc_client::~bmc_client() = default;

bool bmc_client::look(std::string &why)
{
    why = "this program was built without FreeIPMI's library";
    return false;
}

} // namespace kavplat_describe

#endif
