#include "words.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string_view>

namespace kavplat_agent
{
namespace
{

constexpr const char *class_names[] = {nullptr,     "other",        "unknown",     "chassis",
                                       "backplane", "container",    "powerSupply", "fan",
                                       "sensor",    "module",       "port",        "stack",
                                       "cpu",       "energyObject", "battery",     "storageDrive"};

/* The length of the UTF-8 character that begins there; 0: there is none. */
size_t character_length(std::string_view text, char32_t &code)
{
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(0);
    if (first < 0x80) {
        code = first;
        return 1;
    }
    const size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < length) {
        return 0;
    }
    code = first & (0x7FU >> length);
    for (size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0U) != 0x80) {
            return 0;
        }
        code = (code << 6U) | (byte(i) & 0x3FU);
    }
    constexpr char32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool is_surrogate = code >= 0xD800 && code <= 0xDFFF;
    return code < least[length] || code > 0x10FFFF || is_surrogate ? 0 : length;
}

/* Moves the cursor, or the direction of writing, or cannot be seen. */
bool is_harmful(char32_t code)
{
    return code < 0x20 || (code >= 0x7F && code < 0xA0) || code == 0x061C ||
           (code >= 0x200B && code <= 0x200F) || (code >= 0x2028 && code <= 0x202E) ||
           (code >= 0x2060 && code <= 0x206F) || code == 0xFEFF;
}

void add_octet(std::string &to, char octet)
{
    char text[5];
    snprintf(text, sizeof text, "\\x%02X",
             static_cast<unsigned>(static_cast<unsigned char>(octet)));
    to += text;
}

std::string fixed(double number, int decimals)
{
    char text[64];
    snprintf(text, sizeof text, "%.*f", decimals, number);
    std::string result = text;
    return result.find_first_not_of("-0.") == std::string::npos && result.starts_with('-')
               ? result.substr(1)
               : result;
}

/* Without what says nothing: 35.0 is 35. */
std::string trimmed(double number, int decimals)
{
    std::string text = fixed(number, decimals);
    if (text.find('.') != std::string::npos) {
        text.erase(text.find_last_not_of('0') + 1);
        if (text.ends_with('.')) {
            text.pop_back();
        }
    }
    return text;
}

} // namespace

std::string printable(const std::string &text, bool ascii)
{
    std::string result;
    for (size_t i = 0; i < text.size();) {
        char32_t code = 0;
        const size_t length = character_length(std::string_view(text).substr(i), code);
        if (length == 0 || is_harmful(code) || (ascii && code > 0x7F)) {
            for (size_t octet = 0; octet < std::max<size_t>(length, 1); ++octet) {
                add_octet(result, text[i + octet]);
            }
        } else {
            result.append(text, i, length);
        }
        i += std::max<size_t>(length, 1);
    }
    return result;
}

std::string as_utf8(const std::string &text)
{
    std::string result;
    for (size_t i = 0; i < text.size();) {
        char32_t code = 0;
        const size_t length = character_length(std::string_view(text).substr(i), code);
        result += length == 0 ? std::string("\xEF\xBF\xBD") : text.substr(i, length);
        i += std::max<size_t>(length, 1);
    }
    return result;
}

std::string class_name(int32_t code)
{
    if (code > 0 && static_cast<size_t>(code) < std::size(class_names)) {
        return class_names[code];
    }
    return code == 0 ? "" : "class " + std::to_string(code);
}

const char *level_name(level each)
{
    constexpr const char *names[] = {"", "ok", "unreadable", "warning", "critical"};
    return names[static_cast<size_t>(each)];
}

const char *limit_name(limit each)
{
    constexpr const char *names[limit_count] = {"lower fatal",   "lower critical", "lower warning",
                                                "upper warning", "upper critical", "upper fatal"};
    return names[each];
}

const char *light_name(int32_t code)
{
    constexpr const char *lights[] = {"unknown", "off", "on", "blinking"};
    return code >= 1 && code <= 4 ? lights[code - 1] : lights[0];
}

std::string state_words(const entity &each)
{
    std::string words;
    const auto add = [&words](const char *word) {
        words += (words.empty() ? "" : ", ") + std::string(word);
    };
    if (each.light) {
        add(light_name(*each.light));
    }
    if (each.admin == 2) {
        add("locked");
    } else if (each.admin == 3) {
        add("shutting down");
    }
    if (each.oper == 2) {
        add("disabled");
    } else if (each.oper == 4) {
        add("testing");
    }
    if (each.standby == 2 || each.standby == 3) {
        add("standby");
    }
    if (each.alarms && (*each.alarms & 0x40U) != 0) {
        add("under repair");
    }
    return words;
}

std::string number_words(double number, int decimals, const std::string &unit, bool ascii)
{
    struct prefix {
        double factor;
        const char *name;
        int decimals;
    };
    constexpr prefix large[] = {{1e9, "G", 9}, {1e6, "M", 6}};
    std::string shown_unit = unit;
    if (ascii) {
        if (const size_t at = shown_unit.find("\xC2\xB0"); at != std::string::npos) {
            shown_unit.erase(at, 2);
        }
        shown_unit = printable(shown_unit, true);
    }
    const bool takes_prefix = unit == "Hz" || unit == "W" || unit == "V" || unit == "A";
    const double size = std::fabs(number);
    std::string text = fixed(number, decimals);
    if (takes_prefix) {
        for (const prefix &each : large) {
            if (size >= each.factor) {
                text = trimmed(number / each.factor, std::min(3, decimals + each.decimals));
                shown_unit = each.name + shown_unit;
                break;
            }
        }
        if (size > 0 && size < 1e-3) {
            const bool nano = size < 1e-6;
            text = trimmed(number * (nano ? 1e9 : 1e6), 3);
            shown_unit = (nano ? "n" : ascii ? "u" : "µ") + shown_unit;
        }
    }
    return shown_unit.empty() ? text : text + " " + shown_unit;
}

std::string reading_words(const reading &each, bool ascii)
{
    if (each.status != sensor_status::ok) {
        return each.status == sensor_status::unavailable ? "unavailable" : "nonoperational";
    }
    if (each.two_states) {
        if (!each.text.empty()) {
            return printable(each.text, ascii);
        }
        return !each.state ? "not told" : *each.state ? "true" : "false";
    }
    if (!each.number) {
        return "not told";
    }
    const std::string words = number_words(*each.number, each.decimals, each.unit, ascii);
    return each.beyond ? std::string(*each.number < 0 ? "<= " : ">= ") + words : words;
}

std::string limits_words(const reading &each)
{
    std::string lower;
    std::string upper;
    for (size_t i = 0; i < limit_count; ++i) {
        if (each.limits[i]) {
            std::string &side = i < upper_warning ? lower : upper;
            side +=
                (side.empty() ? "" : " ") + trimmed(*each.limits[i], std::max(each.decimals, 3));
        }
    }
    if (lower.empty() && upper.empty()) {
        return "";
    }
    return "[" + lower + (lower.empty() ? "" : " ") + ".." + (upper.empty() ? "" : " ") + upper +
           "]";
}

} // namespace kavplat_agent
