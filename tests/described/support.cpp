#include "described/support.h"

#include "described/platform.h"
#include "platform/event_mgr.h"

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <fstream>
#include <ostream>

namespace
{

std::mutex log_mutex;
std::condition_variable log_came;
std::vector<std::string> log_text;

} // namespace

/* In the place of net-snmp's, so that a test sees what an agent would log. */
extern "C" __attribute__((visibility("default"))) int snmp_log(int priority, const char *format,
                                                               ...)
{
    char line[4096];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    {
        const std::lock_guard lock(log_mutex);
        log_text.push_back(std::to_string(priority) + ":" + line);
    }
    log_came.notify_all();
    return 0;
}

/* The fork tests start threads in the child of a process that has threads. */
extern "C" __attribute__((visibility("default"))) const char *__tsan_default_options()
{
    return "die_after_fork=0";
}

namespace described_platform_test
{

namespace
{

std::filesystem::path make_directory()
{
    std::string name = (std::filesystem::temp_directory_path() / "kavplat-test-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) {
        std::abort();
    }
    return name;
}

} // namespace

void write_file(const std::filesystem::path &path, const std::string &text)
{
    std::ofstream file(path, std::ios::trunc);
    file << text;
    file.close();
    ASSERT_TRUE(file.good()) << path;
}

void replace_file(const std::filesystem::path &path, const std::string &text)
{
    const std::filesystem::path beside = path.string() + ".new";
    write_file(beside, text);
    std::filesystem::rename(beside, path);
}

std::vector<std::string> log_lines()
{
    const std::lock_guard lock(log_mutex);
    return log_text;
}

std::vector<std::string> errors_logged()
{
    std::vector<std::string> lines = log_lines();
    std::erase_if(lines, [](const std::string &line) { return !line.starts_with("3:"); });
    return lines;
}

void clear_log()
{
    const std::lock_guard lock(log_mutex);
    log_text.clear();
}

bool wait_for_log(const std::string &part)
{
    std::unique_lock lock(log_mutex);
    return log_came.wait_for(lock, patience, [&] {
        return std::ranges::any_of(log_text, [&](const std::string &line) {
            return line.find(part) != std::string::npos;
        });
    });
}

platform_test::platform_test() : directory(make_directory()), path(directory / "server.json")
{
    ::setenv("KAVPLAT_DESCRIPTION", path.c_str(), 1);
    ::unsetenv("KAVPLAT_READ_TIMEOUT_MS");
    clear_log();
}

platform_test::~platform_test()
{
    described_platform_stop();
    std::filesystem::remove_all(directory);
}

std::string described(const std::string &components, const std::string &more)
{
    return R"({"components": [{"name": "/SYS", "type": "system"})" +
           (components.empty() ? std::string() : ",\n" + components) + "]" + more + "}\n";
}

std::ostream &operator<<(std::ostream &out, const delivered &event)
{
    return out << event.event_class << '/' << event.event << ' ' << event.payload;
}

void subscriber::callback(void *self, int event_class, int event, const char *payload)
{
    auto &to = *static_cast<subscriber *>(self);
    const delivered what{event_class, event, payload == nullptr ? "(null)" : payload};
    {
        const std::lock_guard lock(to.mutex);
        to.overlapped = to.overlapped || to.inside;
        to.inside = true;
    }
    if (to.on_event != nullptr) {
        to.on_event(what);
    }
    {
        const std::lock_guard lock(to.mutex);
        to.inside = false;
        to.events.push_back(what);
        to.threads.push_back(pthread_self());
    }
    to.came.notify_all();
}

std::vector<delivered> subscriber::wait_for(size_t count)
{
    std::unique_lock lock(mutex);
    came.wait_for(lock, patience, [&] { return events.size() >= count; });
    return events;
}

void subscribe_all(uint32_t handle)
{
    EXPECT_EQ(0, event_mgr_subscribe_event_class(handle, EVENT_MGR_CLASS_HARDWARE));
    for (const int event :
         {EVENT_MGR_HOT_INSERT, EVENT_MGR_HOT_REMOVE, EVENT_MGR_UPDATE_INVENTORY}) {
        EXPECT_EQ(0, event_mgr_subscribe_event(handle, EVENT_MGR_CLASS_HARDWARE, event));
    }
    EXPECT_EQ(
        0, event_mgr_subscribe_event(handle, EVENT_MGR_CLASS_INTERNAL, EVENT_MGR_REFRESH_SENSOR));
    EXPECT_EQ(0,
              event_mgr_subscribe_event(handle, EVENT_MGR_CLASS_CONNECTION, EVENT_MGR_DISCONNECT));
}

} // namespace described_platform_test
