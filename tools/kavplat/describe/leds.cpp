#include "tools/kavplat/describe/locations.h"
#include "tools/kavplat/describe/parts.h"
#include "tools/kavplat/describe/sources.h"

#include <algorithm>
#include <cstdint>
#include <limits>

namespace kavplat_describe
{
namespace
{

/* What the end of a light's name says that it is for. */
constexpr struct {
    const char *word;
    const char *type;
} functions[] = {
    {"locate", "locate-led"}, {"identify", "locate-led"}, {"indicator", "locate-led"},
    {"fault", "fault-led"},   {"alarm", "fault-led"},     {"power", "power-led"},
};

constexpr const char *of_keyboards[] = {"capslock", "numlock", "scrolllock", "compose",
                                        "kana",     "kbd_",    "kbd-",       "keyboard"};

} // namespace

void find_leds(const tree &files, machine &into)
{
    const std::string directory = "/sys/class/leds";
    for (const std::string &name : files.names(directory)) {
        const std::string path = files.real(directory + '/' + name);
        const auto brightest = std::min<int64_t>(files.number(path + "/max_brightness").value_or(1),
                                                 std::numeric_limits<int>::max());
        const auto says = [&](const char *word) { return name.find(word) != name.npos; };
        if (path.empty() || brightest <= 0 || path.find("/input/") != path.npos ||
            path.find("/usb") != path.npos || path.find("/hid") != path.npos ||
            std::ranges::any_of(of_keyboards, says)) {
            continue;
        }
        const std::string device = files.real(path + "/device");
        component *owner = device.empty() ? nullptr : into.at_device(device);
        /* Lights of cards and radios are called after a number that the kernel gave. */
        const size_t colon = name.find_first_of(":-");
        const bool counted = number_after(name.substr(0, colon), "mmc") ||
                             number_after(name.substr(0, colon), "phy");
        const std::string label =
            counted ? label_of(last_part(device).substr(0, last_part(device).find(':'))) +
                          name.substr(std::min(colon, name.size()))
                    : name;
        const auto *function = std::ranges::find_if(
            functions, [&](const auto &known) { return name.ends_with(known.word); });
        // Rounded to a whole number: 1 of darkness, 2 of any brightness above it.
        const double scale = brightest == 1 ? 1 : 1 / (static_cast<double>(brightest) + 1);
        add_indicator(files, into, owner == nullptr ? into.root() : *owner,
                      "LED_" + label_of(label),
                      function == std::end(functions) ? "led" : function->type,
                      path + "/brightness", scale, 1.5 - scale / 2);
    }
}

} // namespace kavplat_describe
