#include "schema_check.h"

#include "written_files.h"

#include <algorithm>
#include <valijson/adapters/nlohmann_json_adapter.hpp>
#include <valijson/schema.hpp>
#include <valijson/schema_parser.hpp>
#include <valijson/validation_results.hpp>
#include <valijson/validator.hpp>

using namespace described_platform;

namespace
{

/* Compiled once, and kept: the schema cannot change. */
const valijson::Schema &compiled_schema()
{
    static const valijson::Schema *const schema = [] {
        auto *compiled = new valijson::Schema;
        const nlohmann::json text = written::schema();
        const valijson::adapters::NlohmannJsonAdapter adapter(text);
        valijson::SchemaParser parser;
        parser.populateSchema(adapter, *compiled);
        return compiled;
    }();
    return *schema;
}

/* The validator writes "<root>", "[components]", "[3]". */
std::string pointer_of(const std::vector<std::string> &context)
{
    std::string result;
    for (size_t i = 1; i < context.size(); ++i) {
        std::string_view step = context[i];
        if (step.size() >= 2 && step.front() == '[' && step.back() == ']') {
            step = step.substr(1, step.size() - 2);
        }
        const place root;
        const place below{&root, step, 0};
        result += to_pointer(&below);
    }
    return result;
}

} // namespace

std::vector<load_error> check_schema(const nlohmann::json &document)
{
    valijson::ValidationResults results;
    valijson::Validator validator;
    const valijson::adapters::NlohmannJsonAdapter target(document);
    if (validator.validate(compiled_schema(), target, &results)) {
        return {};
    }
    std::vector<load_error> all;
    for (const auto &each : results) {
        all.push_back({pointer_of(each.context), each.description});
    }
    /* Each violation comes once more from every object that holds it, in words
     * that say nothing. Sorted, what lies below a place follows it closely. */
    std::vector<std::string> places;
    places.reserve(all.size());
    for (const load_error &each : all) {
        places.push_back(each.pointer + '/');
    }
    std::ranges::sort(places);
    std::erase_if(all, [&](const load_error &each) {
        const std::string prefix = each.pointer + '/';
        const auto below = std::ranges::upper_bound(places, prefix);
        return below != places.end() && below->starts_with(prefix);
    });
    return all;
}
