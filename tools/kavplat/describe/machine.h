/*
 * What was found of a machine, before it is written down as a description. Sources
 * (sources.h) add components; names are given when all are there, by rules that depend
 * on where a component is and never on the order in which it was found:
 *
 *   - A component's NAC name is its parent's name and its label.
 *   - Of components with the same parent and label, the one whose `where` comes first
 *     keeps the label; the others add '_' and place_text() of their `where`. Should that be taken
 *     too, a number from 2 on is added, in the order of the identity.
 *   - A description lists what one parent holds in the order of comes_before().
 */
#ifndef KAVPLAT_DESCRIBE_MACHINE_H
#define KAVPLAT_DESCRIBE_MACHINE_H

#include "tools/kavplat/describe/tree.h"

#include <deque>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace kavplat_describe
{

using json = nlohmann::ordered_json;

/* Texts may be anything that a device says: what is no identity, too long or no UTF-8
 * is put right when the description is written. */
struct identity {
    std::string model;
    std::string manufacturer;
    std::string serial;
    std::string alias;
    std::string software_revision;
};

struct error_history;

struct component {
    component *parent = nullptr; /* null: the root */
    std::string label;           /* its part of the name, see label_of() */
    std::string type;            /* of the catalogue of component types */
    std::string where;           /* bus address, path or handle; see above */
    identity fru;                /* "fru-info" comes by itself where this says anything */
    std::vector<std::string> capabilities;
    json keys = json::object(); /* other keys of the description: sensor, indicator, power */
    std::string name;           /* given by give_names() */
    bool gone = false;          /* it is not there any more: left out with all that it holds */
};

class machine
{
  public:
    machine();
    machine(const machine &) = delete; /* components point to each other */
    machine &operator=(const machine &) = delete;

    /* Components live as long as the machine and never move. */
    component &add(component &parent, std::string label, std::string type, std::string where = {});

    component &root() { return all.front(); }
    /* The main board, which is there in any case: what has no better place is on it. */
    component &board() { return *board_; }
    void set_board(component &it) { board_ = &it; }

    /* A device of the kernel that a component is, by its real path below /sys/devices;
     * the component that this device or the nearest one above it is, or null. */
    void is_device(component &it, const std::string &real_path);
    component *at_device(const std::string &real_path) const;

    /* One line for who runs the command: what could not be had, and what that costs. */
    void complain(std::string message) { complaints.push_back(std::move(message)); }

    std::deque<component> all; /* [0] is the root */
    std::vector<std::string> complaints;

    /* Identity of the whole: what the keys product and chassis say. */
    struct whole {
        std::string model;
        std::string serial;
        std::string description;
        std::string manufacturer; /* of a chassis only */
    };
    whole product;
    whole chassis;

    error_history *errors = nullptr; /* null: nobody watches this machine */

    /* What SMBIOS says is there, for the sources that know more of it to find. */
    std::vector<component *> processors;               /* by package, as the kernel counts */
    std::map<std::string, component *> slots;          /* by bus address, "0000:3b:00.0" */
    std::map<std::string, component *> memory_modules; /* by locator, and by bank and locator */

  private:
    component *board_ = nullptr;
    std::map<std::string, component *> devices_;
};

/* Upper case letters, digits, '_', '-' and '.': what a text says as a part of a name,
 * such as PROC_1_DIMM_3 for "Proc 1 DIMM 3 ". otherwise: when nothing is left of it. */
std::string label_of(std::string_view text, std::string_view otherwise = "X");

/* The order of names: numbers in them count as numbers, so HDD2 comes before HDD10. */
bool comes_before(std::string_view one, std::string_view other);

/* The text without blanks at its ends and control characters; empty where it is what
 * makers leave in a field that they did not fill in ("To Be Filled By O.E.M."). */
std::string identity_text(std::string_view text);

/* A live value that is bound to a file: number * scale + offset. */
json bound_to(const tree &files, const std::string &path, double scale = 1, double offset = 0);

} // namespace kavplat_describe

#endif
