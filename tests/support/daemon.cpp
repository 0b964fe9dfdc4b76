#include "daemon.h"

#include "files.h"
#include "proc.h"
#include "text.h"

#include <signal.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <sstream>

namespace q9test {

namespace {

std::string next_stderr_path()
{
    static int runs = 0;
    return work_dir() + "/daemon-" + std::to_string(++runs) + ".stderr";
}

std::vector<std::string> daemon_command(std::vector<std::string> wrapper,
                                        const std::vector<std::string>& args)
{
    wrapper.push_back(daemon_copy());
    wrapper.insert(wrapper.end(), args.begin(), args.end());
    return wrapper;
}

// Whether signal `signo` still waits for process `pid` to take it.
// Whether `signo` is set in any of the signal masks of /proc/PID/status
// named `fields` ("SigPnd:", "SigCgt:", ...).
bool in_signal_masks(pid_t pid, int signo, std::initializer_list<const char*> fields)
{
    std::istringstream status(read_file("/proc/" + std::to_string(pid) + "/status"));
    unsigned long long bit = 1ull << (signo - 1);
    unsigned long long masks = 0;
    std::string line;
    while (std::getline(status, line)) {
        for (const char* field : fields)
            if (line.rfind(field, 0) == 0)
                masks |= std::stoull(line.substr(7), nullptr, 16);
    }
    return (masks & bit) != 0;
}

bool signal_pending(pid_t pid, int signo)
{
    return in_signal_masks(pid, signo, {"SigPnd:", "ShdPnd:"});
}

}  // namespace

// The waking run of the system tests puts its [daemon] table under every
// configuration that has none of its own; under it, so that the lines of
// the test's own text keep their numbers.
void write_config(const std::string& content)
{
    if (std::getenv("Q9_TEST_WAKE_ON_INPUT") == nullptr || content.find("[daemon]") != std::string::npos)
        write_file(config_path, content);
    else
        write_file(config_path, content + "\n[daemon]\nwake_on_input = true\n");
}

std::string minimal_config()
{
    return "[channel1]\n"
           "\"watch path\" = \"/srv/events\"\n"
           "\"asset path\" = \"/srv/assets\"\n"
           "\"target channel\" = 1\n";
}

std::string config_with_daemon_keys(const std::string& keys)
{
    std::string table = "\n[daemon]\n" + keys;
    if (std::getenv("Q9_TEST_WAKE_ON_INPUT") != nullptr)
        table += "wake_on_input = true\n";
    return minimal_config() + table;
}

std::string daemon_copy()
{
    static std::string copy;
    if (!copy.empty())
        return copy;
    copy = work_dir() + "/q9_korvane_xml_events_d";
    std::ifstream in(Q9_DAEMON_BINARY, std::ios::binary);
    std::ofstream out(copy, std::ios::binary | std::ios::trunc);
    out << in.rdbuf();
    out.close();
    chmod(copy.c_str(), 0755);
    return copy;
}

bool daemon_ready()
{
    struct stat info {};
    return !read_file(pid_path).empty() && stat(service_path, &info) == 0 &&
           tcp_port_listening(trigger_port);
}

bool stop_dump_keeps_only_lock_and_syslog(const std::string& err)
{
    size_t start = err.find("fd 0 -> ");
    if (start == std::string::npos)
        return false;
    std::string dump = err.substr(start);
    return dump.rfind("fd 0 -> /dev/null\n"
                      "fd 1 -> /dev/null\n"
                      "fd 2 -> /run/q9-test/daemon-1.stderr\n"
                      "fd 3 -> /run/q9-test/q9_korvane_xml_events_d\n"
                      "fd 5 -> socket:[",
                      0) == 0 &&
           count_of(dump, "socket:") == 1 && dump.find("]\n5 open file descriptors\n") != std::string::npos;
}

Daemon::Daemon(std::vector<std::string> args) : Daemon(std::move(args), {}, {}) {}

Daemon::Daemon(std::vector<std::string> args, std::vector<std::string> wrapper,
               const std::vector<std::string>& environment)
    : ChildProcess(daemon_command(std::move(wrapper), args), "/dev/null", next_stderr_path(), environment)
{
}

Daemon::Daemon(const ManagerSockets& sockets) : Daemon(sockets.handover()) {}

Daemon::Daemon(const Handover& handover)
    : ChildProcess(daemon_command({}, {}), "/dev/null", next_stderr_path(), handover.environment, handover.fds)
{
}

// The PID file and the sockets come before the signal handlers: until the
// daemon catches SIGHUP, a reload request would end it.
bool Daemon::wait_until_running(std::chrono::milliseconds limit) const
{
    return wait_until([&] { return daemon_ready() && in_signal_masks(pid(), SIGHUP, {"SigCgt:"}); },
                      limit);
}

bool Daemon::wait_until_serving(std::chrono::milliseconds limit) const
{
    return wait_until(
        [&] {
            return read_file(pid_path) == std::to_string(pid()) + "\n" &&
                   in_signal_masks(pid(), SIGHUP, {"SigCgt:"});
        },
        limit);
}

bool Daemon::deliver(int signo) const
{
    signal(signo);
    return wait_until([&] { return !signal_pending(pid(), signo); });
}

int Daemon::stop(std::chrono::milliseconds limit)
{
    signal(SIGTERM);
    return wait_exit(limit);
}

std::pair<int, std::string> run_daemon_to_end(std::vector<std::string> args)
{
    Daemon daemon(std::move(args));
    int status = daemon.wait_exit();
    return {status, daemon.stderr_text()};
}

}  // namespace q9test
