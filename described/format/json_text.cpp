#include "described/format/json_text.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>
#include <unordered_map>

namespace described_platform
{
namespace
{

using nlohmann::json;

/* Walks the text for the parser and shows others how far it came. */
class cursor
{
  public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char *;
    using reference = const char &;

    cursor(const char *at, const char **seen) : at_(at), seen_(seen) {}
    reference operator*() const { return *at_; }
    cursor &operator++()
    {
        *seen_ = ++at_;
        return *this;
    }
    cursor operator++(int)
    {
        cursor before = *this;
        ++*this;
        return before;
    }
    bool operator==(const cursor &other) const { return at_ == other.at_; }

  private:
    const char *at_;
    const char **seen_;
};

bool is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

bool is_letter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool is_of_word(char c)
{
    return is_letter(c) || is_digit(c) || c == '+' || c == '-' || c == '.' || c == '_';
}

/* What people write who know another notation: said in JSON's terms. */
std::string hint(std::string_view text, size_t offset)
{
    if (offset >= text.size()) {
        return "";
    }
    const char found = text[offset];
    if (found == '#' || found == '/') {
        return "; JSON has no comments";
    }
    if (found == '\'') {
        return "; texts stand in double quotes";
    }
    if (found == ']' || found == '}') {
        size_t before = offset;
        while (before > 0 && is_blank(text[before - 1])) {
            --before;
        }
        return before > 0 && text[before - 1] == ',' ? "; no comma stands behind the last" : "";
    }
    if (!is_of_word(found)) {
        return "";
    }
    size_t begin = offset;
    while (begin > 0 && is_of_word(text[begin - 1])) {
        --begin;
    }
    size_t end = offset;
    while (end < text.size() && is_of_word(text[end])) {
        ++end;
    }
    const std::string_view word = text.substr(begin, end - begin);
    if (is_letter(word.front()) || word.front() == '_') {
        return "; a text stands in quotes: \"" + cut_text(word, 40) + '"';
    }
    return "; a number is written like 12, -3 or 0.5: no plus sign, no zero in front, a digit on "
           "both sides of the point, no unit behind it";
}

/* The parser's own words without its error number and its place, which are
 * told in a form of our own. */
std::string plain_message(const char *what)
{
    std::string_view message = what;
    if (const size_t end = message.find("] "); message.starts_with('[') && end != message.npos) {
        message.remove_prefix(end + 2);
    }
    if (message.starts_with("parse error")) {
        if (const size_t colon = message.find(": "); colon != message.npos) {
            message.remove_prefix(colon + 2);
        }
    }
    return std::string(message);
}

/* Builds the document and watches what the stock builder lets pass: keys that
 * are given twice and nesting without end. */
class builder : public nlohmann::json_sax<json>
{
  public:
    builder(const std::string &text, json &document, std::vector<load_error> &errors,
            const element_reader &reader)
        : text_(text), document_(document), errors_(errors), reader_(reader), seen_(text.data()),
          counted_(seen_)
    {
    }

    /* Places whose lines are noted, 0 where they are not met. */
    std::unordered_map<std::string, size_t> *wanted = nullptr;

    bool build()
    {
        return json::sax_parse(cursor(text_.data(), &seen_),
                               cursor(text_.data() + text_.size(), &seen_), this);
    }

    bool null() override { return value(nullptr); }
    bool boolean(bool given) override { return value(given); }
    bool number_integer(number_integer_t given) override { return value(given); }
    bool number_unsigned(number_unsigned_t given) override { return value(given); }
    bool number_float(number_float_t given, const string_t &) override { return value(given); }
    bool string(string_t &given) override { return value(std::move(given)); }
    bool binary(binary_t &) override { return false; }
    bool start_object(std::size_t) override { return open(json::object()); }
    bool start_array(std::size_t) override { return open(json::array()); }
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }

    bool key(string_t &given) override
    {
        level &top = levels_.back();
        const bool added = top.keys.insert(given).second;
        top.key = std::move(given);
        if (!added) {
            errors_.push_back({value_pointer(),
                               "expected each key once, found \"" + top.key + "\" again", line()});
        }
        note_line();
        return true;
    }

    bool parse_error(std::size_t position, const std::string &, const json::exception &why) override
    {
        const size_t offset = std::min(position == 0 ? 0 : position - 1, text_.size());
        const size_t newline = offset == 0 ? text_.npos : text_.rfind('\n', offset - 1);
        const auto end = text_.begin() + static_cast<std::ptrdiff_t>(offset);
        load_error error;
        error.line = 1 + static_cast<size_t>(std::count(text_.begin(), end, '\n'));
        error.column = 1 + (newline == text_.npos ? offset : offset - newline - 1);
        error.message = "expected JSON: " + plain_message(why.what()) + hint(text_, offset);
        errors_.push_back(std::move(error));
        return false;
    }

  private:
    struct level {
        json *node;
        std::string key;
        std::set<std::string, std::less<>> keys;
    };

    /* Of the value that comes next. */
    std::string value_pointer() const
    {
        std::string result;
        for (size_t i = 0; i < levels_.size(); ++i) {
            const level &each = levels_[i];
            const bool last = i + 1 == levels_.size();
            result += '/';
            result += each.node->is_array() ? std::to_string(each.node->size() - (last ? 0 : 1))
                                            : escaped(each.key);
        }
        return result;
    }

    /* Of the token that the parser gave last. Behind a number it has seen one
     * character more, which may be the line's end. */
    size_t line()
    {
        if (const char *end = seen_ - 1; end > counted_) {
            line_ += static_cast<size_t>(std::count(counted_, end, '\n'));
            counted_ = end;
        }
        return line_;
    }

    /* A member's line is that of its key, so the first one is kept. */
    void note_line()
    {
        if (wanted == nullptr) {
            return;
        }
        if (const auto found = wanted->find(value_pointer());
            found != wanted->end() && found->second == 0) {
            found->second = line();
        }
    }

    json *put(json &&given)
    {
        note_line();
        if (levels_.empty()) {
            document_ = std::move(given);
            return &document_;
        }
        level &top = levels_.back();
        if (top.node->is_array()) {
            top.node->push_back(std::move(given));
            return &top.node->back();
        }
        json &slot = (*top.node)[top.key];
        slot = std::move(given);
        return &slot;
    }

    template <class Value>
    bool value(Value &&given)
    {
        put(json(std::forward<Value>(given)));
        show_element();
        return true;
    }

    bool open(json &&empty)
    {
        if (levels_.size() >= deepest_nesting) {
            errors_.push_back({value_pointer(),
                               "expected at most " + std::to_string(deepest_nesting) +
                                   " levels of objects and arrays",
                               line()});
            return false;
        }
        levels_.push_back({put(std::move(empty)), {}, {}});
        return true;
    }

    bool close()
    {
        levels_.pop_back();
        show_element();
        return true;
    }

    /* The value that is complete now, if it is a component. */
    void show_element()
    {
        if (levels_.size() == 2 && levels_[0].key == "components" && levels_[1].node->is_array()) {
            json &list = *levels_[1].node;
            reader_(list.back(), list.size() - 1);
        }
    }

    const std::string &text_;
    json &document_;
    std::vector<load_error> &errors_;
    const element_reader &reader_;
    std::vector<level> levels_;
    const char *seen_;    /* by the parser, exclusive */
    const char *counted_; /* what lies before it is counted in line_ */
    size_t line_ = 1;
};

} // namespace

bool parse_document(const std::string &text, json &document, std::vector<load_error> &errors,
                    const element_reader &reader)
{
    return builder(text, document, errors, reader).build();
}

void find_lines(const std::string &text, std::vector<load_error> &errors)
{
    std::unordered_map<std::string, size_t> wanted;
    for (const load_error &each : errors) {
        if (each.line == 0) {
            wanted.emplace(each.pointer, 0);
        }
    }
    if (wanted.empty()) {
        return;
    }
    json ignored;
    std::vector<load_error> told_before;
    const element_reader dropped = [](json &element, size_t) { element = nullptr; };
    builder second(text, ignored, told_before, dropped);
    second.wanted = &wanted;
    second.build();
    for (load_error &each : errors) {
        if (each.line == 0) {
            each.line = wanted.at(each.pointer);
        }
    }
}

} // namespace described_platform
