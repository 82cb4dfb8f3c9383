/*
 * The files of the repository that these tests hold against the code.
 */
#ifndef KAVPLAT_TESTS_WRITTEN_FILES_H
#define KAVPLAT_TESTS_WRITTEN_FILES_H

#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

namespace written
{

inline std::string path_of(const std::string &file)
{
    return std::string(KAVPLAT_SOURCE_DIR) + "/" + file;
}

/* An unreadable file fails the test that asks for it. */
inline std::string text_of(const std::string &file)
{
    std::ifstream in(path_of(file), std::ios::binary);
    if (!in) {
        throw std::runtime_error("cannot read " + path_of(file));
    }
    return {std::istreambuf_iterator<char>(in), {}};
}

inline std::string reference()
{
    return text_of("docs/description.md");
}

inline nlohmann::json schema()
{
    return nlohmann::json::parse(text_of("schema/server.schema.json"));
}

} // namespace written

#endif
