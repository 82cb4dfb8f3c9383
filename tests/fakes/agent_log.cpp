#include "fakes/agent_log.h"

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <mutex>
#include <stdexcept>

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include "fakes/fake_system.h"

namespace
{

// Lives as long as the process: a detached thread may log at any time.
struct store {
    std::mutex mutex;
    bool catching = false;
    std::vector<std::string> tokens;
    std::vector<log_record> records;
    std::map<std::thread::id, log_record> unfinished;
};

store &the_store()
{
    static auto *s = new store;
    return *s;
}

// "token: " of a token that is switched on, or empty.
std::string token_header(const store &s, const std::string &piece)
{
    if (piece.size() < 3 || !piece.ends_with(": ")) {
        return {};
    }
    std::string token = piece.substr(0, piece.size() - 2);
    const bool known = std::ranges::any_of(
        s.tokens, [&](const std::string &t) { return token.compare(0, t.size(), t) == 0; });
    return known ? token : std::string();
}

int catch_piece(netsnmp_log_handler * /*handler*/, int priority, const char *piece)
{
    store &s = the_store();
    const std::lock_guard lock(s.mutex);
    if (!s.catching) {
        return 1;
    }
    const auto self = std::this_thread::get_id();
    if (priority != LOG_DEBUG) {
        s.records.push_back({priority, {}, piece, self});
        return 1;
    }
    log_record &line =
        s.unfinished.try_emplace(self, log_record{LOG_DEBUG, {}, {}, self}).first->second;
    auto finish = [&] {
        s.records.push_back(line);
        line.token.clear();
        line.text.clear();
    };
    const std::string text = piece;
    if (std::string token = token_header(s, text); !token.empty()) {
        if (!line.token.empty() || !line.text.empty()) {
            finish(); // a message without a line end
        }
        line.token = std::move(token);
        return 1;
    }
    line.text += text;
    if (line.text.ends_with('\n')) {
        finish();
    }
    return 1;
}

// What was caught, with the lines that have no end yet at the end.
std::vector<log_record> caught()
{
    store &s = the_store();
    const std::lock_guard lock(s.mutex);
    std::vector<log_record> all = s.records;
    for (const auto &[thread, line] : s.unfinished) {
        if (!line.text.empty()) {
            all.push_back(line);
        }
    }
    return all;
}

std::string printed(const std::vector<log_record> &records)
{
    std::string out = "caught:\n";
    for (const log_record &r : records) {
        out += "  " + std::to_string(r.priority) + " " + (r.token.empty() ? "" : r.token + ": ") +
               testing::PrintToString(r.text) + "\n";
    }
    return records.empty() ? "caught nothing" : out;
}

size_t count_of(const std::vector<log_record> &records, int priority, const std::string &token,
                const std::string &text)
{
    return static_cast<size_t>(std::ranges::count_if(records, [&](const log_record &r) {
        return r.priority == priority && r.token == token && r.text == text;
    }));
}

testing::AssertionResult found(int priority, const std::string &token, const std::string &text)
{
    const std::vector<log_record> records = caught();
    if (count_of(records, priority, token, text) != 0) {
        return testing::AssertionSuccess() << printed(records);
    }
    return testing::AssertionFailure() << "not logged: " << priority << " " << token << " "
                                       << testing::PrintToString(text) << "\n"
                                       << printed(records);
}

testing::AssertionResult awaited(int priority, const std::string &token, const std::string &text)
{
    fake_system::eventually([&] { return count_of(caught(), priority, token, text) != 0; });
    return found(priority, token, text);
}

// "function(): source, N:\n"; an empty function stands for any.
bool is_trace(const log_record &r, const std::string &function, const std::string &source)
{
    if (r.token != "trace") {
        return false;
    }
    const size_t name_end = r.text.find("(): ");
    if (name_end == std::string::npos || name_end == 0 ||
        (!function.empty() && r.text.substr(0, name_end) != function)) {
        return false;
    }
    std::string rest = r.text.substr(name_end + 4);
    if (!rest.starts_with(source + ", ") || !rest.ends_with(":\n")) {
        return false;
    }
    rest = rest.substr(source.size() + 2, rest.size() - source.size() - 4);
    return !rest.empty() &&
           std::ranges::all_of(rest, [](unsigned char c) { return std::isdigit(c) != 0; });
}

template <class Wanted>
testing::AssertionResult traced_where(Wanted wanted, const std::string &function,
                                      const std::string &source)
{
    const std::vector<log_record> records = caught();
    std::map<std::thread::id, const log_record *> last;
    size_t seen = 0;
    for (const log_record &r : records) {
        if (r.priority == LOG_DEBUG && r.token != "trace" && wanted(r)) {
            ++seen;
            const auto before = last.find(r.thread);
            if (before == last.end() || !is_trace(*before->second, function, source)) {
                return testing::AssertionFailure()
                       << "no trace line of " << (function.empty() ? "any function" : function)
                       << " in " << source << " before " << r.token << ": "
                       << testing::PrintToString(r.text) << "\n"
                       << printed(records);
            }
        }
        last[r.thread] = &r;
    }
    if (seen == 0) {
        return testing::AssertionFailure() << "no such debug message\n" << printed(records);
    }
    return testing::AssertionSuccess() << seen << " messages, each with its trace line";
}

} // namespace

agent_log::agent_log(std::initializer_list<const char *> debug_tokens)
{
    static netsnmp_log_handler *handler = nullptr;
    if (handler == nullptr) {
        handler = netsnmp_register_loghandler(NETSNMP_LOGHANDLER_NONE, LOG_DEBUG);
        if (handler == nullptr) {
            throw std::runtime_error("net-snmp takes no log handler");
        }
        handler->handler = catch_piece;
    }
    // net-snmp announces each token in the log; that is not for the test. It frees the
    // names of those before, but goes on counting them, up to the 256 that it takes.
    snmp_debug_shutdown();
    debug_num_tokens = 0;
    for (const char *token : debug_tokens) {
        std::string copy = token;
        debug_register_tokens(copy.data());
    }
    snmp_set_do_debugging(debug_tokens.size() != 0 ? 1 : 0);

    store &s = the_store();
    const std::lock_guard lock(s.mutex);
    if (s.catching) {
        throw std::logic_error("two agent_log objects at once");
    }
    s.tokens.assign(debug_tokens.begin(), debug_tokens.end());
    s.records.clear();
    s.unfinished.clear();
    s.catching = true;
}

agent_log::~agent_log()
{
    {
        store &s = the_store();
        const std::lock_guard lock(s.mutex);
        s.catching = false;
    }
    snmp_set_do_debugging(0);
}

testing::AssertionResult agent_log::has(int priority, const std::string &text) const
{
    return found(priority, {}, text);
}

testing::AssertionResult agent_log::has_debug(const std::string &token,
                                              const std::string &text) const
{
    return found(LOG_DEBUG, token, text);
}

size_t agent_log::count(int priority, const std::string &text) const
{
    return count_of(caught(), priority, {}, text);
}

size_t agent_log::count_debug(const std::string &token, const std::string &text) const
{
    return count_of(caught(), LOG_DEBUG, token, text);
}

testing::AssertionResult agent_log::wait_for(int priority, const std::string &text) const
{
    return awaited(priority, {}, text);
}

testing::AssertionResult agent_log::wait_for_debug(const std::string &token,
                                                   const std::string &text) const
{
    return awaited(LOG_DEBUG, token, text);
}

testing::AssertionResult agent_log::traced(const std::string &token, const std::string &text,
                                           const std::string &function,
                                           const std::string &source) const
{
    return traced_where([&](const log_record &r) { return r.token == token && r.text == text; },
                        function, source);
}

testing::AssertionResult agent_log::all_traced(const std::string &token_prefix,
                                               const std::string &source) const
{
    return traced_where([&](const log_record &r) { return r.token.starts_with(token_prefix); }, {},
                        source);
}

std::vector<log_record> agent_log::records() const
{
    return caught();
}

std::vector<std::string> agent_log::texts(int priority) const
{
    std::vector<std::string> out;
    for (const log_record &r : caught()) {
        if (r.priority == priority && r.token.empty()) {
            out.push_back(r.text);
        }
    }
    return out;
}

std::vector<std::string> agent_log::debug_texts(const std::string &token) const
{
    std::vector<std::string> out;
    for (const log_record &r : caught()) {
        if (r.priority == LOG_DEBUG && r.token == token) {
            out.push_back(r.text);
        }
    }
    return out;
}

void agent_log::clear()
{
    store &s = the_store();
    const std::lock_guard lock(s.mutex);
    s.records.clear();
    s.unfinished.clear();
}

std::string text_of(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    std::string text(static_cast<size_t>(std::max(length, 0)) + 1, '\0');
    vsnprintf(text.data(), text.size(), format, again);
    va_end(again);
    text.pop_back();
    return text;
}
