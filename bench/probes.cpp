#include "probes.h"

#include "files.h"
#include "proc.h"
#include "stats.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <sstream>

namespace q9bench {

ProcUsage proc_usage(pid_t pid)
{
    ProcUsage usage;
    std::string base = "/proc/" + std::to_string(pid);
    std::istringstream(q9test::read_file(base + "/schedstat")) >> usage.runtime_ns;
    usage.ticks = static_cast<uint64_t>(q9test::cpu_ticks(pid));
    std::string switches = q9test::status_field(pid, "voluntary_ctxt_switches");
    if (!switches.empty())
        usage.voluntary_switches = std::stoull(switches);
    return usage;
}

long ticks_per_second()
{
    return sysconf(_SC_CLK_TCK);
}

ProbeReader::ProbeReader::ProbeReader(const std::string& path)
{
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return;
    void* shared = MAP_FAILED;
    if (ftruncate(fd, sizeof(PassProbeData)) == 0)
        shared = mmap(nullptr, sizeof(PassProbeData), PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    if (shared != MAP_FAILED)
        data_ = static_cast<const PassProbeData*>(shared);
}

ProbeReader::~ProbeReader()
{
    if (data_ != nullptr)
        munmap(const_cast<PassProbeData*>(data_), sizeof(PassProbeData));
}

uint64_t ProbeReader::passes() const
{
    return data_ ? __atomic_load_n(&data_->passes, __ATOMIC_ACQUIRE) : 0;
}

uint64_t ProbeReader::allocations() const
{
    return data_ ? __atomic_load_n(&data_->allocations, __ATOMIC_RELAXED) : 0;
}

int64_t ProbeReader::live_blocks() const
{
    return data_ ? __atomic_load_n(&data_->live_blocks, __ATOMIC_RELAXED) : 0;
}

std::vector<PassRecord> ProbeReader::records(uint64_t first, uint64_t last) const
{
    std::vector<PassRecord> out;
    if (data_ == nullptr)
        return out;
    last = std::min(last, passes());
    if (last > pass_ring_size)
        first = std::max(first, last - pass_ring_size);
    for (uint64_t pass = first; pass < last; ++pass)
        out.push_back(data_->ring[pass % pass_ring_size]);
    return out;
}

bool ProbeReader::wait_passes(uint64_t since, uint64_t count) const
{
    return q9test::wait_until([&] { return passes() >= since + count; },
                              std::chrono::milliseconds(60000 + 1000 * count));
}

std::string probe_file(const std::string& name)
{
    return q9test::work_dir() + "/" + name + ".probe";
}

std::vector<std::string> probe_environment(const std::string& probe_path, bool passes_only)
{
    std::string library = passes_only ? Q9_PASS_PROBE_PASSES_ONLY_LIBRARY : Q9_PASS_PROBE_LIBRARY;
    return {"LD_PRELOAD=" + library, std::string(pass_probe_env) + "=" + probe_path};
}

std::unique_ptr<q9test::Daemon> start_probed_daemon(const std::string& probe_path)
{
    q9test::write_config(q9test::minimal_config());
    auto daemon = std::make_unique<q9test::Daemon>(std::vector<std::string>{}, std::vector<std::string>{},
                                                   probe_environment(probe_path));
    if (daemon->wait_until_running(daemon_limit))
        return daemon;
    fprintf(stderr, "%s: the daemon did not come up\n", program_invocation_short_name);
    return nullptr;
}

namespace {

// Waits for the next pass border and returns right after it, while the
// daemon sleeps.
uint64_t next_pass_border(const ProbeReader& probe)
{
    uint64_t passes = probe.passes();
    q9test::wait_until([&] { return probe.passes() > passes; }, std::chrono::milliseconds(60000));
    return probe.passes();
}

}  // namespace

PassWindow measure_passes(const ProbeReader& probe, pid_t pid, uint64_t passes,
                          const FullIntake* intake)
{
    PassWindow window;
    uint64_t first = next_pass_border(probe);
    double start = now_us();
    ProcUsage before = proc_usage(pid);
    uint64_t allocations_before = probe.allocations();
    int64_t live_before = probe.live_blocks();
    std::vector<uint64_t> consumed_before = intake ? intake->consumed() : std::vector<uint64_t>();
    probe.wait_passes(first, passes);
    uint64_t last = probe.passes();
    double end = now_us();
    ProcUsage after = proc_usage(pid);
    window.allocations = probe.allocations() - allocations_before;
    window.kept_blocks = probe.live_blocks() - live_before;
    std::vector<uint64_t> consumed_after = intake ? intake->consumed() : std::vector<uint64_t>();
    window.passes = last - first;
    window.elapsed_us = end - start;
    window.usage.runtime_ns = after.runtime_ns - before.runtime_ns;
    window.usage.ticks = after.ticks - before.ticks;
    window.usage.voluntary_switches = after.voluntary_switches - before.voluntary_switches;
    window.records = probe.records(first, last);
    for (size_t i = 0; i < consumed_after.size(); ++i)
        window.consumed.push_back(consumed_after[i] - consumed_before[i]);
    return window;
}

}  // namespace q9bench
