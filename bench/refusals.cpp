// What a flood of connections from an address that tcp_allow refuses costs
// the daemon and the peers it serves.  The daemon runs as the package ships
// it (`wake_on_input`), with tcp_allow listing 127.0.0.1 only.  An allowed
// peer from 127.0.0.1 sends `ONE LINE TRIGGER` after random gaps of 1 to
// 3 ms and waits for each "OK", in turns: while a flooder connects from
// 127.0.0.9 over and over, each connection waiting for the daemon to close
// it, and then alone for as long.  Per turn: the allowed peer's round trips
// and the daemon's CPU time (schedstat); the flood's cost is the flooded
// window's CPU time less the quiet window's.  Beside the daemon the same
// flood meets a floor, a bare loop that accepts and closes each connection;
// and the refusal lines the daemon wrote are counted.
//
// The flooder's thread runs at nice 19, as a stand-in for a sender on
// another host: on a machine of two CPUs its own CPU time would otherwise
// be taken from the allowed peer, and the trips would show the flooder
// rather than the daemon.
#include "command_line.h"
#include "floors.h"
#include "peers.h"
#include "probes.h"
#include "stats.h"
#include "turns.h"

#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <random>

using namespace q9bench;

namespace {

const char* const flooding_address = "127.0.0.9";

struct Options {
    int rounds = 5;       // turns of a flooded window and a quiet one
    int refused = 10000;  // connections of one flood
};

/// What the floods did and cost, over all rounds.
struct Floods {
    uint64_t connections = 0;     ///< to the daemon, each closed by it
    uint64_t bytes_received = 0;  ///< by those peers: never a byte
    uint64_t unclosed = 0;        ///< connections left open for 5 s
    double seconds = 0;
    uint64_t cpu_ns = 0;          ///< the daemon's, less the quiet windows' rate
    uint64_t floor_connections = 0;
    uint64_t floor_cpu_ns = 0;    ///< the floor's over its floods
    size_t lines = 0;             ///< refusal lines about the flooding address
    int told = 0;                 ///< refusals those lines counted
    double lines_seconds = 0;     ///< from the first flood to the last line
};

/// One flood: `count` connections to `port`, one after another.
struct FloodResult {
    uint64_t connections = 0;
    uint64_t bytes_received = 0;
    uint64_t unclosed = 0;
};

// Connects, waits up to 5 s for the close and reads what came first (a
// reset counts as nothing): bytes received, or -1 when it was not closed.
ssize_t closed_connection(int port)
{
    int fd = q9test::connect_from(flooding_address, "127.0.0.1", port);
    if (fd < 0)
        return -1;
    pollfd closing{fd, POLLIN, 0};
    ssize_t received = -1;
    if (poll(&closing, 1, 5000) == 1) {
        char byte;
        received = std::max<ssize_t>(recv(fd, &byte, 1, MSG_DONTWAIT), 0);
    }
    close(fd);
    return received;
}

void flood(int port, int count, FloodResult& result)
{
    setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), 19);
    for (int i = 0; i < count; ++i) {
        ssize_t received = closed_connection(port);
        if (received < 0)
            ++result.unclosed;
        else
            result.bytes_received += static_cast<uint64_t>(received);
        ++result.connections;
    }
}

// The floor's CPU time over a flood of `count` connections.
uint64_t floor_flood(const RefusingFloor& floor, int count, Floods& floods)
{
    FloodResult result;
    uint64_t before = proc_usage(floor.pid()).runtime_ns;
    flood(floor.port(), count, result);
    floods.floor_connections += result.connections;
    return proc_usage(floor.pid()).runtime_ns - before;
}

// The counts of the refusal lines about the flooding address in `err`, and
// their number into `lines`.
int refusals_told(const std::string& err, size_t& lines)
{
    const std::string marker =
        std::string("Refused TCP connection from ") + flooding_address + ": not in tcp_allow (";
    int told = 0;
    lines = 0;
    for (size_t at = err.find(marker); at != std::string::npos; at = err.find(marker, at + 1)) {
        told += std::stoi(err.substr(at + marker.size()));
        ++lines;
    }
    return told;
}

void report(const Options& options, const std::vector<Window>& quiet, const std::vector<Window>& flooded,
            const Floods& floods)
{
    double daemon_ms = per_thousand_ms(floods.cpu_ns, floods.connections);
    double floor_ms = per_thousand_ms(floods.floor_cpu_ns, floods.floor_connections);
    heading("Refused connections under a flood",
            "The waking daemon with `tcp_allow = [\"127.0.0.1\"]`. An allowed peer from 127.0.0.1 sends "
            "`ONE LINE TRIGGER` after random gaps of 1 to 3 ms and waits for each \"OK\", in " +
                std::to_string(options.rounds) +
                " turns of a flooded window and a quiet one as long. A flood: " +
                grouped(static_cast<uint64_t>(options.refused)) + " connections from " + flooding_address +
                ", one after another, each waiting for the daemon to close it; the flooder runs at nice 19, "
                "standing in for a sender on another host. Round trips in ms as p50 / p99 of all turns, in "
                "brackets the lowest to the highest of the single turns (the run-to-run spread). Flood CPU: "
                "the daemon's time on a CPU (schedstat) in the flooded windows less the quiet windows' rate "
                "over as many seconds. Floor: a bare loop in a process of its own that accepts and closes "
                "each connection of the same floods, one per turn. Lines: the refusal lines about " +
                flooding_address + " from the first flood until the last refusal was told (once its "
                "second had passed), against those seconds, and the refusals they counted.");
    Table table({"figure", "value", "target"});
    table.add({"allowed round trip without flood, ms", trip_cells(quiet), ""});
    table.add({"allowed round trip during flood, ms", trip_cells(flooded), "within the spread without"});
    table.add({"round trips without / during flood",
               grouped(all_trips(quiet).size()) + " / " + grouped(all_trips(flooded).size()), ""});
    table.add({"refused connections; per second of flood",
               grouped(floods.connections) + "; " + fixed(floods.connections / floods.seconds, 0), ""});
    table.add({"daemon CPU per 1,000 refused connections, ms", fixed(daemon_ms, 2), "< 5"});
    table.add({"floor: accept and close, CPU per 1,000 connections, ms", fixed(floor_ms, 2), "the machine's"});
    table.add({"bytes received by refused peers", grouped(floods.bytes_received), "0"});
    table.add({"refused connections not closed within 5 s", grouped(floods.unclosed), "0"});
    table.add({"refusal lines; their seconds", grouped(floods.lines) + "; " + fixed(floods.lines_seconds, 1),
               "at most one a second"});
    table.add({"refusals the lines counted", grouped(static_cast<uint64_t>(floods.told)),
               grouped(floods.connections)});
    table.print();
}

void add_flood(const Window& flooded, const Window& quiet, const FloodResult& result, Floods& floods)
{
    floods.connections += result.connections;
    floods.bytes_received += result.bytes_received;
    floods.unclosed += result.unclosed;
    floods.seconds += flooded.seconds;
    floods.cpu_ns += load_cpu_ns(flooded, quiet);
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    options.rounds = static_cast<int>(option(argc, argv, "rounds", options.rounds));
    options.refused = static_cast<int>(option(argc, argv, "refused", options.refused));

    q9test::write_config(q9test::minimal_config() +
                         "[daemon]\nwake_on_input = true\ntcp_allow = [\"127.0.0.1\"]\n");
    q9test::Daemon daemon;
    RefusingFloor floor;
    TriggerConnection peer;
    if (!daemon.wait_until_running(daemon_limit) || !floor.listening() || !peer.connected()) {
        fprintf(stderr, "refusals: the daemon, the floor or the allowed peer could not be set up\n");
        return 1;
    }
    std::mt19937 random(11);
    std::vector<Window> quiet, flooded;
    Floods floods;
    double started = now_us();
    for (int round = 0; round < options.rounds; ++round) {
        FloodResult result;
        flooded.push_back(loaded_window(daemon.pid(), peer, random, [&] {
            flood(q9test::trigger_port, options.refused, result);
        }));
        quiet.push_back(quiet_window(daemon.pid(), peer, random, flooded.back().seconds));
        add_flood(flooded.back(), quiet.back(), result, floods);
        floods.floor_cpu_ns += floor_flood(floor, options.refused, floods);
    }
    // The last refusals are told once their second has passed.
    q9test::wait_until([&] {
        return refusals_told(daemon.stderr_text(), floods.lines) >= static_cast<int>(floods.connections);
    });
    floods.lines_seconds = (now_us() - started) / 1e6;
    floods.told = refusals_told(daemon.stderr_text(), floods.lines);
    daemon.stop(daemon_limit);
    report(options, quiet, flooded, floods);
    return 0;
}
