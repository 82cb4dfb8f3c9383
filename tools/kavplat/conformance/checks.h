/*
 * The promises of the platform contract, one check each, and what the checks
 * share. A check looks at the loaded platform and writes down what it saw.
 */
#ifndef KAVPLAT_CONFORMANCE_CHECKS_H
#define KAVPLAT_CONFORMANCE_CHECKS_H

#include <array>
#include <chrono>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "contract.h"

struct run_options {
    std::chrono::milliseconds concurrent_for{2000};
    std::chrono::milliseconds wait{5000};
    std::string provoke; /* empty: nothing makes the platform change */
};

/* What one check saw: kept when nothing is broken and nothing was in its way. */
struct findings {
    std::vector<std::string> broken;
    std::vector<std::string> warnings; /* allowed, but somebody will notice */
    std::vector<std::string> notes;
    std::string skipped; /* why there was nothing to look at */
};

/* Thrown, within this program only: a check has nothing to stand on. */
struct not_possible {
    std::string why;
};

/* A copy of a record of an inventory list. */
struct listed_component {
    std::string name; /* empty when the component has none */
    bool has_pointer = false;
    bool length_agrees = false; /* the NUL is where nac_name_length says */
    uint32_t told_length = 0;
    std::array<uint8_t, 10> capabilities = {};
    uint32_t type = 0;

    bool can(int byte, int mask) const
    {
        return (capabilities[static_cast<size_t>(byte)] & mask) != 0;
    }
};

struct listing {
    int status = -1;
    std::string fault; /* of the list as a whole: a count without records */
    std::vector<listed_component> components;
};

struct sensor_answer {
    int status = -1;
    capi_sensor_record record = {};
    bool fence_intact = true;
};

struct event_session;

struct session {
    platform_calls calls;
    std::vector<std::string> missing; /* calls that the library lacks */
    run_options options;
    std::string provoke_fault; /* of the command, not of the platform */

    std::string root; /* see root_of */
    std::optional<listing> whole;
    std::map<std::string, sensor_answer> readings;
    std::map<uint32_t, std::pair<const char *, std::string>> descriptions;
    std::shared_ptr<event_session> events;
};

struct check {
    const char *name;
    const char *promise;
    void (*run)(session &, findings &);
};

/* The checks of each part, in the file of that name; the last ones are those of
 * threads, too. */
std::span<const check> inventory_checks();
std::span<const check> reading_checks();
std::span<const check> thread_checks();
std::span<const check> event_checks();
std::span<const check> last_checks();

/* ---- Shared ---- */

std::string text_of(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* Lists, copies and releases. */
listing list_components(const session &s, const std::string &name, int mode);
/* Whether name is top or below it. */
bool is_at_or_below(const std::string &name, const std::string &top);
std::string parent_of(const std::string &name);

/* The root component's name, waiting for the first inventory. */
const std::string &root_of(session &s);
/* All components below the root, listed once. Throws not_possible. */
const std::vector<listed_component> &components_of(session &s);
/* The named ones among them whose type is a sensor's or an indicator's. */
std::vector<std::string> sensors_of(session &s);
std::vector<std::string> indicators_of(session &s);
/* Read once in a run: the library does not ask more often than every ten seconds. */
const sensor_answer &reading_of(session &s, const std::string &name);
sensor_answer sensor_info_of(const session &s, const std::string &name);

/* Memory for an answer with bytes behind it that must not change. The answer is
 * filled with 0xA5 first, so that a field that nobody writes is seen. */
template <class Answer>
struct fenced {
    Answer value;
    unsigned char fence[64];

    fenced() { memset(static_cast<void *>(this), 0xA5, sizeof *this); }
    bool intact() const
    {
        for (const unsigned char byte : fence) {
            if (byte != 0xA5) {
                return false;
            }
        }
        return true;
    }
};

template <size_t Size>
bool is_terminated(const char (&field)[Size])
{
    return memchr(field, '\0', Size) != nullptr;
}

/* So that a run over thousands of components stays short: every nth, and at most
 * most of them. */
template <class Item>
std::vector<Item> sample(const std::vector<Item> &all, size_t most)
{
    if (all.size() <= most) {
        return all;
    }
    std::vector<Item> some;
    for (size_t i = 0; i < most; i++) {
        some.push_back(all[i * all.size() / most]);
    }
    return some;
}

#endif
