// What the benchmark programs share: statistics and Markdown tables, a look
// at the daemon's process from /proc, the daemon under a tool, and the
// daemon's peers (TCP trigger senders, local listeners, the media-item
// service) that record when things happen.
//
// Every benchmark runs inside the test sandbox, so the daemon runs at its
// fixed paths and port.
#pragma once

#include "harness.h"
#include "pass_probe.h"

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace q9bench {

using Clock = std::chrono::steady_clock;

/// Microseconds of the monotonic clock (the same clock as the daemon's).
double now_us();
/// Sleeps for `ms` milliseconds.
void sleep_ms(double ms);

// Statistics and tables -----------------------------------------------------

/// Order statistics of a sample.
struct Summary {
    size_t count = 0;
    double min = 0, p50 = 0, p90 = 0, p99 = 0, max = 0, mean = 0;
};
/// The summary of `samples` (nearest-rank percentiles); all zero when empty.
Summary summarize(std::vector<double> samples);

/// A Markdown table, printed on standard output.
class Table {
public:
    explicit Table(std::vector<std::string> header);
    void add(std::vector<std::string> row);
    void print() const;

private:
    std::vector<std::string> header_;
    std::vector<std::vector<std::string>> rows_;
};

/// `value` with `decimals` digits after the point.
std::string fixed(double value, int decimals = 1);
/// An integer with thousands separated by commas.
std::string grouped(uint64_t value);
/// The row cells of a summary in the given unit: count, min, p50, p90, p99, max, mean.
std::vector<std::string> summary_cells(const Summary& summary, double unit = 1.0, int decimals = 1);
/// Prints a Markdown section heading and an optional paragraph.
void heading(const std::string& title, const std::string& text = "");

// The daemon's process ------------------------------------------------------

/// CPU and scheduling figures of a process.
struct ProcUsage {
    uint64_t runtime_ns = 0;        ///< time on a CPU, from /proc/PID/schedstat
    uint64_t ticks = 0;             ///< utime + stime, from /proc/PID/stat
    uint64_t voluntary_switches = 0;
};
ProcUsage proc_usage(pid_t pid);
/// Resident set size in KiB (VmRSS), and the peak (VmHWM).
std::pair<long, long> resident_kib(pid_t pid);
/// A KiB field of /proc/PID/status such as "RssAnon", or -1.
long status_kib(pid_t pid, const char* field);
/// Number of open descriptors.
int descriptor_count(pid_t pid);
/// Clock ticks per second of /proc/PID/stat.
long ticks_per_second();

/// The shared file of the pass probe, mapped for reading.
class ProbeReader {
public:
    /// Creates the file at `path`; the daemon's probe fills it.
    explicit ProbeReader(const std::string& path);
    ~ProbeReader();
    ProbeReader(const ProbeReader&) = delete;
    ProbeReader& operator=(const ProbeReader&) = delete;

    uint64_t passes() const;
    uint64_t allocations() const;
    int64_t live_blocks() const;
    /// Records of passes [first, last); only the newest pass_ring_size are kept.
    std::vector<PassRecord> records(uint64_t first, uint64_t last) const;
    /// Waits until `count` more passes than `since` have been recorded.
    bool wait_passes(uint64_t since, uint64_t count) const;

private:
    const PassProbeData* data_ = nullptr;
};

/// The path of the pass probe library; `passes_only`: the variant that
/// leaves the heap functions and recv alone.
std::string pass_probe_library(bool passes_only = false);

/// A daemon run that the harness does not cover: under a tool such as
/// valgrind (`wrapper` before the daemon) and with extra environment.
class ToolDaemon {
public:
    ToolDaemon(std::vector<std::string> wrapper, std::vector<std::string> environment);
    ~ToolDaemon();
    ToolDaemon(const ToolDaemon&) = delete;
    ToolDaemon& operator=(const ToolDaemon&) = delete;

    /// Sends SIGTERM and waits for the end; the exit status, or -1.
    int stop(std::chrono::milliseconds limit = std::chrono::milliseconds(60000));

private:
    pid_t pid_ = -1;
};

/// Writes a configuration with one valid section.
void write_minimal_config();
/// Waits until the daemon listens on all its interfaces.
bool wait_daemon_ready(std::chrono::milliseconds limit = std::chrono::milliseconds(60000));
/// Stops a harness daemon in order (SIGTERM) and returns its exit status.
int stop_daemon(q9test::Daemon& daemon);
/// Starts the daemon (harness) with the pass probe preloaded, writing to the
/// probe file at `probe_path`.
std::unique_ptr<q9test::Daemon> start_probed_daemon(const std::string& probe_path);
/// The path for a probe file in the sandbox.
std::string probe_file(const std::string& name);

// The daemon's peers --------------------------------------------------------

/// A TCP connection to the trigger port with TCP_NODELAY, non-blocking.
class TriggerConnection {
public:
    TriggerConnection();
    ~TriggerConnection();
    TriggerConnection(const TriggerConnection&) = delete;
    TriggerConnection& operator=(const TriggerConnection&) = delete;

    int fd() const { return fd_; }
    bool connected() const { return fd_ >= 0; }
    /// Local port, to find the connection in /proc/net/tcp.
    int local_port() const;

private:
    int fd_ = -1;
};

/// Bytes still in the kernel on the way from the client on `client_port` to
/// the daemon: unsent or unacknowledged at the client, and unread at the
/// daemon, from /proc/net/tcp.
uint64_t bytes_in_flight_to_daemon(int client_port);

/// Four (or `count`) TCP peers sending `payload` over and over as fast as
/// the daemon reads, each from its own thread, reading and dropping what the
/// daemon answers.
class FullIntake {
public:
    FullIntake(const std::string& payload, size_t count = 4);
    /// Stops the peers and resets their connections, so the daemon does not
    /// go on reading what is still buffered.
    ~FullIntake();
    FullIntake(const FullIntake&) = delete;
    FullIntake& operator=(const FullIntake&) = delete;

    bool connected() const;
    /// Bytes the daemon has read from each connection so far.
    std::vector<uint64_t> consumed() const;
    /// Bytes the daemon has sent back on all connections so far.
    uint64_t answered() const { return answered_.load(); }

private:
    void run(size_t index);

    std::string chunk_;
    std::vector<std::unique_ptr<TriggerConnection>> connections_;
    std::unique_ptr<std::atomic<uint64_t>[]> sent_;
    std::atomic<uint64_t> answered_{0};
    std::atomic<bool> stop_{false};
    std::vector<std::thread> threads_;
};

/// What happened in the daemon over a whole number of passes.
struct PassWindow {
    uint64_t passes = 0;
    double elapsed_us = 0;
    ProcUsage usage;                 ///< differences over the window
    std::vector<PassRecord> records; ///< one per pass, from the probe
    std::vector<uint64_t> consumed;  ///< bytes read per intake connection
    uint64_t allocations = 0;        ///< heap allocations over the window, from the probe
    int64_t kept_blocks = 0;         ///< change of the live heap blocks over the window
};
/// Measures `passes` passes, from one pass border to another: sampled while
/// the daemon sleeps, when it reads nothing.  `intake` may be null.
PassWindow measure_passes(const ProbeReader& probe, pid_t pid, uint64_t passes,
                          const FullIntake* intake = nullptr);

/// The media-item service at its fixed socket: takes every "start" request
/// the daemon's media-item library sends (one connection each) and records,
/// in order, when each connection came in.
class MediaItemService {
public:
    MediaItemService();
    ~MediaItemService();
    MediaItemService(const MediaItemService&) = delete;
    MediaItemService& operator=(const MediaItemService&) = delete;

    bool listening() const { return fd_ >= 0; }
    /// Arrival times (now_us) of the start requests so far.
    std::vector<double> arrivals() const;
    /// Requests received that were not a "start" frame.
    int malformed() const { return malformed_.load(); }
    void clear();

private:
    void serve();

    int fd_ = -1;
    std::atomic<bool> stop_{false};
    std::atomic<int> malformed_{0};
    mutable std::mutex mutex_;
    std::vector<double> arrivals_;
    std::thread thread_;
};

/// One received notify, as a listener saw it.
struct Notification {
    double at_us;        ///< when the listener took it from its socket
    size_t client;       ///< which of the group's clients
    std::string seq;     ///< the value of the pair "seq", or empty
};

/// Local clients registered for every trigger, served by one thread that
/// waits on all their sockets and records each notify as it arrives.
class ListenerGroup {
public:
    /// Connects `count` clients and registers each with "triggers" = "*".
    /// With `keep` false, notifications are only counted.
    ListenerGroup(size_t count, bool keep = true);
    ~ListenerGroup();
    ListenerGroup(const ListenerGroup&) = delete;
    ListenerGroup& operator=(const ListenerGroup&) = delete;

    bool ready() const { return ready_; }
    uint64_t received() const { return received_.load(); }
    std::vector<Notification> notifications() const;
    void clear();

private:
    void serve();

    std::vector<comm_socket_v4*> sockets_;
    bool keep_;
    bool ready_ = false;
    std::atomic<bool> stop_{false};
    std::atomic<uint64_t> received_{0};
    mutable std::mutex mutex_;
    std::vector<Notification> notifications_;
    std::thread thread_;
};

/// One request to the command service from a fresh client, waiting for the
/// reply; true when the reply said "OK".
bool service_request(const std::string& command,
                     const std::vector<std::pair<std::string, std::string>>& pairs);

/// Starts q9_appliance_sim with `args` (stdout to /dev/null); its pid.
pid_t start_simulator(const std::vector<std::string>& args);
/// Ends a simulator started by start_simulator.
void stop_simulator(pid_t pid);

}  // namespace q9bench
