/* The schema, which is for editors, and what it says of a document. */
#ifndef KAVPLAT_TESTS_SCHEMA_CHECK_H
#define KAVPLAT_TESTS_SCHEMA_CHECK_H

#include "described/format/document.h"

#include <nlohmann/json_fwd.hpp>

/* Every violation, the deepest place of each only. */
std::vector<described_platform::load_error> check_schema(const nlohmann::json &document);

#endif
