// Instructions per pass and per unit of work, counted by callgrind: unlike
// seconds on a shared machine, these repeat from run to run.
//
// Each workload runs against a fresh daemon under callgrind, which counts
// only inside the functions that the main loop calls in a pass (collection
// toggled on entry and off on exit), so the start-up, the sleep and the stop
// are left out.  The pass probe, preloaded too in its variant that only
// marks the passes, counts them.  A
// workload's figure is its count less the idle passes it spanned, divided by
// its units of work.  Only user-space instructions are counted: the kernel's
// work in the system calls is not.
#include "command_line.h"
#include "daemon/pass_limits.h"
#include "peers.h"
#include "probes.h"
#include "stats.h"

#include <poll.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

using namespace q9bench;

namespace {

constexpr const char* pass_functions[] = {"known_channels_update*", "connect_manage*",
                                          "reload_if_requested*",   "connect_idle*",
                                          "handle_server_socket*",  "service_all_tcp_clients*"};

struct Count {
    uint64_t instructions = 0;
    uint64_t passes = 0;
};

uint64_t callgrind_total(const std::string& path)
{
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("totals:", 0) == 0 || line.rfind("summary:", 0) == 0)
            return std::stoull(line.substr(line.find(':') + 1));
    }
    return 0;
}

// Runs `workload` against a daemon under callgrind.
template <typename Workload>
Count count_instructions(const std::string& name, Workload workload)
{
    q9test::write_config(q9test::minimal_config());
    std::string out = q9test::work_dir() + "/callgrind-" + name + ".out";
    std::string probe_path = probe_file("instructions-" + name);
    ProbeReader probe(probe_path);
    std::vector<std::string> wrapper = {"valgrind", "--tool=callgrind", "--quiet",
                                        "--callgrind-out-file=" + out, "--collect-atstart=no"};
    for (const char* function : pass_functions)
        wrapper.push_back(std::string("--toggle-collect=") + function);
    q9test::Daemon daemon({}, wrapper, probe_environment(probe_path, true));
    Count count;
    if (!daemon.wait_until_running(daemon_limit)) {
        fprintf(stderr, "instructions: the daemon did not come up under callgrind\n");
        return count;
    }
    probe.wait_passes(probe.passes(), 2);
    workload();
    // The last pass of the work is over once another has begun.
    probe.wait_passes(probe.passes(), 2);
    daemon.stop(daemon_limit);
    count.instructions = callgrind_total(out);
    count.passes = probe.passes();
    return count;
}

}  // namespace

int main(int argc, char** argv)
{
    int idle_passes = static_cast<int>(option(argc, argv, "idle-passes", 20));
    Table table({"workload", "passes", "instructions", "per unit", "unit"});
    Count idle = count_instructions("idle", [&] { sleep_ms(idle_passes * pass_interval_us / 1000.0); });
    double per_idle_pass = idle.passes ? static_cast<double>(idle.instructions) / idle.passes : 0;
    table.add({"idle", grouped(idle.passes), grouped(idle.instructions), fixed(per_idle_pass, 0),
               "pass"});
    auto add = [&](const std::string& name, const Count& count, double units, const std::string& unit) {
        double work = count.instructions - per_idle_pass * count.passes;
        table.add({name, grouped(count.passes), grouped(count.instructions), fixed(work / units, 1),
                   unit + " (idle passes subtracted)"});
    };

    // Four passes' worth, and a fifth pass to take the last of it.
    const int blank_bytes = 4 * tcp_bytes_per_window;
    Count blank = count_instructions("blank", [&] {
        TriggerConnection connection;
        send_and_collect(connection, std::string(blank_bytes, '\n'), 0, 120e6);
        sleep_ms(5 * pass_interval_us / 1000.0);
    });
    add("10,240 bytes of blank lines on one connection", blank, blank_bytes, "byte read");

    const int one_line = 1000;
    Count triggers = count_instructions("one-line", [&] {
        TriggerConnection connection;
        send_and_collect(connection, repeated("ONE LINE TRIGGER\n", one_line), 3 * one_line, 120e6);
    });
    add("1,000 `ONE LINE TRIGGER` lines, no local client, no item", triggers, one_line, "trigger");

    const int fanned = 100;
    MediaItemService media;
    Count notified = count_instructions("notified", [&] {
        service_request("register", {{"target", "bench-item"}});
        ListenerGroup group(64, false);
        TriggerConnection connection;
        send_and_collect(connection, repeated("TRIGGER\nseq=1\nsource=bench\n\n", fanned), 4 * fanned, 120e6);
        q9test::wait_until([&] { return group.received() >= 64u * fanned; });
    });
    add("100 `TRIGGER` messages (2 pairs) to 64 listeners and 1 item, with the 64 "
        "registrations",
        notified, fanned, "trigger");

    heading("Instructions (callgrind)",
            "User-space instructions executed inside the pass's calls (channel refresh, reload "
            "check, channel poll, command server, TCP service), counted by callgrind; repeatable "
            "where times are not. The work figures have the idle cost of their passes subtracted.");
    table.print();
    return 0;
}
