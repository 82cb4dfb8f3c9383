#include "e2e/agent.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iterator>
#include <netinet/in.h>
#include <pwd.h>
#include <sstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <fcntl.h>

#include <gtest/gtest.h>

#include "e2e/client.h"

namespace fs = std::filesystem;

namespace
{

using namespace std::chrono_literals;

// The init of an agent's namespace: a signal from inside cannot end process 1,
// so snmpd is not it. Says how snmpd ended, and ends the namespace with it.
constexpr char init_of_foreground[] = R"("$@" & wait $!)";
constexpr char init_of_daemon[] =
    R"("$@" || exit; while pidof snmpd > /dev/null; do sleep 0.05; done
exit 99)";

[[noreturn]] void fail(const std::string &what)
{
    throw std::runtime_error(what);
}

std::string text_of_errno()
{
    return strerror(errno);
}

// The fields of /proc/ID/stat behind the name, which may itself contain blanks.
struct process_row {
    pid_t id = -1;
    std::string name;
    pid_t parent = -1;
};

std::vector<process_row> all_processes()
{
    std::vector<process_row> rows;
    for (const fs::directory_entry &entry : fs::directory_iterator("/proc")) {
        const std::string id = entry.path().filename();
        if (!std::ranges::all_of(id, [](unsigned char c) { return isdigit(c) != 0; })) {
            continue;
        }
        const std::string stat = read_file(entry.path() / "stat");
        const size_t open = stat.find('(');
        const size_t close = stat.rfind(')');
        if (open == std::string::npos || close == std::string::npos) {
            continue; // it has just ended
        }
        std::istringstream rest(stat.substr(close + 1));
        char state = 0;
        process_row row;
        row.id = std::stoi(id);
        row.name = stat.substr(open + 1, close - open - 1);
        rest >> state >> row.parent;
        if (state != 'Z') {
            rows.push_back(row);
        }
    }
    return rows;
}

// A directory with all in it.
void give_to(const fs::path &path, const std::string &user)
{
    const passwd *who = getpwnam(user.c_str());
    if (who == nullptr) {
        fail("no user " + user);
    }
    const auto give = [&](const fs::path &each) {
        if (chown(each.c_str(), who->pw_uid, who->pw_gid) != 0) {
            fail("cannot give " + each.string() + " to " + user + ": " + text_of_errno());
        }
    };
    give(path);
    for (const fs::directory_entry &each : fs::recursive_directory_iterator(path)) {
        give(each.path());
    }
}

// The process of that name below another one.
pid_t descendant(pid_t top, const std::string &name)
{
    const std::vector<process_row> rows = all_processes();
    std::vector<pid_t> family = {top};
    for (size_t i = 0; i < family.size(); i++) {
        for (const process_row &row : rows) {
            if (row.parent == family[i]) {
                if (row.name == name) {
                    return row.id;
                }
                family.push_back(row.id);
            }
        }
    }
    return -1;
}

} // namespace

bool eventually(const std::function<bool()> &condition, std::chrono::milliseconds longest)
{
    const auto end = std::chrono::steady_clock::now() + longest;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

std::string read_file(const fs::path &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void write_file(const fs::path &path, const std::string &text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    if (!out) {
        fail("cannot write " + path.string());
    }
}

void replace_file(const fs::path &path, const std::string &text)
{
    const fs::path complete = path.string() + ".new";
    write_file(complete, text);
    fs::rename(complete, path);
}

temporary_directory::temporary_directory()
{
    std::string name = fs::temp_directory_path() / "kavplat-e2e-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        fail("no temporary directory " + name + ": " + text_of_errno());
    }
    path_ = name;
}

temporary_directory::~temporary_directory()
{
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

void child_process::start(const std::vector<std::string> &command, const fs::path &output)
{
    stop();
    status_.reset();
    const int out = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    int ready[2];
    if (out < 0 || pipe2(ready, O_CLOEXEC) != 0) {
        fail("cannot start " + command.front() + ": " + text_of_errno());
    }
    std::vector<char *> arguments;
    for (const std::string &word : command) {
        arguments.push_back(const_cast<char *>(word.c_str()));
    }
    arguments.push_back(nullptr);
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
        // Dies with the thread of the test that started it.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {
            _exit(127);
        }
        dup2(out, STDOUT_FILENO);
        dup2(out, STDERR_FILENO);
        execvp(arguments[0], arguments.data());
        const int error = errno;
        [[maybe_unused]] const ssize_t told = write(ready[1], &error, sizeof error);
        _exit(127);
    }
    close(out);
    close(ready[1]);
    int error = pid_ < 0 ? errno : 0;
    const bool failed = pid_ < 0 || read(ready[0], &error, sizeof error) > 0;
    close(ready[0]);
    if (failed) {
        stop();
        fail("cannot start " + command.front() + ": " + strerror(error));
    }
}

void child_process::stop()
{
    if (pid_ > 0 && !status_) {
        kill(pid_, SIGKILL);
        wait(10s);
    }
    pid_ = -1;
}

std::optional<int> child_process::wait(std::chrono::milliseconds longest)
{
    if (pid_ <= 0) {
        return status_;
    }
    eventually(
        [&] {
            int status = 0;
            if (!status_ && waitpid(pid_, &status, WNOHANG) == pid_) {
                status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            return status_.has_value();
        },
        longest);
    return status_;
}

uint16_t free_port()
{
    const int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (s < 0 || bind(s, reinterpret_cast<sockaddr *>(&address), length) != 0 ||
        getsockname(s, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
        fail("no free UDP port: " + text_of_errno());
    }
    close(s);
    return ntohs(address.sin_port);
}

agent::agent(agent_options options)
    : options_(std::move(options)), description_(directory_.path() / "server" / "server.json")
{
    fs::create_directories(description_.parent_path());
    fs::create_directories(directory_.path() / "state");
    fs::copy_file(fs::path(KAVPLAT_SOURCE_DIR) / options_.description, description_);
    fs::permissions(description_, fs::perms::owner_write, fs::perm_options::add);
    write_file(directory_.path() / "version.dat", options_.version_line);
    write_file(directory_.path() / "snmpd.conf",
               std::string("rocommunity public 127.0.0.1\n"
                           "rwcommunity private 127.0.0.1\n"
                           "dontLogTCPWrappersConnects yes\n"
                           "dlmod entityMIB " KAVPLAT_MODULE "\n"
                           "dlmod kavPlatMIB " KAVPLAT_MODULE "\n") +
                   options_.configuration);
    if (!options_.persistent_state.empty()) {
        write_file(directory_.path() / "state" / "snmpd.conf", options_.persistent_state);
    }
    if (!options_.user.empty()) {
        fs::permissions(directory_.path(), fs::perms(0755));
        give_to(directory_.path() / "state", options_.user);
    }
    options_.redirected_paths.emplace_back("/etc/static_conf/version.dat",
                                           directory_.path() / "version.dat");
    options_.redirected_paths.emplace_back("/coredump/snmpd.stop.entity",
                                           directory_.path() / "stop");
}

agent::~agent()
{
    stop();
    const std::string reports = sanitizer_reports();
    if (!reports.empty()) {
        ADD_FAILURE() << "in the agent:\n" << reports;
    }
    if (testing::Test::HasFailure()) {
        constexpr size_t most = 8000;
        const std::string all = log();
        printf("---- the agent's log%s ----\n%s---- its output ----\n%s----\n",
               all.size() > most ? ", the end of it" : "",
               all.substr(all.size() > most ? all.size() - most : 0).c_str(),
               read_file(directory_.path() / "output").c_str());
    }
}

std::string agent::preloads() const
{
    std::string all = KAVPLAT_SANITIZER_LIBRARY; // has to be the first
    for (const std::string &library : {std::string(KAVPLAT_REDIRECT_LIBRARY), options_.preload}) {
        if (!library.empty()) {
            all += (all.empty() ? "" : ":") + library;
        }
    }
    return all;
}

std::string agent::address() const
{
    return "udp:127.0.0.1:" + std::to_string(port_);
}

std::vector<std::string> agent::command() const
{
    std::vector<std::string> words = {"unshare", "--pid", "--fork", "--kill-child", "--mount-proc"};
    if (geteuid() != 0) {
        words.insert(words.end(), {"--user", "--map-root-user"});
    }
    words.insert(words.end(),
                 {"--", "sh", "-c", options_.daemon ? init_of_daemon : init_of_foreground, "init"});

    const std::string directory = directory_.path();
    std::string paths;
    for (const auto &[from, to] : options_.redirected_paths) {
        paths += from + "=" + to + ":";
    }
    const std::string reports = "log_path=" + directory + "/sanitizer";
    words.insert(words.end(),
                 {"env", "MIBS=", "SNMP_PERSISTENT_DIR=" + directory + "/state",
                  "KAVPLAT_DESCRIPTION=" + description_.string(), "KAVPLAT_TEST_REDIRECT=" + paths,
                  "ASAN_OPTIONS=detect_leaks=0:" + reports,
                  "UBSAN_OPTIONS=print_stacktrace=1:" + reports,
                  "TSAN_OPTIONS=die_after_fork=0:" + reports});
    for (const auto &[name, value] : options_.environment) {
        words.push_back(name + "=" + value);
    }
    // As without it: where the configuration is and where the state is kept.
    words.push_back("SNMPCONFPATH=" + directory + ":" + directory + "/state");
    words.push_back("LD_PRELOAD=" + preloads());
    words.emplace_back(KAVPLAT_SNMPD);
    if (options_.whole_configuration.empty()) {
        words.insert(words.end(), {"-C", "-c", directory + "/snmpd.conf"});
    }
    words.insert(words.end(), {"-Lf", directory + "/log", "-p", directory + "/pid",
                               // It would listen on a port of its own.
                               "-I", "-smux"});
    if (!options_.daemon) {
        words.emplace_back("-f");
    }
    if (!options_.user.empty()) {
        words.insert(words.end(), {"-u", options_.user});
    }
    if (!options_.debug_tokens.empty()) {
        words.push_back("-D" + options_.debug_tokens);
    }
    if (options_.whole_configuration.empty()) {
        words.push_back(address());
    }
    return words;
}

void agent::launch()
{
    port_ = free_port();
    if (!options_.whole_configuration.empty()) {
        constexpr std::string_view place = "udp:127.0.0.1:161\n";
        std::string text = options_.whole_configuration;
        const size_t at = text.find(place);
        if (at == std::string::npos) {
            fail("the configuration listens to something else than " + std::string(place));
        }
        write_file(directory_.path() / "snmpd.conf",
                   text.replace(at, place.size(), address() + "\n"));
    }
    process_.start(command(), directory_.path() / "output");
}

void agent::start()
{
    // Another process may take the port first.
    for (int attempt = 0; attempt < 5; attempt++) {
        fs::remove(directory_.path() / "log");
        launch();
        snmp_client client(port_);
        client.set_timeout(200ms);
        bool answers = false;
        eventually(
            [&] {
                if (!answers && !options_.daemon && !is_running()) {
                    return true;
                }
                answers = answers || client.is_answered();
                return answers && (!options_.wait_for_cache ||
                                   client.answers_getnext({1, 3, 6, 1, 2, 1, 47, 1, 1, 1, 1, 7}));
            },
            60s);
        if (answers && is_running() && (!options_.wait_for_cache || eventually([&] {
                return log_has("local cache ready");
            }))) {
            return;
        }
        if (!log_has("Error opening specified endpoint")) {
            break;
        }
    }
    const std::string output = read_file(directory_.path() / "output");
    fail("no agent" +
         std::string(output.find("unshare") != std::string::npos
                         ? ", since this machine permits no pid namespace (the module ends every "
                           "snmpd that it sees, so there is no other way to test it)"
                         : "") +
         "\n" + output + log());
}

std::string agent::log() const
{
    return read_file(directory_.path() / "log");
}

size_t agent::log_count(const std::string &text) const
{
    const std::string all = log();
    size_t count = 0;
    for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) {
        count++;
    }
    return count;
}

pid_t agent::id() const
{
    return process_.id() > 0 ? descendant(process_.id(), "snmpd") : -1;
}

long agent::memory() const
{
    std::istringstream status(read_file("/proc/" + std::to_string(id()) + "/status"));
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmRSS:")) {
            return std::stol(line.substr(6));
        }
    }
    fail("the agent has no memory figures");
}

std::string agent::sanitizer_reports() const
{
    std::string all;
    for (const fs::directory_entry &entry : fs::directory_iterator(directory_.path())) {
        if (entry.path().filename().string().starts_with("sanitizer")) {
            all += read_file(entry.path());
        }
    }
    for (const char *file : {"log", "output"}) {
        const std::string text = read_file(directory_.path() / file);
        for (const char *sign : {"ERROR: AddressSanitizer", "WARNING: ThreadSanitizer",
                                 "ERROR: LeakSanitizer", ": runtime error: "}) {
            if (text.find(sign) != std::string::npos) {
                all += text;
                break;
            }
        }
    }
    return all;
}
