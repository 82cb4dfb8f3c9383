// A look at every row: asks the platform without the cache lock, applies the answers
// under it, and tells what is worth telling.
#ifndef KAVPLAT_WATCH_LOOK_H
#define KAVPLAT_WATCH_LOOK_H

#include "watch/notices.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <variant>
#include <vector>

namespace kavplat
{

using notice = std::variant<severity_notice, oper_notice>;

// What is remembered from look to look, beside what the rows do.
struct look_memory {
    // Whether changes of operational states are told.
    bool tells_oper = false;

    // What was raised and not cleared, by index: its row may be gone when it is looked
    // at again.
    struct raised_row {
        uint32_t incarnation;
        std::string name;
        std::string container;
        int32_t severity;
    };
    std::map<uint32_t, raised_row> raised;

    // Begin of the last look that came to its end, or else of the first one.
    uint32_t since = 0;
    bool has_begun = false;
};

enum class look_at { all_rows, new_rows }; // those that nobody has asked for yet

// Looks at the rows and puts what is to be told behind what there is in `found`. go_on
// is called between two rows, with no lock held; false ends the look, which gives false.
// The caller is at work. May throw std::bad_alloc; then part of the rows were looked at.
bool look(look_memory &memory, look_at which, const std::function<bool()> &go_on,
          std::vector<notice> &found);

// Nothing is asked for so long after a look: what it found stays good meanwhile.
void rest_for(const look_memory &memory, uint32_t hundredths);

} // namespace kavplat

#endif
