// TCP intake: four peers send as fast as the daemon reads, and the daemon's
// reading is set against its ceiling of 256 bytes per call, ten calls per
// pass: 2,560 bytes per pass per connection, 10,240 bytes per second at
// four passes a second.
//
// What the daemon has read from a connection is what the peer sent less what
// is still queued in the kernel on either side (from /proc/net/tcp).  The
// daemon runs with the pass probe preloaded, which marks the pass borders;
// the counts are taken right at a border, while the daemon sleeps and reads
// nothing, so bytes per pass are exact.
#include "command_line.h"
#include "daemon/pass_limits.h"
#include "peers.h"
#include "probes.h"
#include "stats.h"

#include <cstdio>
#include <cstring>

using namespace q9bench;

namespace {

constexpr double ceiling_per_pass = tcp_bytes_per_window;
constexpr double ceiling_per_second = ceiling_per_pass * 1e6 / pass_interval_us;

struct Load {
    const char* name;
    std::string payload;
};

void measure(const Load& load, uint64_t passes_measured, Table& per_connection, Table& passes)
{
    std::string probe_path = probe_file("intake");
    ProbeReader probe(probe_path);
    auto daemon = start_probed_daemon(probe_path);
    if (!daemon)
        return;
    FullIntake intake(load.payload);
    if (!intake.connected()) {
        fprintf(stderr, "intake: the peers could not connect\n");
        return;
    }
    // Let the kernel queues fill, so the daemon finds a full budget from the
    // first measured pass on.
    probe.wait_passes(probe.passes(), 4);
    PassWindow window = measure_passes(probe, daemon->pid(), passes_measured, &intake);
    double seconds = window.elapsed_us / 1e6;
    for (size_t i = 0; i < window.consumed.size(); ++i) {
        double per_pass = static_cast<double>(window.consumed[i]) / window.passes;
        double per_second = window.consumed[i] / seconds;
        per_connection.add({load.name, std::to_string(i + 1), grouped(window.consumed[i]),
                            fixed(per_pass, 1), fixed(100 * per_pass / ceiling_per_pass, 1) + " %",
                            fixed(per_second, 0), fixed(100 * per_second / ceiling_per_second, 1) + " %"});
    }
    std::vector<double> wall, receives;
    for (const PassRecord& record : window.records) {
        wall.push_back(record.wall_ns / 1e3);
        receives.push_back(static_cast<double>(record.receives));
    }
    Summary work = summarize(wall);
    Summary calls = summarize(receives);
    passes.add({load.name, grouped(window.passes), fixed(window.elapsed_us / window.passes / 1000, 2),
                fixed(work.p50 / 1000, 2), fixed(work.max / 1000, 2), fixed(calls.p50, 0),
                grouped(intake.answered())});
    daemon->stop(daemon_limit);
}

}  // namespace

int main(int argc, char** argv)
{
    auto passes_measured = static_cast<uint64_t>(option(argc, argv, "passes", 40));
    std::vector<Load> loads = {
        {"blank lines (`\\n`, read and dropped)", std::string("\n")},
        {"`ONE LINE TRIGGER\\n` (17 B, each answered)", std::string("ONE LINE TRIGGER\n")},
    };
    Table per_connection({"load", "connection", "bytes read", "B/pass", "of 2,560", "B/s", "of 10,240"});
    Table passes({"load", "passes", "pass period ms", "work p50 ms", "work max ms",
                  "recv calls per pass p50", "reply bytes"});
    for (const Load& load : loads)
        measure(load, passes_measured, per_connection, passes);

    heading("TCP intake",
            "Four connections sending as fast as the daemon reads, over " +
                std::to_string(passes_measured) +
                " passes; no local client and no persistent item. Target: at least 95 % of "
                "2,560 bytes per pass per connection. The 10,240 B/s of the last column assume "
                "exactly four passes a second; a pass lasts 250 ms plus its work (below), so "
                "bytes per second fall short of it by that much even at a full budget.");
    per_connection.print();
    heading("Passes under full intake",
            "Pass period: time from one pass border to the next. Work: time between the end "
            "of one pass sleep and the start of the next (all of the pass but its sleep).");
    passes.print();
    return 0;
}
