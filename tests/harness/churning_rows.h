/*
 * What the rows of the churning platform must hold: a row says of itself where it
 * belongs, so a cell alone tells whether it is of a row that ever existed.
 */
#ifndef KAVPLAT_TESTS_HARNESS_CHURNING_ROWS_H
#define KAVPLAT_TESTS_HARNESS_CHURNING_ROWS_H

#include <iterator>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "harness/client.h"

// The columns that differ from row to row, and a constant one.
inline constexpr unsigned telling_columns[] = {2, 4, 5, 6, 7, 11, 13, 16};

inline bool is_number(const std::string &text, unsigned long number)
{
    return text == std::to_string(number);
}

// Why a cell cannot be of a row that ever existed; empty when it can.
inline std::string complaint(const varbind &cell)
{
    const unsigned long index = cell.name.back();
    const auto column = static_cast<unsigned>(cell.name[cell.name.size() - 2]);
    const snmp_value &value = cell.value;
    const bool is_number_column = (column >= 4 && column <= 6) || column == 16;
    bool good = value.type == (is_number_column ? snmp_integer
                               : column == 3    ? snmp_object_id
                                                : snmp_octets);
    const std::string &text = value.text;
    switch (column) {
    case 2:
        good = good &&
               text == (index == 1 ? "the churning server" : "a unit of the churning platform");
        break;
    case 3:
        good = good && value.object == object_name{0, 0};
        break;
    case 4: // a unit is in /SYS, a sensor in the unit one or two before it
        good = good &&
               (index == 1 ? value.number == 0
                           : value.number == 1 || (value.number + 2 >= static_cast<long>(index) &&
                                                   value.number < static_cast<long>(index)));
        break;
    case 5:
        good = good && (index == 1 ? value.number == 3 : value.number == 1 || value.number == 8);
        break;
    case 6:
        good = good && value.number == (index == 1 ? -1 : static_cast<long>(index) + 1);
        break;
    case 7: {
        const size_t digits = text.find_last_not_of("0123456789") + 1;
        good = good &&
               (index == 1 ? text == "/SYS"
                           : text.starts_with("/SYS/U") && is_number(text.substr(digits), index));
        break;
    }
    case 9: // only the whole has firmware, what is not looked at here
        good = good && text.empty() == (index != 1);
        break;
    case 11:
        good = good && (index == 1 ? text.empty()
                                   : text.starts_with("SN") && is_number(text.substr(2), index));
        break;
    case 12:
        good = good && text == (index == 1 ? "Telvane Corporation" : "");
        break;
    case 13:
        good = good && (index == 1 ? text.empty()
                                   : text.starts_with("MODEL") && is_number(text.substr(5), index));
        break;
    case 16:
        good = good && value.number == 1;
        break;
    case 8:
    case 10:
    case 14:
    case 15:
        good = good && text.empty();
        break;
    default:
        good = false; // no such column
        break;
    }
    return good ? "" : testing::PrintToString(cell);
}

// What the clients found wrong; the first few tell enough.
class complaints
{
  public:
    void add(const std::string &text)
    {
        const std::lock_guard lock(mutex_);
        if (all_.size() < 20) {
            all_.push_back(text);
        }
    }
    std::vector<std::string> all()
    {
        const std::lock_guard lock(mutex_);
        return all_;
    }

  private:
    std::mutex mutex_;
    std::vector<std::string> all_;
};

#endif
