/*
 * Validation of a document against the JSON Schema that is kept in schema/ and
 * built into the library.
 */
#ifndef KAVPLAT_DESCRIBED_SCHEMA_CHECK_H
#define KAVPLAT_DESCRIBED_SCHEMA_CHECK_H

#include "described/format/document.h"

namespace described_platform
{

/* The text of the schema; generated from schema/server.schema.json. */
extern const char *const schema_text;

/* Every violation, the deepest place of each only. */
std::vector<load_error> check_schema(const nlohmann::json &document);

} // namespace described_platform

#endif
