// What the benchmarks read about the daemon's process: the kernel's CPU
// figures from /proc, and the pass probe preloaded into the daemon, which
// marks each pass of the main loop and counts its CPU time, heap
// allocations and receive calls.
#pragma once

#include "no_copy.h"
#include "daemon.h"
#include "pass_probe.h"
#include "peers.h"

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace q9bench {

/// Deadline for a daemon to come up or to stop, slow under callgrind.
constexpr std::chrono::milliseconds daemon_limit{60000};

/// CPU and scheduling figures of a process.
struct ProcUsage {
    uint64_t runtime_ns = 0;        ///< time on a CPU, from /proc/PID/schedstat
    uint64_t ticks = 0;             ///< utime + stime, from /proc/PID/stat
    uint64_t voluntary_switches = 0;
};
/// The figures of process `pid` now.
ProcUsage proc_usage(pid_t pid);
/// Clock ticks per second of /proc/PID/stat.
long ticks_per_second();

/// The shared file of the pass probe, mapped for reading.
class ProbeReader : q9test::NoCopy {
public:
    /// Creates the file at `path`; the daemon's probe fills it.
    explicit ProbeReader(const std::string& path);
    ~ProbeReader();

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

/// The path for a probe file in the sandbox.
std::string probe_file(const std::string& name);
/// The environment that preloads the pass probe into the daemon, writing to
/// `probe_path`; `passes_only`: the variant that leaves the heap functions
/// and recv alone.
std::vector<std::string> probe_environment(const std::string& probe_path, bool passes_only = false);
/// Writes the minimal configuration and starts the daemon with the pass
/// probe preloaded, writing to `probe_path`; the daemon once it runs, or
/// null (and a line on stderr) when it did not come up.
std::unique_ptr<q9test::Daemon> start_probed_daemon(const std::string& probe_path);

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

}  // namespace q9bench
