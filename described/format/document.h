/*
 * A description file as a JSON document: read within bounds, parsed, and every
 * mistake told with its place.
 */
#ifndef KAVPLAT_DESCRIBED_DOCUMENT_H
#define KAVPLAT_DESCRIBED_DOCUMENT_H

#include "described/format/description.h"

#include <nlohmann/json.hpp>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace described_platform
{

/* No server needs more, and a runaway file must not eat the agent's memory. */
inline constexpr size_t largest_document = size_t{64} << 20;
inline constexpr size_t deepest_nesting = 32;
/* Room for any path; the schema's patterns run on texts no longer than this. */
inline constexpr size_t longest_text = 4096;

struct load_error {
    std::string pointer; /* JSON pointer; empty is the whole document */
    std::string message; /* what was expected, and what was found */
    size_t line = 0;     /* 0: the pointer tells the place */
    size_t column = 0;
};

/* One line for the log: file, place, message. */
std::string to_text(const std::string &file, const load_error &error);

/* A step of a JSON pointer: a key or an index below another place. */
struct place {
    const place *above = nullptr;
    std::string_view key;
    size_t index = 0;
};
std::string to_pointer(const place *where);

/* The whole file; false with one error when it cannot be had. */
bool read_document(const std::string &path, std::string &text, file_signature &signature,
                   std::vector<load_error> &errors);

/* A reader with root's rights reads no file that everybody may write to: it
 * names files for the reader to open. */
bool is_trusted(const struct stat &status, uid_t reader);

/* What read_document would say the file is now. */
file_signature current_signature(const std::string &path);

/* False when the document cannot be used at all. A repeated key is an error
 * too, but the document is parsed to its end, so that all are told. */
bool parse_document(const std::string &text, nlohmann::json &document,
                    std::vector<load_error> &errors);

} // namespace described_platform

#endif
