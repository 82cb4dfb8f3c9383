#include "described/live/health.h"

#include "described/live/log.h"

#include <algorithm>
#include <cstring>

namespace described_platform
{

std::string expectation_of(const live_value &value)
{
    std::string names;
    for (const named_code &each : value.names) {
        names += '"' + std::string(each.name) + "\", ";
    }
    if (!value.whole) {
        return names + "a number in the range of single precision";
    }
    return names + "a number " + std::to_string(static_cast<int64_t>(value.low)) + " to " +
           std::to_string(static_cast<int64_t>(value.high));
}

/* A file's name must not make a line of the log of its own. */
std::string in_one_line(std::string text)
{
    std::ranges::replace_if(
        text, [](unsigned char c) { return c < ' ' || c == 0x7f; }, '?');
    return text;
}

std::string to_text(const live_fault &fault)
{
    std::string word = fault.word;
    std::ranges::replace_if(
        word, [](char c) { return c < ' ' || c > '~'; }, '?');
    switch (fault.kind) {
    case fault_kind::none:
        return "nothing wrong";
    case fault_kind::not_read_yet:
        return "a file that was not read yet";
    case fault_kind::no_answer:
        return "no answer in time";
    case fault_kind::unreadable:
        return std::string("a file that can not be read: ") + strerrordesc_np(fault.error);
    case fault_kind::no_match:
        return "no file that fits the pattern";
    case fault_kind::two_matches:
        return "more than one file that fits the pattern: " + word;
    case fault_kind::no_word:
        return "an empty file";
    case fault_kind::long_word:
        return "a word that is too long for either";
    case fault_kind::no_value:
        return '"' + word + '"';
    case fault_kind::out_of_range:
        return '"' + word + "\", which is out of range";
    }
    return {};
}

void value_health::note(const std::string &component, const std::string &key,
                        const live_reading &reading)
{
    if (reading.value->file.empty() || reading.fault.kind == fault_kind::not_read_yet) {
        return;
    }
    const std::string &file = reading.value->file;
    const std::string place = component + ": " + key + ": " + in_one_line(file) + ": ";
    const scoped_lock lock(mutex_);
    const auto known = bad_.find({component, key});
    const bool was_bad = known != bad_.end() && known->second.file == file;
    if (reading.fault.kind == fault_kind::none) {
        if (known != bad_.end()) {
            bad_.erase(known);
        }
        if (was_bad) {
            log_info(place + "good again");
        }
        return;
    }
    if (was_bad && known->second.fault.kind == reading.fault.kind &&
        known->second.fault.error == reading.fault.error) {
        return;
    }
    bad_[{component, key}] = {file, reading.fault};
    log_error(place + "expected " + expectation_of(*reading.value) + ", found " +
              to_text(reading.fault));
}

void value_health::forget_all_but(const description &all)
{
    const scoped_lock lock(mutex_);
    std::erase_if(bad_, [&](const auto &each) {
        return find_component(all, each.first.first) == nullptr ||
               !std::ranges::binary_search(all.bound_files, each.second.file);
    });
}

} // namespace described_platform
