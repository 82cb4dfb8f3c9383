#include "spans.h"

#include <nlohmann/json.hpp>

namespace kavplat_edit
{
namespace
{

bool is_space(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

/* Knows nothing of what is wrong: a parser has seen the text before. */
class scanner
{
  public:
    explicit scanner(std::string_view text) : text_(text)
    {
        if (text_.starts_with("\xEF\xBB\xBF")) {
            at_ = 3;
        }
    }

    span value()
    {
        skip_space();
        span result;
        result.begin = at_;
        if (here() == '{') {
            result.is_object = true;
            list('}', [&] {
                member each;
                each.begin = at_;
                skip_string();
                each.key = nlohmann::json::parse(text_.substr(each.begin, at_ - each.begin))
                               .get<std::string>();
                skip_space();
                ++at_; /* the colon */
                each.value = value();
                result.members.push_back(std::move(each));
            });
        } else if (here() == '[') {
            result.is_array = true;
            list(']', [&] { result.items.push_back(value()); });
        } else if (here() == '"') {
            skip_string();
        } else {
            while (at_ < text_.size() && !is_space(here()) &&
                   std::string_view(",]}").find(here()) == std::string_view::npos) {
                ++at_;
            }
        }
        result.end = at_;
        return result;
    }

  private:
    char here() const { return at_ < text_.size() ? text_[at_] : '\0'; }

    void skip_space()
    {
        while (at_ < text_.size() && is_space(here())) {
            ++at_;
        }
    }

    void skip_string()
    {
        for (++at_; at_ < text_.size() && here() != '"'; ++at_) {
            at_ += here() == '\\' ? 1U : 0U;
        }
        ++at_;
    }

    template <class Read>
    void list(char end, const Read &read)
    {
        ++at_;
        skip_space();
        while (at_ < text_.size() && here() != end) {
            read();
            skip_space();
            if (here() == ',') {
                ++at_;
                skip_space();
            }
        }
        ++at_;
    }

    std::string_view text_;
    size_t at_ = 0;
};

} // namespace

span spans_of(std::string_view text)
{
    return scanner(text).value();
}

const span *find_member(const span &object, std::string_view key)
{
    for (const member &each : object.members) {
        if (each.key == key) {
            return &each.value;
        }
    }
    return nullptr;
}

std::string_view at(std::string_view text, const span &where)
{
    return text.substr(where.begin, where.end - where.begin);
}

std::string_view space_before(std::string_view text, size_t place)
{
    size_t begin = place;
    while (begin > 0 && is_space(text[begin - 1])) {
        --begin;
    }
    return text.substr(begin, place - begin);
}

} // namespace kavplat_edit
