// The daemon binary run inside the test sandbox, at its fixed paths and
// port, and looked at only from outside (stderr, files, signals, sockets).
#pragma once

#include "fixed_paths.h"

#include "manager_sockets.h"
#include "process.h"

#include <string>
#include <utility>
#include <vector>

namespace q9test {

constexpr const char* config_path = DAEMON_CONFIGURATION_PATH;
constexpr const char* pid_path = DAEMON_PID_PATH;
constexpr const char* service_path = DAEMON_SERVICE_PATH;
constexpr const char* rendermgr_root = RENDERMGR_ROOT;
constexpr int trigger_port = 9876;

/// Writes the daemon's configuration file; when $Q9_TEST_WAKE_ON_INPUT is
/// set and `content` has no [daemon] table, a table switching
/// wake_on_input on follows `content`.
void write_config(const std::string& content);
/// A configuration with one valid section, enough for a normal start.
std::string minimal_config();
/// minimal_config() with a [daemon] table of `keys` (TOML lines), and
/// wake_on_input on as well when $Q9_TEST_WAKE_ON_INPUT is set, so that a
/// suite with its own settings still runs in the loop the run asks for.
std::string config_with_daemon_keys(const std::string& keys);

/// The sandbox's private copy of the daemon binary, made on first use: the
/// single-instance lock is on the executable file, so every sandbox needs
/// its own copy; all runs of one test share it.
std::string daemon_copy();

/// Whether the daemon runs its main loop: PID file written, service socket
/// and TCP port listening.
bool daemon_ready();

/// Whether the descriptor dump that the first daemon of the sandbox wrote
/// to its stderr `err` at stop lists only what a stopped daemon keeps: the
/// standard three, the lock on its executable and the syslog connection.
bool stop_dump_keeps_only_lock_and_syslog(const std::string& err);

/// One run of the daemon copy, standard output to /dev/null and standard
/// error to a file of its own.
class Daemon : public ChildProcess {
public:
    explicit Daemon(std::vector<std::string> args = {});
    /// The daemon under a tool (`wrapper` before the daemon, valgrind for
    /// instance) with `environment` ("NAME=VALUE") added.
    Daemon(std::vector<std::string> args, std::vector<std::string> wrapper,
           const std::vector<std::string>& environment);
    /// The daemon started on the sockets of a service manager: `sockets`
    /// handed over with their names.
    explicit Daemon(const ManagerSockets& sockets);
    /// The daemon started as a service manager starts it: the descriptors
    /// of `handover` handed over, its environment added.
    explicit Daemon(const Handover& handover);

    /// Waits until daemon_ready() holds and the daemon has its signal
    /// handlers in place.
    bool wait_until_running(std::chrono::milliseconds limit = default_wait) const;
    /// Waits until the daemon has written its PID file and put its signal
    /// handlers in place: it serves every socket by then, also one handed
    /// over at another port or path than its own.
    bool wait_until_serving(std::chrono::milliseconds limit = default_wait) const;
    /// Sends a signal and waits until the process has taken it, so that a
    /// next one of the same kind is not merged with it.
    bool deliver(int signo) const;
    /// Stops the daemon in order (SIGTERM) and waits for its end: as wait_exit().
    int stop(std::chrono::milliseconds limit = default_wait);
};

/// Runs the daemon with `args` to its end; returns its exit status and stderr.
std::pair<int, std::string> run_daemon_to_end(std::vector<std::string> args = {});

}  // namespace q9test
