#include "tools/kavplat/describe/watch.h"

#include "tools/kavplat/describe/error_window.h"
#include "tools/kavplat/describe/output.h"
#include "tools/kavplat/describe/schedule.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <poll.h>
#include <set>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#ifdef KAVPLAT_HAS_LIBUDEV
#include <libudev.h>
#endif

namespace kavplat_describe
{
namespace
{

int64_t now()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

int64_t milliseconds(std::chrono::milliseconds time)
{
    return time.count();
}

void say(const std::string &text)
{
    std::cerr << "kavplat describe: " << text << std::endl;
}

/* What tells that the machine changes. */
class news
{
  public:
    news();
    ~news();
    news(const news &) = delete;
    news &operator=(const news &) = delete;

    int descriptor() const { return descriptor_; } /* -1: nobody tells anything */
    /* Takes what is there to be told; false: there was nothing of interest. */
    bool take();

  private:
    int descriptor_ = -1;
#ifdef KAVPLAT_HAS_LIBUDEV
    struct udev *udev_ = nullptr;
    struct udev_monitor *monitor_ = nullptr;
#endif
};

#ifdef KAVPLAT_HAS_LIBUDEV

/* Of no others can anything be seen in a description. */
constexpr const char *subsystems[] = {"block", "drm",     "edac",    "enclosure", "hwmon",
                                      "leds",  "net",     "nvme",    "pci",       "power_supply",
                                      "scsi",  "thermal", "watchdog"};

news::news() : udev_(udev_new())
{
    constexpr int room_for_a_storm = 4 * 1024 * 1024;
    // From udev, who has given names by then; from the kernel where no udev runs, as in
    // a container.
    const char *from = ::access("/run/udev/control", F_OK) == 0 ? "udev" : "kernel";
    monitor_ = udev_ == nullptr ? nullptr : udev_monitor_new_from_netlink(udev_, from);
    if (monitor_ == nullptr) {
        return;
    }
    for (const char *each : subsystems) {
        udev_monitor_filter_add_match_subsystem_devtype(monitor_, each, nullptr);
    }
    udev_monitor_set_receive_buffer_size(monitor_, room_for_a_storm);
    if (udev_monitor_enable_receiving(monitor_) >= 0) {
        descriptor_ = udev_monitor_get_fd(monitor_);
    }
}

news::~news()
{
    if (monitor_ != nullptr) {
        udev_monitor_unref(monitor_);
    }
    if (udev_ != nullptr) {
        udev_unref(udev_);
    }
}

bool news::take()
{
    udev_device *each = udev_monitor_receive_device(monitor_);
    // Where events were lost there were some.
    const bool lost = each == nullptr && errno == ENOBUFS;
    if (each != nullptr) {
        udev_device_unref(each);
    }
    return each != nullptr || lost;
}

#else

news::news() = default;
news::~news() = default;
bool news::take()
{
    return false;
}

#endif

struct keeper {
    options asked;
    error_history errors;       /* of the machine's memory, as long as this program runs */
    bmc_word of_bmc;            /* the last word of the service processor */
    std::set<std::string> told; /* complaints of the last look */
    std::string in_file;        /* what was written last */
    bool failed = false;        /* the last look gave nothing, or could not be written */
    bool ready = false;

    void tell(const std::vector<std::string> &complaints)
    {
        for (const std::string &each : complaints) {
            if (!told.contains(each)) {
                say(each);
            }
        }
        told = {complaints.begin(), complaints.end()};
    }

    void look()
    {
        errors.now = now();
        asked.errors = &errors;
        described found = describe(asked, of_bmc);
        std::string why;
        const bool good = !found.text.empty() && replace_file(asked.output, found.text, why);
        if (!why.empty()) {
            found.complaints.push_back(asked.output + ": " + why);
        }
        tell(found.complaints);
        if (!good) {
            failed = true;
            notify("STATUS=The description could not be written: " + found.complaints.back());
            return;
        }
        const bool differs = found.text != in_file;
        if (differs) {
            say(asked.output + (in_file.empty() ? ": describes this machine" : ": written anew"));
            in_file = std::move(found.text);
        } else if (failed) {
            say(asked.output + ": good again");
        }
        failed = false;
        notify(std::string(ready ? "" : "READY=1\n") + "STATUS=" + asked.output +
               " describes this machine");
        ready = true;
    }
};

} // namespace

void notify(const std::string &state)
{
    const char *where = std::getenv("NOTIFY_SOCKET");
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const size_t length = where == nullptr ? 0 : std::strlen(where);
    if (length < 2 || length >= sizeof address.sun_path) {
        return;
    }
    std::memcpy(address.sun_path, where, length);
    if (where[0] == '@') { // a name that is no file
        address.sun_path[0] = '\0';
    }
    const int to = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (to < 0) {
        return;
    }
    // Nobody can be told that this fails.
    [[maybe_unused]] const ssize_t sent =
        ::sendto(to, state.data(), state.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                 reinterpret_cast<const sockaddr *>(&address),
                 static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length));
    ::close(to);
}

int watch(const options &asked)
{
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    sigprocmask(SIG_BLOCK, &ends, nullptr);
    const int signals = ::signalfd(-1, &ends, SFD_CLOEXEC | SFD_NONBLOCK);
    if (signals < 0) {
        say(std::string("signals: ") + std::strerror(errno));
        return 1;
    }
    news told;
    if (told.descriptor() < 0) {
        say("nobody tells of changes here: they are seen every ten minutes");
    }
    keeper it = {.asked = asked,
                 .errors = {},
                 .of_bmc = {},
                 .told = {},
                 .in_file = {},
                 .failed = false,
                 .ready = false};
    schedule when;
    bmc_reader reader(asked.bmc);
    int64_t start_reader = asked.bmc.wanted ? 0 : INT64_MAX;
    /* What the service processor knows is in the first description already, so that an
     * agent does not see it go and come when this program is started anew. */
    const int64_t first_word = now() + milliseconds(bmc_reader::longest_wait);
    const auto has_word = [&] { return it.of_bmc.inventory || !it.of_bmc.complaint.empty(); };
    pollfd wait[] = {{signals, POLLIN, 0}, {told.descriptor(), POLLIN, 0}, {-1, POLLIN, 0}};
    for (;;) {
        if (!reader.is_running() && start_reader <= now()) {
            reader.start(false);
            start_reader = now() + milliseconds(bmc_reader::between_looks);
        }
        if (!has_word() && asked.bmc.wanted && first_word <= now()) {
            it.of_bmc.complaint = "it does not answer in time";
        }
        const bool waits = asked.bmc.wanted && !has_word();
        if (!waits && when.next() <= now()) {
            when.looked(now());
            it.look();
        }
        const int64_t pause =
            std::clamp<int64_t>((waits ? first_word : when.next()) - now(), 0, schedule::full_look);
        wait[2].fd = reader.descriptor();
        if (::poll(wait, std::size(wait), static_cast<int>(pause)) <= 0) {
            continue;
        }
        if (wait[0].revents != 0) {
            break;
        }
        if (wait[2].revents != 0 && reader.take(it.of_bmc)) {
            when.told(now());
        }
        // One at a time, so that a storm delays nothing else.
        if (wait[1].revents != 0 && told.take()) {
            when.told(now());
        } else if ((wait[1].revents & (POLLHUP | POLLNVAL)) != 0) {
            say("nobody tells of changes any more: they are seen every ten minutes");
            wait[1].fd = -1;
        }
    }
    notify("STOPPING=1");
    reader.stop();
    if (it.of_bmc.inventory) {
        disbelieve(*it.of_bmc.inventory);
    }
    ::close(signals);
    return 0;
}

} // namespace kavplat_describe
