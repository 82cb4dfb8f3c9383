# cmake -DINPUT=schema.json -DOUTPUT=schema.cpp -P EmbedSchema.cmake
# Writes the source file that holds the schema's text.
file(READ "${INPUT}" text)
file(WRITE "${OUTPUT}" "#include \"described/format/schema_check.h\"

namespace described_platform
{
const char *const schema_text = R\"embedded(${text})embedded\";
} // namespace described_platform
")
