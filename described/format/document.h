/*
 * A description file as a text, read within bounds, and how a mistake in it is
 * told with its place.
 */
#ifndef KAVPLAT_DESCRIBED_DOCUMENT_H
#define KAVPLAT_DESCRIBED_DOCUMENT_H

#include "described/format/description.h"

#include <string>
#include <sys/stat.h>
#include <vector>

namespace described_platform
{

/* No server needs more, and a runaway file must not eat the agent's memory. */
inline constexpr size_t largest_document = size_t{64} << 20;
inline constexpr size_t deepest_nesting = 32;

struct load_error {
    std::string pointer;     /* JSON pointer; empty is the whole document */
    std::string message;     /* what was expected, and what was found */
    size_t line = 0;         /* from 1; 0: there is no text */
    size_t column = 0;       /* 0: the pointer tells the rest */
    std::string component{}; /* name of the component that the place belongs to */
};

/* One line for the log: file, line, place, message; nothing in it ends the line
 * or goes on without end. */
std::string to_text(const std::string &file, const load_error &error);

/* A text cut to at most longest bytes, never inside a UTF-8 character. */
std::string cut_text(std::string_view text, size_t longest);

/* A key as it stands in a JSON pointer. */
std::string escaped(std::string_view key);

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

/* The same of what is open already, to its end. */
bool read_to_end(int descriptor, std::string &text, std::vector<load_error> &errors);

/* A reader with root's rights reads no file that everybody may write to: it
 * names files for the reader to open. */
bool is_trusted(const struct stat &status, uid_t reader);

/* What read_document would say the file is now. */
file_signature current_signature(const std::string &path);

} // namespace described_platform

#endif
