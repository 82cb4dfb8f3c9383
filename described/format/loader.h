/*
 * From a file to a description: the one judge of what is a good one.
 */
#ifndef KAVPLAT_DESCRIBED_LOADER_H
#define KAVPLAT_DESCRIBED_LOADER_H

#include "described/format/document.h"

#include <memory>

namespace described_platform
{

struct load_result {
    std::unique_ptr<const description> loaded; /* null when there is any error */
    std::vector<load_error> errors;
    file_signature signature; /* of the file that was read, good or bad */
};

/* path is absolute; relative files that the description binds are looked up
 * from its directory. */
load_result load_description(const std::string &path);

/* The same of a text; the directory ends with a '/'. */
load_result load_text(const std::string &text, const std::string &directory,
                      const file_signature &signature = {});

} // namespace described_platform

#endif
