#include "tools/kavplat/describe/bmc_reader.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kavplat_describe
{
namespace
{

using clock = std::chrono::steady_clock;

constexpr size_t longest_word = size_t{8} << 20U;

int milliseconds_until(clock::time_point when)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(when - clock::now()).count();
    return static_cast<int>(std::max<int64_t>(left, 0));
}

bool send(int to, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t count = ::write(to, text.data(), text.size());
        if (count < 0 && errno != EINTR) {
            return false;
        }
        text.remove_prefix(static_cast<size_t>(std::max<ssize_t>(count, 0)));
    }
    return true;
}

std::string word_of(bmc_client &client, bool believed)
{
    json word = json::object();
    std::string why;
    try {
        if (client.look(why)) {
            word["inventory"] = to_json(client.inventory());
            why = believed ? "" : "its readings need --watch; until then none is valid";
        }
    } catch (const std::exception &error) {
        why = error.what();
    }
    if (!why.empty()) {
        word["complaint"] = why;
    }
    return word.dump(-1, ' ', false, json::error_handler_t::replace) + '\n';
}

/* The life of the child. It ends with its parent, whose death the kernel tells. */
void read_and_tell(bmc_target target, int to, bool once)
{
    target.believed = !once || are_kept(target.directory);
    bmc_client client(target);
    std::string last;
    bool kept = once;
    for (;;) {
        const auto next = clock::now() + bmc_reader::between_looks;
        std::string word = word_of(client, target.believed);
        kept = kept || keep_values(target.directory);
        if (word != last && !send(to, word)) {
            return;
        }
        last = std::move(word);
        if (once) {
            return;
        }
        pollfd nobody_listens{to, 0, 0};
        if (::poll(&nobody_listens, 1, milliseconds_until(next)) > 0) {
            return;
        }
    }
}

} // namespace

void bmc_reader::start(bool once)
{
    int ends[2] = {-1, -1};
    stop();
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        return;
    }
    const pid_t parent = ::getpid();
    child_ = ::fork();
    if (child_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::close(ends[0]);
        if (::getppid() == parent) {
            read_and_tell(target_, ends[1], once);
        }
        ::_exit(0); /* what else is in this process is the parent's to end */
    }
    ::close(ends[1]);
    from_ = ends[0];
    ::fcntl(from_, F_SETFL, O_NONBLOCK);
    if (child_ < 0) {
        stop();
    }
}

void bmc_reader::stop()
{
    if (child_ > 0) {
        ::kill(child_, SIGKILL);
        while (::waitpid(child_, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    if (from_ >= 0) {
        ::close(from_);
    }
    child_ = -1;
    from_ = -1;
    received_.clear();
}

bool bmc_reader::take(bmc_word &into)
{
    char bytes[65536];
    ssize_t count = 0;
    while ((count = ::read(from_, bytes, sizeof bytes)) > 0 && received_.size() < longest_word) {
        received_.append(bytes, static_cast<size_t>(count));
    }
    const bool ended = count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR) || count > 0;
    bool heard = false;
    for (size_t end = 0; (end = received_.find('\n')) != std::string::npos;) {
        const json word = json::parse(received_.substr(0, end), nullptr, false);
        received_.erase(0, end + 1);
        into.complaint = word.value("complaint", std::string());
        if (word.contains("inventory")) {
            into.inventory = inventory_of(word["inventory"]);
        }
        heard = true;
    }
    if (ended) {
        stop();
        if (!heard) {
            into.complaint = "what reads it has ended";
        }
    }
    return heard || ended;
}

bmc_word ask_bmc(const bmc_target &target)
{
    bmc_word word;
    bmc_reader reader(target);
    const auto deadline = clock::now() + bmc_reader::longest_wait;
    reader.start(true);
    word.complaint = "it does not answer in time";
    while (reader.is_running() && clock::now() < deadline) {
        pollfd waiting{reader.descriptor(), POLLIN, 0};
        if (::poll(&waiting, 1, milliseconds_until(deadline)) > 0 && reader.take(word)) {
            break;
        }
    }
    return word;
}

} // namespace kavplat_describe
