/*
 * A text as a JSON document. Only what reads documents includes this: the rest
 * of the platform knows nothing of the parser that is used.
 */
#ifndef KAVPLAT_DESCRIBED_JSON_TEXT_H
#define KAVPLAT_DESCRIBED_JSON_TEXT_H

#include "described/format/document.h"

#include <functional>
#include <nlohmann/json_fwd.hpp>

namespace described_platform
{

/* Is shown each element of the array "components" as soon as it was parsed, and leaves
 * of it what the document is to keep. */
using element_reader = std::function<void(nlohmann::json &element, size_t index)>;

/* False when the document cannot be used at all. A repeated key is an error
 * too, but the document is parsed to its end, so that all are told. */
bool parse_document(const std::string &text, nlohmann::json &document,
                    std::vector<load_error> &errors, const element_reader &reader);

/* The line of each place that has none yet. The text is parsed once more for
 * it, which only texts with mistakes have to bear. */
void find_lines(const std::string &text, std::vector<load_error> &errors);

} // namespace described_platform

#endif
