#include "harness/agent.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <pwd.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "harness/client.h"

namespace fs = std::filesystem;

namespace
{

using namespace std::chrono_literals;

// The init of an agent's namespace: a signal from inside cannot end process 1,
// so snmpd is not it. Says how snmpd ended, and ends the namespace with it.
constexpr char init_of_foreground[] = R"("$@" & wait $!)";
constexpr char no_init[] = R"(exec "$@")";
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

} // namespace

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
    copy_source(fs::path(KAVPLAT_SOURCE_DIR) / options_.description, description_);
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
    std::vector<std::string> words = in_pid_namespace();
    words.insert(words.end(), {"sh", "-c",
                               options_.is_first_process ? no_init
                               : options_.daemon         ? init_of_daemon
                                                         : init_of_foreground,
                               "init"});

    const std::string directory = directory_.path();
    std::string paths;
    for (const auto &[from, to] : options_.redirected_paths) {
        paths += from + "=" + to + ":";
    }
    const std::string reports = "log_path=" + directory + "/sanitizer";
    words.insert(words.end(),
                 {"env", "MIBS=", "SNMP_PERSISTENT_DIR=" + directory + "/state",
                  "KAVPLAT_DESCRIPTION=" + description_.string(), "KAVPLAT_TEST_REDIRECT=" + paths,
                  "ASAN_OPTIONS=detect_leaks=0:quarantine_size_mb=16:" + reports,
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
    if (options_.logs_to_system) {
        words.emplace_back("-Lsd");
    } else {
        words.insert(words.end(), {"-Lf", directory + "/log"});
    }
    words.insert(words.end(), {"-p", directory + "/pid",
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
    words.insert(words.end(), options_.arguments.begin(), options_.arguments.end());
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
    if (process_.id() > 0) {
        for (const pid_t each : family_of(process_.id())) {
            if (name_of(each) == "snmpd") {
                return each;
            }
        }
    }
    return -1;
}

bool tells_of_a_sanitizer(const std::string &output)
{
    return output.find("Sanitizer") != std::string::npos ||
           output.find(": runtime error: ") != std::string::npos;
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
        if (tells_of_a_sanitizer(text)) {
            all += text;
        }
    }
    return all;
}
