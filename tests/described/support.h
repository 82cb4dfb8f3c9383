/* What the tests of the described platform share. */
#ifndef KAVPLAT_TESTS_DESCRIBED_SUPPORT_H
#define KAVPLAT_TESTS_DESCRIBED_SUPPORT_H

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <vector>

namespace described_platform_test
{

/* For a condition that comes true in milliseconds, unless something is broken. */
inline constexpr std::chrono::seconds patience{20};

/* Written in place, as an editor or a shell does. */
void write_file(const std::filesystem::path &path, const std::string &text);
/* Written beside and renamed. */
void replace_file(const std::filesystem::path &path, const std::string &text);

/* All that went to the agent's log since the last clear_log(). */
std::vector<std::string> log_lines();
std::vector<std::string> errors_logged(); /* of these */
void clear_log();
/* False when no such line comes. */
bool wait_for_log(const std::string &part);

/* A directory of its own, the environment that leads the platform there, and a
 * platform that knows nothing yet. */
class platform_test : public testing::Test
{
  protected:
    platform_test();
    ~platform_test() override;

    const std::filesystem::path directory;
    const std::filesystem::path path; /* of the description */
};

/* A description of a root /SYS and these components, each a JSON object. */
std::string described(const std::string &components, const std::string &more = "");

struct delivered {
    int event_class;
    int event;
    std::string payload;
    bool operator==(const delivered &) const = default;
};

std::ostream &operator<<(std::ostream &out, const delivered &event);

/* A subscriber's callback and what it was told. */
struct subscriber {
    std::mutex mutex;
    std::condition_variable came;
    std::vector<delivered> events;
    std::vector<pthread_t> threads;
    bool inside = false;
    bool overlapped = false;
    void (*on_event)(const delivered &event) = nullptr;

    static void callback(void *self, int event_class, int event, const char *payload);
    /* What came when there are that many, or when patience ended. */
    std::vector<delivered> wait_for(size_t count);
};

/* As libPlatformMIB subscribes. */
void subscribe_all(uint32_t handle);

} // namespace described_platform_test

#endif
