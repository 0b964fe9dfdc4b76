// Cost of one pass of the main loop: CPU time and heap allocations, idle and
// under load (four peers at full intake, 64 listening local clients, 16
// render-manager channels).
//
// Two ways of counting CPU time.  From outside, the kernel's figures for the
// unmodified daemon: run time in nanoseconds (/proc/PID/schedstat) and
// utime+stime in clock ticks (/proc/PID/stat), divided by the passes of the
// window; idle, each pass sleeps exactly once, so the passes are the
// voluntary context switches.  From inside, the pass probe preloaded into the
// daemon reads the thread's CPU clock at each pass border and counts every
// heap allocation, giving each pass's own figures.  The probe's own work per
// pass (four clock reads) is part of what it measures; the difference of the
// two idle rows shows how much that is.
#include "command_line.h"
#include "daemon/pass_limits.h"
#include "peers.h"
#include "probes.h"
#include "stats.h"
#include "fixed_paths.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

using namespace q9bench;

namespace {

constexpr size_t listeners = 64;
constexpr int channels = 16;

std::vector<std::string> probe_cells(const PassWindow& window)
{
    std::vector<double> cpu, wall;
    uint64_t allocations = 0, bytes = 0, allocating = 0, most = 0;
    for (const PassRecord& record : window.records) {
        cpu.push_back(record.cpu_ns / 1e3);
        wall.push_back(record.wall_ns / 1e3);
        allocations += record.allocations;
        bytes += record.bytes;
        allocating += record.allocations > 0;
        most = std::max(most, record.allocations);
    }
    Summary c = summarize(cpu);
    Summary w = summarize(wall);
    double passes = static_cast<double>(window.records.size());
    std::string which = grouped(allocating) + " of " + grouped(window.records.size());
    if (allocating > 0)
        which += "; each " + grouped(allocations / allocating) + " allocations, " +
                 grouped(bytes / allocating) + " B (max " + grouped(most) + ")";
    return {fixed(c.p50, 1), fixed(c.p90, 1), fixed(c.p99, 1), fixed(c.max, 1), fixed(w.p50, 1),
            fixed(allocations / passes, 2), grouped(static_cast<uint64_t>(bytes / passes)), which,
            std::to_string(window.kept_blocks)};
}

std::vector<std::string> kernel_cells(const PassWindow& window, uint64_t passes)
{
    double per_pass_us = window.usage.runtime_ns / 1e3 / passes;
    double ticks_us = window.usage.ticks * 1e6 / ticks_per_second() / passes;
    return {grouped(passes), fixed(per_pass_us, 1), fixed(ticks_us, 0)};
}

// The unmodified daemon, idle: only the kernel's figures.
std::vector<std::string> idle_unprobed(uint64_t passes_measured)
{
    q9test::write_config(q9test::minimal_config());
    q9test::Daemon daemon;
    daemon.wait_until_running(daemon_limit);
    sleep_ms(1000);
    PassWindow window;
    ProcUsage before = proc_usage(daemon.pid());
    double start = now_us();
    sleep_ms(passes_measured * pass_interval_us / 1000.0);
    ProcUsage after = proc_usage(daemon.pid());
    window.elapsed_us = now_us() - start;
    window.usage.runtime_ns = after.runtime_ns - before.runtime_ns;
    window.usage.ticks = after.ticks - before.ticks;
    uint64_t passes = after.voluntary_switches - before.voluntary_switches;
    daemon.stop(daemon_limit);
    std::vector<std::string> row = {"idle, without probe"};
    auto kernel = kernel_cells(window, passes);
    row.insert(row.end(), kernel.begin(), kernel.end());
    row.insert(row.end(), {"-", "-", "-", "-", "-", "-", "-", "-", "-"});
    return row;
}

// The daemon with the probe; `load` runs while it is measured.
template <typename Load>
std::vector<std::string> probed(const std::string& name, uint64_t passes_measured, bool idle,
                                Load load)
{
    std::string probe_path = probe_file("pass_cost");
    ProbeReader probe(probe_path);
    auto daemon = start_probed_daemon(probe_path);
    std::vector<std::string> row = {name};
    if (!daemon)
        return row;
    load(*daemon, [&](const FullIntake* intake) {
        probe.wait_passes(probe.passes(), 4);
        PassWindow window = measure_passes(probe, daemon->pid(), passes_measured, intake);
        // Idle, every pass sleeps once and nothing else waits.
        uint64_t passes = idle ? window.usage.voluntary_switches : window.passes;
        auto kernel = kernel_cells(window, passes);
        row.insert(row.end(), kernel.begin(), kernel.end());
        auto inside = probe_cells(window);
        row.insert(row.end(), inside.begin(), inside.end());
    });
    daemon->stop(daemon_limit);
    return row;
}

template <typename Measure>
void under_load(q9test::Daemon& daemon, const std::string& payload, Measure measure)
{
    daemon.wait_for_stderr("connection open", channels);
    ListenerGroup group(listeners, false);
    FullIntake intake(payload);
    if (!group.ready() || !intake.connected()) {
        fprintf(stderr, "pass_cost: the load could not be set up\n");
        return;
    }
    measure(&intake);
    fprintf(stderr, "pass_cost: %s load: %llu notifies received by the listeners\n",
            payload == "\n" ? "blank-line" : "trigger",
            static_cast<unsigned long long>(group.received()));
}

// What single system calls of an idle pass cost on this machine, measured
// in this process: they explain most of an idle pass.
void system_call_costs()
{
    constexpr int calls = 100000;
    int listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    listen(listener, 4);
    int pair[2];
    socketpair(AF_UNIX, SOCK_STREAM, 0, pair);
    auto time_calls = [&](auto call) {
        double start = now_us();
        for (int i = 0; i < calls; ++i)
            call(i);
        return (now_us() - start) / calls;
    };
    double poll_us = time_calls([&](int) {
        pollfd ready{pair[0], POLLIN, 0};
        poll(&ready, 1, 0);
    });
    double accept_us = time_calls([&](int) { accept(listener, nullptr, nullptr); });
    std::string filler(50000, '\n');
    double recv_us = time_calls([&](int i) {
        if (i % 50000 == 0 && write(pair[1], filler.data(), filler.size()) < 0)
            return;
        char byte;
        recv(pair[0], &byte, 1, MSG_DONTWAIT);
    });
    timespec cpu_before, cpu_after;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu_before);
    for (int i = 0; i < 1000; ++i) {
        timespec pause = {0, 1000};
        nanosleep(&pause, nullptr);
    }
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu_after);
    double sleep_us = ((cpu_after.tv_sec - cpu_before.tv_sec) * 1e9 +
                       (cpu_after.tv_nsec - cpu_before.tv_nsec)) / 1e3 / 1000;
    close(listener);
    close(pair[0]);
    close(pair[1]);

    heading("System calls on this machine",
            "Wall time per call in a loop in the benchmark process (CPU time for the sleep), to "
            "read the pass figures by: a pass is mostly system calls. An idle pass polls the "
            "command server and the trigger listener ten times each and sleeps once; an "
            "`accept` that finds nothing is dear because the kernel builds a socket and drops it "
            "again. The intake table counts the receive calls of a pass.");
    Table table({"call", "µs per call"});
    table.add({"`poll` of one socket, timeout 0", fixed(poll_us, 2)});
    table.add({"`accept` on a non-blocking TCP listener with nothing pending", fixed(accept_us, 2)});
    table.add({"`recv` of one byte from a socket holding data", fixed(recv_us, 2)});
    table.add({"`nanosleep` of 1 µs, CPU time", fixed(sleep_us, 2)});
    table.print();
}

}  // namespace

int main(int argc, char** argv)
{
    auto passes_measured = static_cast<uint64_t>(option(argc, argv, "passes", 40));
    Table table({"daemon", "passes", "CPU µs/pass (schedstat)", "CPU µs/pass (utime+stime)",
                 "probe CPU p50 µs", "p90", "p99", "max", "work wall p50 µs",
                 "allocations/pass", "bytes allocated/pass", "passes that allocated",
                 "heap blocks kept"});
    table.add(idle_unprobed(passes_measured));
    table.add(probed("idle, with probe", passes_measured, true,
                     [](q9test::Daemon&, auto measure) { measure(nullptr); }));

    std::vector<std::string> channel_args = {"rendermgr"};
    for (int channel = 1; channel <= channels; ++channel)
        channel_args.push_back(std::to_string(channel));
    auto simulator = start_simulator(channel_args);
    std::string last_socket = std::string(q9test::rendermgr_root) + "/channel" +
                              std::to_string(channels) + RENDERMGR_SOCKET_SUFFIX;
    q9test::wait_until([&] { return access(last_socket.c_str(), F_OK) == 0; });
    table.add(probed("loaded: blank lines", passes_measured, false, [](q9test::Daemon& daemon, auto measure) {
        under_load(daemon, "\n", measure);
    }));
    table.add(probed("loaded: `ONE LINE TRIGGER` lines", passes_measured, false,
                     [](q9test::Daemon& daemon, auto measure) {
                         under_load(daemon, "ONE LINE TRIGGER\n", measure);
                     }));
    simulator->signal(SIGTERM);
    simulator->wait_exit();

    heading("Cost of a pass",
            "CPU time of the daemon per pass of its main loop, and heap allocations per pass. "
            "Loaded: four TCP peers at full intake, " + std::to_string(listeners) +
                " listening local clients, " + std::to_string(channels) +
                " render-manager channels (`q9_appliance_sim rendermgr 1..16`). Targets: idle "
                "under 50 µs and no allocation; loaded under 1 ms.\n\n"
                "schedstat: the kernel's run time of the process over the window, per pass, the "
                "sleep's own cost included; utime+stime counts in ticks of " +
                std::to_string(1000 / ticks_per_second()) +
                " ms, too coarse for an idle window (0 means below one tick). The probe "
                "(preloaded) reads the thread's CPU clock at each pass border, so its figures "
                "leave the sleep out. It also stands in front of malloc, calloc, realloc, "
                "memalign, aligned_alloc, posix_memalign, valloc and free, through which C++'s "
                "operator new and the C library's own allocations (opendir, stdio) pass too, "
                "and counts the allocations between two pass sleeps; heap blocks kept: blocks "
                "allocated and not freed over the whole window.");
    table.print();
    system_call_costs();
    return 0;
}
