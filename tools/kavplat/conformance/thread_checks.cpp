#include "checks.h"

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

namespace
{

// Something whose answer does not change by itself.
struct question {
    std::string what;
    std::function<std::string()> ask;
};

// The texts alone: what stands behind their ends and in reserved fields is
// nobody's business.
template <size_t Size>
std::string field(const char (&text)[Size])
{
    return std::string(text, strnlen(text, Size)) + "\n";
}

std::string text_of_record(int status, const capi_product_record &r)
{
    return status != 0 ? text_of("status %d", status)
                       : field(r.model) + field(r.serial) + field(r.description);
}

std::string text_of_record(int status, const capi_chassis_record &r)
{
    return status != 0
               ? text_of("status %d", status)
               : field(r.model) + field(r.serial) + field(r.description) + field(r.manufacturer);
}

std::string text_of_record(int status, const capi_fru_record &r)
{
    return status != 0 ? text_of("status %d", status)
                       : field(r.model) + field(r.manufacturer) + field(r.serial) + field(r.alias) +
                             field(r.software_revision);
}

std::string text_of_list(const listing &list)
{
    std::string text = text_of("status %d\n", list.status);
    for (const listed_component &c : list.components) {
        text += text_of("%s %u\n", c.name.c_str(), c.type);
    }
    return text;
}

// Without live values and, for the same reason, without what is not part of a
// sensor's description.
std::string text_of_info(const sensor_answer &answer)
{
    const capi_sensor_record &r = answer.record;
    if (answer.status != 0) {
        return text_of("status %d", answer.status);
    }
    return text_of("%.64s %d %d %d 0x%X %a %a %a %a %a %a", r.name, r.sensor_class, r.sensor_type,
                   r.units, unsigned{r.flags}, static_cast<double>(r.upper_fatal),
                   static_cast<double>(r.upper_critical), static_cast<double>(r.upper_non_critical),
                   static_cast<double>(r.lower_fatal), static_cast<double>(r.lower_critical),
                   static_cast<double>(r.lower_non_critical));
}

constexpr size_t most_components = 200;

std::vector<question> questions_of(session &s)
{
    std::vector<question> all;
    const std::string root = root_of(s);
    all.push_back({"capi_get_inventory(" + root + ")", [&s, root] {
                       return text_of_list(list_components(s, root, CAPI_INVENTORY_SUBTREE));
                   }});
    all.push_back({"capi_get_product_ops_info()", [&s] {
                       fenced<capi_product_record> r;
                       const int status = s.calls.capi_get_product_ops_info(0, &r.value);
                       return text_of_record(status, r.value);
                   }});
    all.push_back({"capi_get_chassis_ops_info()", [&s] {
                       fenced<capi_chassis_record> r;
                       const int status = s.calls.capi_get_chassis_ops_info(&r.value);
                       return text_of_record(status, r.value);
                   }});
    all.push_back({"capi_get_product_vantor_id()", [&s] {
                       fenced<std::array<char, 51>> r;
                       const int status = s.calls.capi_get_product_vantor_id(r.value.data(), 51);
                       return status != 0
                                  ? text_of("status %d", status)
                                  : std::string(r.value.data(), strnlen(r.value.data(), 51));
                   }});
    for (const std::string &name : sample(sensors_of(s), most_components)) {
        all.push_back({"capi_get_sensor_info(" + name + ")",
                       [&s, name] { return text_of_info(sensor_info_of(s, name)); }});
        all.push_back({"capi_is_sensor_with_OK_semantics(" + name + ")", [&s, name] {
                           const void *sensor = name.c_str();
                           return text_of("%d", s.calls.capi_is_sensor_with_OK_semantics(sensor));
                       }});
    }
    for (const listed_component &c : sample(components_of(s), most_components)) {
        all.push_back({"capi_get_component_desc_str of " + c.name, [&s, c] {
                           const char *text = nullptr;
                           const int status = s.calls.capi_get_component_desc_str(c.type, &text);
                           return text_of("%d %s", status, text != nullptr ? text : "");
                       }});
        if (c.can(CAPI_CAP_FRU_INFO_BYTE, CAPI_CAP_FRU_INFO)) {
            all.push_back({"capi_get_fru_info(" + c.name + ")", [&s, c] {
                               fenced<capi_fru_record> r;
                               const int status =
                                   s.calls.capi_get_fru_info(c.name.c_str(), &r.value);
                               return text_of_record(status, r.value);
                           }});
        }
        if (!c.name.empty() && s.calls.capi_get_interface_name.function != nullptr) {
            all.push_back({"capi_get_interface_name(" + c.name + ")", [&s, c] {
                               fenced<std::array<char, CAPI_INTERFACE_NAME_SIZE>> r = {};
                               const int status = s.calls.capi_get_interface_name(
                                   c.name.c_str(), r.value.data(), CAPI_INTERFACE_NAME_SIZE);
                               return text_of("%d %.*s", status, CAPI_INTERFACE_NAME_SIZE,
                                              status == 0 ? r.value.data() : "");
                           }});
        }
        if (!c.name.empty() && s.calls.capi_get_indicator_meaning.function != nullptr) {
            all.push_back({"capi_get_indicator_meaning(" + c.name + ")", [&s, c] {
                               fenced<int32_t> code;
                               const int status =
                                   s.calls.capi_get_indicator_meaning(c.name.c_str(), &code.value);
                               return text_of("%d %d", status, status == 0 ? code.value : 0);
                           }});
        }
    }
    return all;
}

// States seldom change, but they may.
std::vector<question> states_of(session &s)
{
    const auto text = [](int status, int32_t code) {
        return text_of("%d %d", status, status == 0 ? code : 0);
    };
    std::vector<question> all;
    for (const listed_component &c : sample(components_of(s), most_components)) {
        if (c.name.empty()) {
            continue;
        }
        all.push_back({"capi_get_power_state(" + c.name + ")", [&s, c, text] {
                           fenced<int32_t> code;
                           const int status =
                               s.calls.capi_get_power_state(0, c.name.c_str(), &code.value);
                           return text(status, code.value);
                       }});
        all.push_back({"capi_get_rdy2rm_status(" + c.name + ")", [&s, c, text] {
                           fenced<int32_t> code;
                           const int status =
                               s.calls.capi_get_rdy2rm_status(0, c.name.c_str(), &code.value);
                           return text(status, code.value);
                       }});
        all.push_back({"capi_get_enable_disable_state(" + c.name + ")", [&s, c, text] {
                           fenced<int32_t> code;
                           fenced<std::array<char, 20>> reason;
                           const int status = s.calls.capi_get_enable_disable_state(
                               c.name.c_str(), &code.value, reason.value.data(), 20);
                           return text(status, code.value);
                       }});
    }
    return all;
}

std::vector<std::string> answers_to(const std::vector<question> &questions)
{
    std::vector<std::string> all;
    all.reserve(questions.size());
    for (const question &q : questions) {
        all.push_back(q.ask());
    }
    return all;
}

void check_concurrent_reads(session &s, findings &f)
{
    constexpr size_t threads = 4;
    const std::vector<question> questions = questions_of(s);
    const std::vector<std::string> alone = answers_to(questions);
    // Live values are asked for as well, for what they do to the others and, of a
    // sensor, for what its record says beside the reading. A sensor is not read more
    // often than the library would: by its watcher, and by a request meanwhile.
    std::vector<std::string> names;
    for (const listed_component &c : components_of(s)) {
        if (!c.name.empty()) {
            names.push_back(c.name);
        }
    }
    const std::vector<std::string> sensors = sensors_of(s);
    std::map<std::string, sensor_answer> readings;
    for (const std::string &name : sensors) {
        readings[name] = reading_of(s, name);
    }
    const std::vector<question> states = states_of(s);
    const std::vector<std::string> states_alone = answers_to(states);
    std::vector<std::atomic<bool>> otherwise(states.size());
    std::atomic<size_t> next_sensor = 0;
    std::atomic<size_t> differing = 0;
    std::mutex mutex;
    const auto end = std::chrono::steady_clock::now() + s.options.concurrent_for;

    const auto differs = [&](const std::string &what) {
        differing++;
        const std::lock_guard lock(mutex);
        if (f.broken.size() < 5) {
            f.broken.push_back(what + " answers one thread among four otherwise than alone");
        }
    };
    const auto read_live = [&](size_t i) {
        const char *name = names[i % names.size()].c_str();
        // Fenced, so that an answer that is too long harms nothing: that it is so is
        // reported elsewhere.
        fenced<capi_indicator_record> indicator;
        s.calls.capi_get_indicator(0, name, &indicator.value);
        const size_t at = i % states.size();
        if (states[at].ask() != states_alone[at]) {
            otherwise[at] = true;
        }
        if (const size_t n = next_sensor++ / 2; n < sensors.size()) {
            fenced<capi_sensor_record> record;
            sensor_answer answer;
            answer.status = s.calls.capi_get_sensor(0, sensors[n].c_str(), &record.value);
            answer.record = record.value;
            const sensor_answer &alone_answer = readings.at(sensors[n]);
            if (answer.status == 0 && alone_answer.status == 0 &&
                text_of_info(answer) != text_of_info(alone_answer)) {
                differs("capi_get_sensor(" + sensors[n] + ")");
            }
        }
    };
    const auto read = [&](size_t number) {
        try {
            size_t i = number * questions.size() / threads;
            do {
                const size_t at = i % questions.size();
                if (questions[at].ask() != alone[at]) {
                    differs(questions[at].what);
                }
                if (!names.empty()) {
                    read_live(i);
                }
                i++;
            } while (std::chrono::steady_clock::now() < end);
        } catch (const missing_call &) {
            // The promise to export it is broken, and that is reported.
        }
    };
    std::vector<std::thread> running;
    for (size_t number = 0; number < threads; number++) {
        running.emplace_back(read, number);
    }
    for (std::thread &thread : running) {
        thread.join();
    }
    const std::vector<std::string> states_after = answers_to(states);
    for (size_t at = 0; at < states.size(); at++) {
        if (otherwise[at] && states_after[at] == states_alone[at]) {
            differs(states[at].what);
        }
    }
    // An inventory that changed by itself is no fault of its answers.
    if (differing != 0) {
        if (answers_to(questions) != alone) {
            f.broken.clear();
            f.skipped = "the platform changed meanwhile";
        }
    }
}

void check_call_duration(session &s, findings &f)
{
    if (worst_times().empty()) {
        for (const question &q : questions_of(s)) {
            q.ask();
        }
        for (const std::string &name : sensors_of(s)) {
            reading_of(s, name);
        }
    }
    call_time worst;
    for (const call_time &time : worst_times()) {
        if (time.took > s.options.wait) {
            f.broken.push_back(text_of("%s took %lld ms", time.what.c_str(),
                                       static_cast<long long>(time.took.count())));
        } else if (time.took > std::chrono::seconds(1)) {
            f.warnings.push_back(text_of("%s took %lld ms, for which no request was answered",
                                         time.what.c_str(),
                                         static_cast<long long>(time.took.count())));
        }
        worst = time.took > worst.took || worst.what.empty() ? time : worst;
    }
    f.notes.push_back(text_of("the slowest call was %s with %lld ms", worst.what.c_str(),
                              static_cast<long long>(worst.took.count())));
}

constexpr check checks[] = {
    {"concurrent_reads", "four threads at once get the answers that one gets",
     check_concurrent_reads},
};

// What was slow is known when all has been asked.
constexpr check last[] = {
    {"call_duration", "a call returns in time", check_call_duration},
};

} // namespace

std::span<const check> thread_checks()
{
    return checks;
}

std::span<const check> last_checks()
{
    return last;
}
