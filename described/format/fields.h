/*
 * The values of a JSON object, each asked for by its key and told to be wrong
 * where it is, so that what an object holds is written down once.
 */
#ifndef KAVPLAT_DESCRIBED_FIELDS_H
#define KAVPLAT_DESCRIBED_FIELDS_H

#include "described/format/document.h"

#include <array>
#include <nlohmann/json_fwd.hpp>

namespace described_platform
{

struct value_range {
    double low;
    double high;
    bool whole;
};
extern const value_range any_code;
extern const value_range any_byte;
extern const value_range any_reading;

/* What a description is read into beside the description itself. */
struct reading_state {
    std::string directory; /* where relative files are, with its '/' at the end */
    std::vector<load_error> errors;
};

void complain(reading_state &state, const place &where, std::string message);
/* "expected ..., found ..." */
void complain(reading_state &state, const place &where, const std::string &expected,
              const nlohmann::json &found);
/* A number or one of these names was expected: a hint at the one that was meant. */
void complain(reading_state &state, const place &where, const std::string &expected,
              const nlohmann::json &found, const std::vector<std::string_view> &names);

/* A value for a message, never long. */
std::string shown(const nlohmann::json &value);

/* The code that a number or a name is, if it is one. */
std::optional<double> code_of(const nlohmann::json &value, code_table names, value_range range);

enum class need { optional, required };

/*
 * All keys of an object are asked for, and then comes end(), which tells which
 * others there are. A value that is no object has none of them; that is told by
 * end() alone. Whoever asks gets nothing, and his variable is left as it was,
 * where a key is missing or its value wrong.
 */
class fields
{
  public:
    fields(reading_state &state, const nlohmann::json &object, const place &where);

    /* Null when it is not there. */
    const nlohmann::json *value(const char *key, need needed = need::optional,
                                const char *expected = "");
    bool text(const char *key, size_t longest, std::string &into, need needed = need::optional);
    /* A text that goes where no control character may. */
    bool name(const char *key, size_t longest, std::string &into, need needed = need::optional);
    bool boolean(const char *key, bool &into);
    bool number(const char *key, double &into);
    bool code(const char *key, code_table names, int32_t &into, need needed = need::optional);
    bool live(const char *key, code_table names, value_range range, live_value &into,
              need needed = need::optional);
    void live(const char *key, code_table names, value_range range, rare<live_value> &into,
              need needed = need::optional);

    /* False when it was no object. */
    bool end();

    place at(const char *key) const { return {&where_, key, 0}; }

  private:
    template <class Expected>
    const nlohmann::json *find(const char *key, need needed, const Expected &expected);
    bool read_binding(const nlohmann::json &object, const place &where, live_value &into);

    reading_state &state_;
    const nlohmann::json &object_;
    const place &where_;
    std::array<const char *, 12> asked_{};
    size_t asked_count_ = 0;
    size_t found_count_ = 0;
};

} // namespace described_platform

#endif
