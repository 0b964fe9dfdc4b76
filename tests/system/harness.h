// Black-box test harness: runs the real daemon inside the test sandbox and
// looks at it only from outside (stderr, syslog, files, signals, sockets).
#pragma once

#include "comm_socket_v4.h"

#include <sys/types.h>

#include <chrono>
#include <ctime>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace q9test {

using Clock = std::chrono::steady_clock;
/// Deadline for conditions that normally hold within a pass or two; generous
/// because test machines are shared and slow under the sanitizers.
constexpr std::chrono::milliseconds default_wait{15000};

constexpr const char* config_path = "/etc/q9_korvane_xml_events_d.toml";
constexpr const char* pid_path = "/var/run/q9_korvane_xml_events_d.pid";
constexpr const char* service_path = "/var/run/q9_korvane_xml_events_d.service";
constexpr const char* rendermgr_root = "/mnt/main/tv/rendermgr";

/// Polls `condition` every few milliseconds until it holds or `limit` passes.
template <typename Condition>
bool wait_until(Condition condition, std::chrono::milliseconds limit = default_wait);

/// Contents of a file, or "" when it cannot be read.
std::string read_file(const std::string& path);
/// Writes `content` to `path`, replacing it.
void write_file(const std::string& path, const std::string& content);
/// Writes the daemon's configuration file; when $Q9_TEST_WAKE_ON_INPUT is
/// set and `content` has no [daemon] table, a table switching
/// wake_on_input on follows `content`.
void write_config(const std::string& content);
/// A configuration with one valid section, enough for a normal start.
std::string minimal_config();

/// Everything logged to the sandbox's syslog so far, one record per line.
std::string syslog_text();
/// Number of syslog records containing `text`.
int syslog_count(const std::string& text);

/// Whether the descriptor dump that the first daemon of the sandbox wrote
/// to its stderr `err` at stop lists only what a stopped daemon keeps: the
/// standard three, the lock on its executable and the syslog connection.
bool stop_dump_keeps_only_lock_and_syslog(const std::string& err);

/// Starts `argv` (searched in PATH) in a child process: standard input
/// from /dev/null, standard output and error appended to nothing but the
/// given files, no other descriptor inherited, `environment` ("NAME=VALUE")
/// added.  The child's pid.
pid_t spawn(const std::vector<std::string>& argv, const std::string& stdout_path,
            const std::string& stderr_path, const std::vector<std::string>& environment = {});
/// A waitpid() status as a shell shows it: the exit status, or 128 + the
/// signal that ended the process.
int decode_status(int status);

/// Number of non-overlapping occurrences of `needle` in `haystack`.
int count_of(const std::string& haystack, const std::string& needle);

/// One run of the daemon binary.  The binary is copied into the sandbox
/// first (the single-instance lock is on the executable file, so every
/// sandbox needs its own copy); all runs of one test share that copy.
class Daemon {
public:
    explicit Daemon(std::vector<std::string> args = {});
    /// Kills the daemon if it still runs.
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    pid_t pid() const { return pid_; }
    /// Everything the daemon wrote to stderr so far.
    std::string stderr_text() const;
    /// Waits until stderr contains `text` (`times` occurrences).
    bool wait_for_stderr(const std::string& text, int times = 1,
                         std::chrono::milliseconds limit = default_wait) const;
    /// Waits until the daemon runs its main loop: PID file written, service
    /// socket and TCP port listening.
    bool wait_until_running(std::chrono::milliseconds limit = default_wait) const;
    /// Sends a signal.
    void signal(int signo) const;
    /// Sends a signal and waits until the process has taken it, so that a
    /// next one of the same kind is not merged with it.
    bool deliver(int signo) const;
    /// Waits for the process to end: its exit status, or 128 + the signal
    /// that ended it, or -1 when it still runs at the deadline.
    int wait_exit(std::chrono::milliseconds limit = default_wait);
    /// True while the process has not ended.
    bool running();

private:
    pid_t pid_ = -1;
    int status_ = -1;
    std::string stderr_path_;
};

/// Runs the daemon with `args` to its end; returns its exit status and stderr.
std::pair<int, std::string> run_daemon_to_end(std::vector<std::string> args = {});

/// A TCP connection to the daemon's trigger port.
class TcpPeer {
public:
    /// Connects to 127.0.0.1:9876 (waits for the connect to complete).
    TcpPeer();
    ~TcpPeer();
    TcpPeer(const TcpPeer&) = delete;
    TcpPeer& operator=(const TcpPeer&) = delete;

    bool connected() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    /// Sends all of `bytes`.
    bool send(const std::string& bytes);
    /// Reads until `count` bytes arrived or the deadline passed.
    std::string receive(size_t count, std::chrono::milliseconds limit = default_wait);
    /// The bytes that have already arrived, without waiting for more.
    std::string available();
    /// True when the daemon closed the connection by the deadline.
    bool wait_closed(std::chrono::milliseconds limit = default_wait);
    /// Closes the connection.
    void close();

private:
    int fd_ = -1;
};

/// One received packet, copied out of the library's record.
struct Packet {
    std::string command;
    std::string status;
    std::vector<std::string> arguments;
    std::vector<std::pair<std::string, std::string>> pairs;
    uint8_t flags = 0;
    uint64_t reference = 0;
    int64_t result = 0;
};

/// A local program connected to the daemon's command service.
class ServiceClient {
public:
    /// Connects to the service socket (waits for the connection).
    explicit ServiceClient(const std::string& path = service_path);
    ~ServiceClient();
    ServiceClient(const ServiceClient&) = delete;
    ServiceClient& operator=(const ServiceClient&) = delete;

    bool connected() const;
    /// Sends one request; `reply_wanted` sets flags bit 0, bit 1 is always set.
    bool send(const std::string& command, const std::vector<std::pair<std::string, std::string>>& pairs = {},
              bool reply_wanted = true, uint64_t reference = 0);
    /// Sends one request with exactly `flags` in its header and `arguments`
    /// in its argument list.
    bool send_packet(uint8_t flags, uint64_t reference, const std::string& command,
                     const std::vector<std::string>& arguments,
                     const std::vector<std::pair<std::string, std::string>>& pairs);
    /// The next packet from the daemon, or false at the deadline.
    bool receive(Packet& packet, std::chrono::milliseconds limit = default_wait);
    /// send() and then receive() of the reply.
    bool request(Packet& reply, const std::string& command,
                 const std::vector<std::pair<std::string, std::string>>& pairs = {},
                 uint64_t reference = 0);

private:
    comm_socket_v4* sock_ = nullptr;
};

/// The wire bytes of one request to the command service, for peers that
/// write raw bytes.
std::string request_frame(uint8_t flags, const std::string& command,
                          const std::vector<std::pair<std::string, std::string>>& pairs = {});
/// A plain blocking stream connection to the command service; -1 on failure.
int raw_service_connection();

template <typename Condition>
bool wait_until(Condition condition, std::chrono::milliseconds limit)
{
    auto deadline = Clock::now() + limit;
    for (;;) {
        if (condition())
            return true;
        if (Clock::now() >= deadline)
            return false;
        struct timespec pause = {0, 5 * 1000 * 1000};
        nanosleep(&pause, nullptr);
    }
}

}  // namespace q9test
