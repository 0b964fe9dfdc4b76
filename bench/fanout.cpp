// Notification fan-out: one trigger, 64 listening local clients.  How long
// from the first client receiving the trigger's notify to the last?
//
// The daemon sends the notifies one client after the other from its single
// thread.  The clients are served by one thread of this program that waits
// on all their sockets and stamps each notify as it takes it from its socket,
// so the spread seen here is the daemon's sending plus this thread's own
// reading.  The daemon runs with the pass probe, whose per-pass work time
// bounds the daemon's part from above.
#include "command_line.h"
#include "peers.h"
#include "probes.h"
#include "stats.h"

#include <sys/socket.h>

#include <cstdio>
#include <cstring>
#include <map>

using namespace q9bench;

namespace {

constexpr size_t listeners = 64;

struct Spread {
    std::vector<double> first_to_last, send_to_first, send_to_last;
    int incomplete = 0;
};

}  // namespace

int main(int argc, char** argv)
{
    int triggers = static_cast<int>(option(argc, argv, "triggers", 100));
    std::string probe_path = probe_file("fanout");
    ProbeReader probe(probe_path);
    auto daemon = start_probed_daemon(probe_path);
    if (!daemon)
        return 1;
    ListenerGroup group(listeners);
    TriggerConnection connection;
    if (!group.ready() || !connection.connected()) {
        fprintf(stderr, "fanout: the clients could not register or connect\n");
        return 1;
    }

    Spread spread;
    uint64_t first_pass = probe.passes();
    for (int i = 0; i < triggers; ++i) {
        std::string seq = std::to_string(i);
        std::string message = "TRIGGER\nseq=" + seq + "\nsource=bench\n\n";
        double sent = now_us();
        send(connection.fd(), message.data(), message.size(), MSG_NOSIGNAL);
        // Each client receives the notifies in order, so all have this one
        // once the group holds as many as all triggers so far.
        bool complete = q9test::wait_until(
            [&] { return group.received() >= (i + 1) * listeners; }, std::chrono::milliseconds(5000));
        std::map<size_t, double> arrival;
        for (const Notification& notification : group.notifications()) {
            if (notification.seq == seq)
                arrival[notification.client] = notification.at_us;
        }
        if (!complete || arrival.size() != listeners) {
            ++spread.incomplete;
            continue;
        }
        double first = arrival.begin()->second, last = first;
        for (const auto& entry : arrival) {
            first = std::min(first, entry.second);
            last = std::max(last, entry.second);
        }
        spread.first_to_last.push_back(last - first);
        spread.send_to_first.push_back(first - sent);
        spread.send_to_last.push_back(last - sent);
        group.clear();
    }
    std::vector<double> work;
    for (const PassRecord& record : probe.records(first_pass, probe.passes()))
        work.push_back(record.wall_ns / 1e3);

    heading("Notification fan-out",
            std::to_string(triggers) + " `TRIGGER` messages, one per pass, each notified to " +
                std::to_string(listeners) +
                " listening local clients; times in ms as the clients took the notify from their "
                "sockets.");
    Table table({"figure", "triggers", "min", "p50", "p90", "p99", "max", "mean"});
    auto row = [&](const std::string& name, const std::vector<double>& samples, double unit) {
        std::vector<std::string> cells = {name};
        auto figures = summary_cells(summarize(samples), unit, 3);
        cells.insert(cells.end(), figures.begin(), figures.end());
        table.add(cells);
    };
    row("first → last client", spread.first_to_last, 1000);
    row("trigger sent → first client", spread.send_to_first, 1000);
    row("trigger sent → last client", spread.send_to_last, 1000);
    row("daemon's pass work (passes of the run)", work, 1000);
    table.print();
    if (spread.incomplete > 0)
        printf("%d triggers did not reach all %zu clients within 5 s.\n\n", spread.incomplete,
               listeners);
    daemon->stop(daemon_limit);
    return 0;
}
