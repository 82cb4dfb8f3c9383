#include "checks.h"

#include <algorithm>
#include <cmath>
#include <set>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

namespace
{

using namespace std::chrono_literals;

// What cannot be read now may be read in a moment.
template <class Call>
int status_of(Call call)
{
    int status = call();
    for (int attempt = 0; status != 0 && attempt < 2; attempt++) {
        std::this_thread::sleep_for(50ms);
        status = call();
    }
    return status;
}

template <size_t Size>
void expect_terminated(findings &f, const char *call, const std::string &name, const char *field,
                       const char (&text)[Size])
{
    if (!is_terminated(text)) {
        f.broken.push_back(
            text_of("%s(%s): %s has no NUL within its %zu bytes", call, name.c_str(), field, Size));
    }
}

void expect_fence(findings &f, const char *call, const std::string &name, bool intact, size_t size)
{
    if (!intact) {
        f.broken.push_back(
            text_of("%s(%s) writes behind the %zu bytes of the answer", call, name.c_str(), size));
    }
}

void warn_of_failures(findings &f, const char *call, const std::vector<std::string> &failed,
                      size_t of, int status)
{
    if (!failed.empty()) {
        f.warnings.push_back(text_of("%s fails for %zu of %zu, first for %s with %d", call,
                                     failed.size(), of, failed[0].c_str(), status));
    }
}

bool is_known_sensor_type(int32_t type)
{
    switch (type) {
    case 0:
    case CAPI_SENSOR_TEMPERATURE:
    case CAPI_SENSOR_VOLTAGE:
    case CAPI_SENSOR_CURRENT:
    case CAPI_SENSOR_TACHOMETER:
    case CAPI_SENSOR_PRESENCE:
    case CAPI_SENSOR_HUMIDITY:
        return true;
    default:
        return false;
    }
}

void look_at_info(findings &f, const std::string &name, const capi_sensor_record &r)
{
    const char *n = name.c_str();
    constexpr unsigned known_flags = 0xFF;
    constexpr int32_t largest_type = 255;
    expect_terminated(f, "capi_get_sensor_info", name, "name", r.name);
    if (r.sensor_class != CAPI_SENSOR_THRESHOLD && r.sensor_class != CAPI_SENSOR_DISCRETE) {
        f.broken.push_back(text_of("%s: sensor_class is %d", n, r.sensor_class));
    }
    if (r.sensor_type < 0 || r.sensor_type > largest_type) {
        f.broken.push_back(text_of("%s: sensor_type is %d", n, r.sensor_type));
    } else if (!is_known_sensor_type(r.sensor_type)) {
        f.notes.push_back(text_of("%s: sensor_type %d is served as \"other\"", n, r.sensor_type));
    }
    if (r.units < 0 || r.units > CAPI_UNITS_HOURS) {
        f.broken.push_back(text_of("%s: units are %d", n, r.units));
    }
    if ((r.flags & ~known_flags) != 0) {
        f.broken.push_back(text_of("%s: flags are 0x%X", n, unsigned{r.flags}));
    }
    const struct {
        unsigned flag;
        float value;
        const char *field;
    } thresholds[] = {
        {CAPI_LOWER_NON_CRITICAL_VALID, r.lower_non_critical, "lower_non_critical"},
        {CAPI_LOWER_CRITICAL_VALID, r.lower_critical, "lower_critical"},
        {CAPI_LOWER_FATAL_VALID, r.lower_fatal, "lower_fatal"},
        {CAPI_UPPER_NON_CRITICAL_VALID, r.upper_non_critical, "upper_non_critical"},
        {CAPI_UPPER_CRITICAL_VALID, r.upper_critical, "upper_critical"},
        {CAPI_UPPER_FATAL_VALID, r.upper_fatal, "upper_fatal"},
    };
    for (const auto &t : thresholds) {
        if ((r.flags & t.flag) != 0 && !std::isfinite(t.value)) {
            f.broken.push_back(text_of("%s: %s is said to be valid and is %f", n, t.field,
                                       static_cast<double>(t.value)));
        }
    }
}

// A page with nothing behind it that may be read.
class page_before_nothing
{
  public:
    page_before_nothing() : size_(static_cast<size_t>(sysconf(_SC_PAGESIZE)))
    {
        void *pages =
            mmap(nullptr, 2 * size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (pages == MAP_FAILED) {
            throw not_possible{"no memory for a page before one that is not readable"};
        }
        start_ = static_cast<char *>(pages);
        mprotect(start_ + size_, size_, PROT_NONE);
    }
    ~page_before_nothing() { munmap(start_, 2 * size_); }
    page_before_nothing(const page_before_nothing &) = delete;
    page_before_nothing &operator=(const page_before_nothing &) = delete;

    // The bytes, ending where the page ends.
    const char *at_the_end(const void *bytes, size_t size)
    {
        if (size > size_) {
            throw not_possible{"a name that is longer than a page"};
        }
        return static_cast<const char *>(memcpy(start_ + size_ - size, bytes, size));
    }

  private:
    size_t size_;
    char *start_ = nullptr;
};

// A code by name; with a capability that promises it, the call has to answer.
struct code_question {
    int capability_byte;
    int capability_mask; // 0: none promises it
    int32_t lowest;
    int32_t highest;
    bool others_are_broken;
};

void look_at_codes(session &s, findings &f, const char *call, const code_question &question,
                   int (*ask)(const session &, const char *, int32_t *))
{
    size_t asked = 0;
    size_t answered = 0;
    for (const listed_component &c : components_of(s)) {
        if (c.name.empty()) {
            continue;
        }
        const bool must = c.can(question.capability_byte, question.capability_mask);
        fenced<int32_t> code;
        const auto once = [&] { return ask(s, c.name.c_str(), &code.value); };
        const int status = must ? status_of(once) : once();
        asked++;
        expect_fence(f, call, c.name, code.intact(), sizeof code.value);
        if (status != 0) {
            if (must) {
                f.broken.push_back(text_of("%s(%s) gives %d, but its capabilities promise it", call,
                                           c.name.c_str(), status));
            }
            continue;
        }
        answered++;
        if (code.value < question.lowest || code.value > question.highest) {
            (question.others_are_broken ? f.broken : f.notes)
                .push_back(text_of("%s(%s): the code is %d", call, c.name.c_str(), code.value));
        }
    }
    if (answered == 0 && f.broken.empty()) {
        f.skipped = text_of("%s answers for none of %zu components", call, asked);
    }
}

int ask_power_state(const session &s, const char *name, int32_t *code)
{
    return s.calls.capi_get_power_state(0, name, code);
}

int ask_ready_to_remove(const session &s, const char *name, int32_t *code)
{
    return s.calls.capi_get_rdy2rm_status(0, name, code);
}

constexpr int reason_size = 20;

int ask_enable_state(const session &s, const char *name, int32_t *code)
{
    fenced<std::array<char, reason_size>> reason;
    return s.calls.capi_get_enable_disable_state(name, code, reason.value.data(), reason_size);
}

template <class Call>
void look_at_vantor_id(findings &f, const Call &call, size_t length, size_t &answered)
{
    char memory[128];
    memset(memory, 0xA5, sizeof memory);
    const int status = call(memory, static_cast<int>(length));
    for (size_t i = length; i < sizeof memory; i++) {
        if (static_cast<unsigned char>(memory[i]) != 0xA5) {
            f.broken.push_back(
                text_of("%s writes byte %zu of a buffer of %zu", call.name, i + 1, length));
            return;
        }
    }
    if (status != 0) {
        return; // a platform may know none
    }
    answered++;
    if (memchr(memory, '\0', length) == nullptr) {
        f.broken.push_back(text_of("%s leaves no NUL in a buffer of %zu", call.name, length));
    }
}

void check_sensor_info(session &s, findings &f)
{
    const std::vector<std::string> names = sensors_of(s);
    std::vector<std::string> failed;
    int failure = 0;
    for (const std::string &name : names) {
        const sensor_answer answer = sensor_info_of(s, name);
        expect_fence(f, "capi_get_sensor_info", name, answer.fence_intact, sizeof answer.record);
        if (answer.status != 0) {
            failure = failed.empty() ? answer.status : failure;
            failed.push_back(name);
        } else {
            look_at_info(f, name, answer.record);
        }
    }
    warn_of_failures(f, "capi_get_sensor_info", failed, names.size(), failure);
    if (failed.size() == names.size() && f.broken.empty()) {
        f.skipped = "no sensor says what it is";
    }
}

void check_sensor_reading(session &s, findings &f)
{
    const std::vector<std::string> names = sensors_of(s);
    std::vector<std::string> failed;
    int failure = 0;
    for (const std::string &name : names) {
        const sensor_answer &answer = reading_of(s, name);
        const capi_sensor_record &r = answer.record;
        expect_fence(f, "capi_get_sensor", name, answer.fence_intact, sizeof r);
        if (answer.status != 0) {
            failure = failed.empty() ? answer.status : failure;
            failed.push_back(name);
            continue;
        }
        expect_terminated(f, "capi_get_sensor", name, "name", r.name);
        const sensor_answer info = sensor_info_of(s, name);
        if (info.status == 0 && info.record.sensor_class != r.sensor_class) {
            f.broken.push_back(
                text_of("%s: sensor_class is %d when it is read, %d in capi_get_sensor_info",
                        name.c_str(), r.sensor_class, info.record.sensor_class));
        }
        if (r.reading_status != CAPI_READING_INVALID && !std::isfinite(r.reading)) {
            f.broken.push_back(
                text_of("%s: a good reading of %f", name.c_str(), static_cast<double>(r.reading)));
        }
    }
    warn_of_failures(f, "capi_get_sensor", failed, names.size(), failure);
    if (failed.size() == names.size() && f.broken.empty()) {
        f.skipped = "no sensor can be read";
    }
}

void check_ok_semantics(session &s, findings &f)
{
    page_before_nothing page;
    const auto &ask = s.calls.capi_is_sensor_with_OK_semantics;
    const auto answer = [&](const void *bytes, size_t size) {
        return ask(static_cast<const void *>(page.at_the_end(bytes, size)));
    };
    size_t asked = 0;
    for (const std::string &name : sensors_of(s)) {
        const int of_name = answer(name.c_str(), name.size() + 1);
        asked++;
        if (of_name != 0 && of_name != 1) {
            f.broken.push_back(text_of("%s: the answer is %d", name.c_str(), of_name));
            continue;
        }
        const sensor_answer &reading = reading_of(s, name);
        if (reading.status != 0 || reading.record.sensor_class != CAPI_SENSOR_DISCRETE ||
            !is_terminated(reading.record.name)) {
            continue;
        }
        const int of_record = answer(&reading.record, sizeof reading.record);
        if (of_record != of_name) {
            f.broken.push_back(text_of("%s: %d for the name, %d for its record (\"%s\")",
                                       name.c_str(), of_name, of_record, reading.record.name));
        }
    }
    if (asked == 0) {
        f.skipped = "no component is a sensor";
    }
}

void check_indicators(session &s, findings &f)
{
    const std::vector<std::string> names = indicators_of(s);
    std::vector<std::string> failed;
    int failure = 0;
    for (const std::string &name : names) {
        fenced<capi_indicator_record> answer;
        const int status = s.calls.capi_get_indicator(0, name.c_str(), &answer.value);
        expect_fence(f, "capi_get_indicator", name, answer.intact(), sizeof answer.value);
        if (status != 0) {
            failure = failed.empty() ? status : failure;
            failed.push_back(name);
        } else if (answer.value.state < CAPI_INDICATOR_OFF ||
                   answer.value.state > CAPI_INDICATOR_STANDBY_BLINK) {
            f.notes.push_back(text_of("%s: state %d is served as an unknown one", name.c_str(),
                                      answer.value.state));
        }
    }
    warn_of_failures(f, "capi_get_indicator", failed, names.size(), failure);
    if (failed.size() == names.size() && f.broken.empty()) {
        f.skipped = "no indicator can be read";
    }
}

void check_power_states(session &s, findings &f)
{
    look_at_codes(s, f, "capi_get_power_state",
                  {CAPI_CAP_POWER_BYTE, CAPI_CAP_POWER_READABLE | CAPI_CAP_POWER_CONTROLLABLE,
                   CAPI_POWER_OFF, CAPI_POWER_SHUTTING_DOWN, false},
                  ask_power_state);
}

void check_ready_to_remove(session &s, findings &f)
{
    look_at_codes(s, f, "capi_get_rdy2rm_status",
                  {0, 0, CAPI_READY_TO_REMOVE, CAPI_NOT_READY_TO_REMOVE, true},
                  ask_ready_to_remove);
}

void check_enable_states(session &s, findings &f)
{
    look_at_codes(
        s, f, "capi_get_enable_disable_state",
        {CAPI_CAP_ENABLE_STATE_BYTE, CAPI_CAP_ENABLE_STATE, CAPI_DISABLED, CAPI_ENABLED, true},
        ask_enable_state);
    for (const listed_component &c : components_of(s)) {
        if (c.name.empty()) {
            continue;
        }
        char memory[256];
        memset(memory, 0xA5, sizeof memory);
        int32_t code = 0;
        const int status =
            s.calls.capi_get_enable_disable_state(c.name.c_str(), &code, memory, reason_size);
        for (size_t i = reason_size; i < sizeof memory; i++) {
            if (static_cast<unsigned char>(memory[i]) != 0xA5) {
                f.broken.push_back(
                    text_of("capi_get_enable_disable_state(%s) writes byte %zu of a buffer of %d",
                            c.name.c_str(), i + 1, reason_size));
                break;
            }
        }
        if (status == 0 && memory[0] != static_cast<char>(0xA5) &&
            memchr(memory, '\0', reason_size) == nullptr) {
            f.broken.push_back(
                text_of("capi_get_enable_disable_state(%s) leaves no NUL in a buffer of %d",
                        c.name.c_str(), reason_size));
        }
    }
}

void check_product_record(session &s, findings &f)
{
    fenced<capi_product_record> answer;
    const auto &call = s.calls.capi_get_product_ops_info;
    const int status = call(0, &answer.value);
    expect_fence(f, call.name, "", answer.intact(), sizeof answer.value);
    if (status != 0) {
        f.skipped = text_of("%s gives %d: no product is served", call.name, status);
        return;
    }
    expect_terminated(f, call.name, "", "model", answer.value.model);
    expect_terminated(f, call.name, "", "serial", answer.value.serial);
    expect_terminated(f, call.name, "", "description", answer.value.description);
}

void check_chassis_record(session &s, findings &f)
{
    fenced<capi_chassis_record> answer;
    const auto &call = s.calls.capi_get_chassis_ops_info;
    const int status = call(&answer.value);
    expect_fence(f, call.name, "", answer.intact(), sizeof answer.value);
    if (status != 0) {
        f.skipped = text_of("%s gives %d: no chassis is served", call.name, status);
        return;
    }
    expect_terminated(f, call.name, "", "model", answer.value.model);
    expect_terminated(f, call.name, "", "serial", answer.value.serial);
    expect_terminated(f, call.name, "", "description", answer.value.description);
    expect_terminated(f, call.name, "", "manufacturer", answer.value.manufacturer);
}

void check_fru_records(session &s, findings &f)
{
    const char *call = s.calls.capi_get_fru_info.name;
    size_t answered = 0;
    for (const listed_component &c : components_of(s)) {
        if (c.name.empty()) {
            continue;
        }
        // A midplane's texts are the chassis's.
        const bool must =
            c.can(CAPI_CAP_FRU_INFO_BYTE, CAPI_CAP_FRU_INFO) && c.type != CAPI_TYPE_MIDPLANE;
        fenced<capi_fru_record> answer;
        const auto once = [&] { return s.calls.capi_get_fru_info(c.name.c_str(), &answer.value); };
        const int status = must ? status_of(once) : once();
        expect_fence(f, call, c.name, answer.intact(), sizeof answer.value);
        if (status != 0) {
            if (must) {
                f.broken.push_back(text_of("%s(%s) gives %d, but its capabilities promise it", call,
                                           c.name.c_str(), status));
            }
            continue;
        }
        answered++;
        const capi_fru_record &r = answer.value;
        expect_terminated(f, call, c.name, "model", r.model);
        expect_terminated(f, call, c.name, "manufacturer", r.manufacturer);
        expect_terminated(f, call, c.name, "serial", r.serial);
        expect_terminated(f, call, c.name, "alias", r.alias);
        expect_terminated(f, call, c.name, "software_revision", r.software_revision);
    }
    if (answered == 0 && f.broken.empty()) {
        f.skipped = "no component has a FRU's identity";
    }
}

void check_vantor_ids(session &s, findings &f)
{
    size_t answered = 0;
    for (const size_t length : {51U, 5U}) {
        look_at_vantor_id(f, s.calls.capi_get_product_vantor_id, length, answered);
        look_at_vantor_id(f, s.calls.capi_get_chassis_vantor_id, length, answered);
    }
    if (answered == 0 && f.broken.empty()) {
        f.skipped = "the platform knows no such identifier";
    }
}

void check_interface_names(session &s, findings &f)
{
    const auto &call = s.calls.capi_get_interface_name;
    if (call.function == nullptr) {
        f.skipped = "the platform does without the optional " + std::string(call.name);
        return;
    }
    if (char name[CAPI_INTERFACE_NAME_SIZE];
        call((s.root + "/NO_SUCH_COMPONENT").c_str(), name, static_cast<int>(sizeof name)) == 0) {
        f.broken.push_back(
            text_of("%s(\"%s/NO_SUCH_COMPONENT\") gives 0", call.name, s.root.c_str()));
    }
    size_t answered = 0;
    for (const listed_component &c : components_of(s)) {
        if (c.name.empty()) {
            continue;
        }
        for (const size_t length : {size_t{CAPI_INTERFACE_NAME_SIZE}, size_t{3}}) {
            char memory[128];
            memset(memory, 0xA5, sizeof memory);
            const int status = call(c.name.c_str(), memory, static_cast<int>(length));
            const auto *behind = std::find_if(memory + length, std::end(memory), [](char byte) {
                return static_cast<unsigned char>(byte) != 0xA5;
            });
            if (behind != std::end(memory)) {
                f.broken.push_back(text_of("%s(%s) writes byte %td of a buffer of %zu", call.name,
                                           c.name.c_str(), behind - memory + 1, length));
            } else if (status == 0 && memchr(memory, '\0', length) == nullptr) {
                f.broken.push_back(text_of("%s(%s) leaves no NUL in a buffer of %zu", call.name,
                                           c.name.c_str(), length));
            } else if (status == 0 && memory[0] == '\0') {
                f.broken.push_back(
                    text_of("%s(%s) gives 0 and an empty name", call.name, c.name.c_str()));
            }
            answered += status == 0 ? 1U : 0U;
        }
    }
    if (answered == 0 && f.broken.empty()) {
        f.skipped = "no component is a network interface";
    }
}

void check_indicator_meanings(session &s, findings &f)
{
    const auto &call = s.calls.capi_get_indicator_meaning;
    if (call.function == nullptr) {
        f.skipped = "the platform does without the optional " + std::string(call.name);
        return;
    }
    const std::vector<std::string> indicators = indicators_of(s);
    const std::set<std::string> names(indicators.begin(), indicators.end());
    size_t answered = 0;
    const auto look_at = [&](const std::string &name) {
        fenced<int32_t> meaning;
        const int status = call(name.c_str(), &meaning.value);
        expect_fence(f, call.name, name, meaning.intact(), sizeof meaning.value);
        if (status != 0) {
            return;
        }
        answered++;
        if (!names.contains(name)) {
            f.broken.push_back(
                text_of("%s(%s) gives 0, but that is no indicator", call.name, name.c_str()));
        } else if (meaning.value != CAPI_MEANS_SERVICE && meaning.value != CAPI_MEANS_FAULT) {
            f.broken.push_back(
                text_of("%s(%s): the code is %d", call.name, name.c_str(), meaning.value));
        }
    };
    look_at(s.root + "/NO_SUCH_COMPONENT");
    for (const listed_component &c : components_of(s)) {
        if (!c.name.empty()) {
            look_at(c.name);
        }
    }
    if (answered == 0 && f.broken.empty()) {
        f.skipped = "no indicator means anything that is to be raised";
    }
}

constexpr check checks[] = {
    {"sensor_info", "what is known of a sensor is in range and within its record",
     check_sensor_info},
    {"sensor_reading", "a reading is finite, of the sensor's class and within its record",
     check_sensor_reading},
    {"ok_semantics",
     "a sensor's name and its record have one answer, 0 or 1, and no more than "
     "the text is read",
     check_ok_semantics},
    {"indicators", "an indicator's answer stays within its record", check_indicators},
    {"indicator_meanings", "what an indicator means is a code that there is, and of no other",
     check_indicator_meanings},
    {"power_states", "power states can be read where capabilities say so", check_power_states},
    {"ready_to_remove", "ready to remove is 0 or 1", check_ready_to_remove},
    {"enable_states", "enable states are 1 or 2, and the reason fits", check_enable_states},
    {"product_record", "the product's texts end within their fields", check_product_record},
    {"chassis_record", "the chassis's texts end within their fields", check_chassis_record},
    {"fru_records", "identities are there where capabilities say so, and their texts end",
     check_fru_records},
    {"interface_names", "an interface's name fits the buffer that it is given",
     check_interface_names},
    {"vantor_ids", "an identifier fits the buffer that it is given", check_vantor_ids},
};

} // namespace

std::span<const check> reading_checks()
{
    return checks;
}
