/*
 * A description in memory: plain data, complete once the loader hands it out
 * and never changed after, so that any number of threads read it unlocked.
 */
#ifndef KAVPLAT_DESCRIBED_DESCRIPTION_H
#define KAVPLAT_DESCRIBED_DESCRIPTION_H

#include "described/format/codes.h"
#include "described/format/rare.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace described_platform
{

/* A constant, or the first number (or name) of a file, read at each call. */
struct live_value {
    code_table names; /* what may stand in place of a number */
    double low = 0;   /* what the component API can carry, ends included */
    double high = 0;
    bool whole = false; /* a code: a number is rounded to the nearest integer */
    double constant = 0;
    std::string file; /* absolute path of the bound file; empty: the constant counts */
    double scale = 1; /* number in the file * scale + offset */
    double offset = 0;

    /* The rest follows from the key that the value stands under. */
    bool operator==(const live_value &other) const
    {
        return constant == other.constant && file == other.file && scale == other.scale &&
               offset == other.offset;
    }
};

enum threshold {
    upper_fatal,
    upper_critical,
    upper_non_critical,
    lower_fatal,
    lower_critical,
    lower_non_critical,
    threshold_count
};

struct sensor {
    int32_t sensor_class = 0;
    int32_t sensor_type = 0;
    int32_t units = 0;
    uint16_t flags = 0; /* thresholds that are given, CAPI_STATE_SEMANTICS, CAPI_ALTERNATING */
    std::array<float, threshold_count> thresholds{};
    bool ok_semantics = false;
    std::string record_name;
    live_value reading;
    rare<live_value> raw_reading;
    rare<live_value> valid;
    rare<live_value> state;
    bool operator==(const struct sensor &) const = default;
};

struct fru_identity {
    std::string model;
    std::string manufacturer;
    std::string serial;
    std::string alias;
    std::string software_revision;
    bool operator==(const fru_identity &) const = default;
};

struct product_identity {
    std::string model;
    std::string serial;
    std::string description;
    std::optional<std::string> vantor_id;
    bool operator==(const product_identity &) const = default;
};

struct chassis_identity {
    std::string model;
    std::string serial;
    std::string description;
    std::string manufacturer;
    std::optional<std::string> vantor_id;
    bool operator==(const chassis_identity &) const = default;
};

struct component {
    std::string name;
    uint32_t type = 0;
    std::array<uint8_t, 10> capabilities{};
    rare<fru_identity> fru;
    std::string interface; /* the host's name of the network interface; empty: none */
    rare<live_value> power;
    rare<live_value> ready_to_remove;
    rare<live_value> enable;
    std::unique_ptr<struct sensor> sensor;
    rare<live_value> indicator;
    int32_t indicator_meaning = 0; /* enum capi_indicator_meaning; 0: none */
    size_t position = 0;           /* in the file's array */
    size_t subtree_end = 0;        /* the components from this one up to here, exclusive, are
                                      this one and all below it */
};

/* Says whether a file may have changed since it was read. */
struct file_signature {
    uint64_t device = 0;
    uint64_t inode = 0;
    int64_t size = -1; /* -1: there was no file */
    int64_t modified_ns = 0;
    int64_t changed_ns = 0;
    bool operator==(const file_signature &) const = default;
};

struct description {
    std::optional<product_identity> product;
    std::optional<chassis_identity> chassis;
    std::vector<component> components; /* depth-first, siblings in file order; [0] is the root */
    std::unordered_map<std::string_view, size_t> by_name;
    std::unordered_map<std::string_view, size_t> by_record_name; /* sensors */
    std::vector<std::string> bound_files;                        /* each once */
    file_signature signature;

    description() = default;
    description(const description &) = delete; /* the maps point into the components */
    description &operator=(const description &) = delete;
};

/* Null when there is no such component. */
const component *find_component(const description &all, std::string_view name);

/* A sensor by NAC name or else by the name in its record; null: no such sensor. */
const sensor *find_sensor(const description &all, std::string_view name);

/* What stands before the last '/'. */
std::string_view parent_name(std::string_view name);

} // namespace described_platform

#endif
