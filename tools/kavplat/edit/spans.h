/* Where the values of a JSON text stand, so that one can be changed and all else stays
 * as somebody wrote it. */
#ifndef KAVPLAT_EDIT_SPANS_H
#define KAVPLAT_EDIT_SPANS_H

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kavplat_edit
{

struct member;

struct span {
    size_t begin = 0;
    size_t end = 0;              /* exclusive */
    std::vector<member> members; /* of an object */
    std::vector<span> items;     /* of an array */
    bool is_object = false;
    bool is_array = false;
};

struct member {
    std::string key;
    size_t begin; /* of the key, with its quote */
    span value;
};

/* Of a text that a parser has accepted. */
span spans_of(std::string_view text);

/* Null when there is no such member. */
const span *find_member(const span &object, std::string_view key);

/* What stands in a text at a place. */
std::string_view at(std::string_view text, const span &where);

/* The blanks and line ends before a place. */
std::string_view space_before(std::string_view text, size_t place);

} // namespace kavplat_edit

#endif
