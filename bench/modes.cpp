// The classic daemon and the waking one (`wake_on_input`) side by side, each
// in its own run against the same peers: trigger round trip for both forms,
// trigger to `start` and to `notify`, TCP intake under flood, and the
// daemon's CPU time per second idle and under that flood.
//
// Triggers go one at a time, each form over a connection of its own, and
// the forms take turns with two floors: a trivial server answering the same
// client, once wherever the kernel puts it and once on the CPU other than
// the client's, where every round trip wakes the other CPU.  On a virtual
// machine that wake-up can stall for milliseconds; the daemon's trips wake
// the client, the listener, the media-item service and the system logger,
// and the floors show how much of a slow trip is the machine's.  Each send comes after a
// random gap: in the classic run a random moment of the 250 ms pass, as in
// the trigger latency benchmark; in the waking run between 2 and 8 ms, a mean
// of 5 ms that keeps the bytes below the intake ceiling of 10,240 B/s, which
// the waking daemon keeps as the classic one does, so no trigger waits for a
// budget window.
#include "command_line.h"
#include "daemon/pass_limits.h"
#include "floors.h"
#include "peers.h"
#include "probes.h"
#include "stats.h"

#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <random>

using namespace q9bench;

namespace {

constexpr double ceiling_per_second = tcp_bytes_per_window * 1e6 / pass_interval_us;

struct Options {
    int classic_triggers = 100;   // per form
    int waking_triggers = 1000;   // per form
    double idle_seconds = 30;
    double flood_seconds = 10;
};

struct Mode {
    const char* name;
    bool waking;
};

struct Figures {
    Summary message_trip, one_line_trip, to_start, to_notify;
    Summary floor_trip, across_trip;  // the trivial server's, anywhere and on the other CPU
    size_t lost = 0;
    double intake_min = 0, intake_max = 0;       // B/s of the slowest and fastest connection
    double idle_cpu_us = 0, idle_wakes = 0;      // per second
    double idle_floor_us = 0;                    // per second, a bare loop sleeping alike
    double flood_cpu_us = 0;                     // per second
};

std::vector<double> gaps_of(const Mode& mode, int count, unsigned seed)
{
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> classic(0, pass_interval_us), waking(2000, 8000);
    std::vector<double> gaps;
    for (int i = 0; i < count; ++i)
        gaps.push_back(mode.waking ? waking(random) : classic(random));
    return gaps;
}

// One of the round trips measured in turn: a trigger form to the daemon, or
// a line to a floor.  A trip is the time from the send to the whole reply,
// in us.  With a server per CPU, the line goes to the server on the CPU after
// the client's own at the moment of sending, so that the trip crosses CPUs
// while the client runs wherever the kernel puts it, as in the other turns.
struct Probe {
    std::string message, reply;
    std::vector<std::unique_ptr<TriggerConnection>> connections;
    std::vector<double> trips;

    Probe(std::string sends, std::string answer, const std::vector<int>& ports)
        : message(std::move(sends)), reply(std::move(answer))
    {
        for (int port : ports)
            connections.push_back(std::make_unique<TriggerConnection>(port));
    }

    TriggerConnection& connection()
    {
        if (connections.size() == 1)
            return *connections.front();
        return *connections[static_cast<size_t>(sched_getcpu() + 1) % connections.size()];
    }

    // Sends after `gap` us and waits for the reply; the send time, or a
    // negative number when no reply came.
    double round_trip(double gap)
    {
        sleep_ms(gap / 1000);
        TriggerConnection& to = connection();
        double at = now_us();
        bool answered = send(to.fd(), message.data(), message.size(), MSG_NOSIGNAL) ==
                            static_cast<ssize_t>(message.size()) &&
                        send_and_collect(to, "", reply.size(), 5e6) == reply.size();
        if (!answered)
            return -1;
        trips.push_back(now_us() - at);
        return at;
    }
};

// The floor servers: one placed by the kernel, and one kept on each CPU.
struct Floors {
    FloorServer anywhere;
    std::vector<std::unique_ptr<FloorServer>> per_cpu;

    Floors()
    {
        for (long cpu = 0; cpu < sysconf(_SC_NPROCESSORS_ONLN); ++cpu)
            per_cpu.push_back(std::make_unique<FloorServer>(static_cast<int>(cpu)));
    }

    bool listening() const
    {
        bool all = anywhere.listening();
        for (const auto& server : per_cpu)
            all = all && server->listening();
        return all;
    }

    std::vector<int> per_cpu_ports() const
    {
        std::vector<int> ports;
        for (const auto& server : per_cpu)
            ports.push_back(server->port());
        return ports;
    }
};

// Sends on each probe in turn, one gap before each send, until the gaps are
// used up or a reply fails to come.  The first `to_daemon` probes are the
// daemon's: the send times of their triggers, in order.
std::vector<double> take_turns(const std::vector<Probe*>& turns, size_t to_daemon,
                               const std::vector<double>& gaps, size_t& lost)
{
    std::vector<double> sent;
    for (size_t turn = 0; turn < gaps.size(); ++turn) {
        size_t index = turn % turns.size();
        double at = turns[index]->round_trip(gaps[turn]);
        if (at < 0) {
            // The connection cannot carry a later message: the run ends here.
            fprintf(stderr, "modes: no reply to %zu-byte message, stopping\n",
                    turns[index]->message.size());
            lost += index < to_daemon ? 1 : 0;
            break;
        }
        if (index < to_daemon)
            sent.push_back(at);
    }
    return sent;
}

// The k-th arrival belongs to the k-th trigger: the daemon starts and
// notifies in the order the triggers came, over one connection.
std::vector<double> delays(const std::vector<double>& sent, const std::vector<double>& arrivals)
{
    std::vector<double> us;
    for (size_t k = 0; k < sent.size() && k < arrivals.size(); ++k)
        us.push_back(arrivals[k] - sent[k]);
    return us;
}

std::vector<double> notify_times(const ListenerGroup& listener)
{
    std::vector<double> at;
    for (const Notification& notification : listener.notifications())
        at.push_back(notification.at_us);
    return at;
}

void measure_triggers(const Mode& mode, int count, Figures& figures)
{
    MediaItemService media;
    ListenerGroup listener(1);
    if (!media.listening() || !listener.ready() ||
        !service_request("register", {{"target", "bench-item"}})) {
        fprintf(stderr, "modes: the peers could not be set up\n");
        return;
    }
    // The forms and the floors take turns, so that all of them meet the
    // same moments of the machine.
    Floors floors;
    if (!floors.listening()) {
        fprintf(stderr, "modes: the floor servers could not be started\n");
        return;
    }
    Probe message("TRIGGER\nsource=bench\n\n", "OK\n\n", {q9test::trigger_port});
    Probe one_line("ONE LINE TRIGGER\n", "OK\n", {q9test::trigger_port});
    Probe floor_line("ONE LINE TRIGGER\n", "OK\n", {floors.anywhere.port()});
    Probe across_line("ONE LINE TRIGGER\n", "OK\n", floors.per_cpu_ports());
    std::vector<Probe*> turns = {&message, &one_line, &floor_line};
    if (floors.per_cpu.size() > 1)
        turns.push_back(&across_line);
    std::vector<double> sent = take_turns(
        turns, 2, gaps_of(mode, count * static_cast<int>(turns.size()), 7), figures.lost);
    q9test::wait_until([&] {
        return listener.notifications().size() >= sent.size() && media.arrivals().size() >= sent.size();
    });
    figures.message_trip = summarize(message.trips);
    figures.one_line_trip = summarize(one_line.trips);
    figures.floor_trip = summarize(floor_line.trips);
    figures.across_trip = summarize(across_line.trips);
    figures.to_start = summarize(delays(sent, media.arrivals()));
    figures.to_notify = summarize(delays(sent, notify_times(listener)));
}

// The daemon's CPU time and wake-ups while nothing happens, and in the same
// seconds the CPU time of a bare loop sleeping as the daemon does.
void measure_idle(const Mode& mode, pid_t pid, double seconds, Figures& figures)
{
    IdleFloor floor(mode.waking);
    sleep_ms(1000);  // past the child's first touches of the memory it shares
    ProcUsage before = proc_usage(pid), floor_before = proc_usage(floor.pid());
    double start = now_us();
    sleep_ms(seconds * 1000);
    ProcUsage after = proc_usage(pid), floor_after = proc_usage(floor.pid());
    double elapsed = (now_us() - start) / 1e6;
    figures.idle_cpu_us = (after.runtime_ns - before.runtime_ns) / 1e3 / elapsed;
    figures.idle_wakes = (after.voluntary_switches - before.voluntary_switches) / elapsed;
    figures.idle_floor_us = (floor_after.runtime_ns - floor_before.runtime_ns) / 1e3 / elapsed;
}

uint64_t total(const std::vector<uint64_t>& values)
{
    uint64_t sum = 0;
    for (uint64_t value : values)
        sum += value;
    return sum;
}

// A moment right after the daemon took a budget's worth from the flood:
// what it has read jumped and then stood still for 20 ms, as it does while
// the daemon waits for its next pass or window.  The counts then.
double after_a_read_burst(const FullIntake& intake, std::vector<uint64_t>& consumed)
{
    uint64_t last = total(intake.consumed());
    double changed = now_us();
    bool jumped = false;
    for (;;) {
        sleep_ms(1);
        std::vector<uint64_t> now = intake.consumed();
        if (total(now) != last) {
            last = total(now);
            changed = now_us();
            jumped = true;
        } else if (jumped && now_us() - changed >= 20000) {
            consumed = now;
            return changed;
        }
    }
}

void measure_flood(pid_t pid, double seconds, Figures& figures)
{
    FullIntake intake(std::string("\n"));
    if (!intake.connected()) {
        fprintf(stderr, "modes: the flooding peers could not connect\n");
        return;
    }
    sleep_ms(1000);
    std::vector<uint64_t> first, last;
    double from = after_a_read_burst(intake, first);
    ProcUsage before = proc_usage(pid);
    sleep_ms(seconds * 1000);
    double to = after_a_read_burst(intake, last);
    ProcUsage after = proc_usage(pid);
    double elapsed = (to - from) / 1e6;
    figures.intake_min = 1e18;
    for (size_t i = 0; i < first.size(); ++i) {
        double rate = (last[i] - first[i]) / elapsed;
        figures.intake_min = std::min(figures.intake_min, rate);
        figures.intake_max = std::max(figures.intake_max, rate);
    }
    figures.flood_cpu_us = (after.runtime_ns - before.runtime_ns) / 1e3 / elapsed;
}

Figures measure(const Mode& mode, const Options& options)
{
    Figures figures;
    q9test::write_config(q9test::minimal_config() +
                         (mode.waking ? "[daemon]\nwake_on_input = true\n" : ""));
    q9test::Daemon daemon;
    if (!daemon.wait_until_running(daemon_limit)) {
        fprintf(stderr, "modes: the daemon did not come up\n");
        return figures;
    }
    measure_triggers(mode, mode.waking ? options.waking_triggers : options.classic_triggers, figures);
    measure_idle(mode, daemon.pid(), options.idle_seconds, figures);
    measure_flood(daemon.pid(), options.flood_seconds, figures);
    daemon.stop(daemon_limit);
    return figures;
}

std::string trip(const Summary& summary)
{
    return fixed(summary.p50 / 1000, 2) + " / " + fixed(summary.p99 / 1000, 2) + " / " +
           fixed(summary.max / 1000, 2);
}

std::string share(double rate)
{
    return fixed(rate, 0) + " (" + fixed(100 * rate / ceiling_per_second, 1) + " %)";
}

// A floor that took no CPU time at all (a window without a wake-up) has no
// ratio to give.
std::string over_floor(const Figures& figures)
{
    if (figures.idle_floor_us <= 0)
        return "-";
    return fixed(figures.idle_cpu_us / figures.idle_floor_us, 2);
}

Options parse(int argc, char** argv)
{
    Options options;
    options.classic_triggers = static_cast<int>(option(argc, argv, "classic-triggers", options.classic_triggers));
    options.waking_triggers = static_cast<int>(option(argc, argv, "waking-triggers", options.waking_triggers));
    options.idle_seconds = option(argc, argv, "idle-seconds", options.idle_seconds);
    options.flood_seconds = option(argc, argv, "flood-seconds", options.flood_seconds);
    return options;
}

}  // namespace

int main(int argc, char** argv)
{
    Options options = parse(argc, argv);
    Figures classic = measure(Mode{"classic", false}, options);
    Figures waking = measure(Mode{"wake_on_input", true}, options);

    heading("Classic and wake_on_input side by side",
            "Each mode in a daemon run of its own, one listening local client and one persistent "
            "media item registered. Round trips in ms as p50 / p99 / max over " +
                std::to_string(options.classic_triggers) + " (classic) and " +
                std::to_string(options.waking_triggers) +
                " (wake_on_input) triggers of each form, one at a time, each form over a "
                "connection of its own, taking turns with the floors: a trivial server in a "
                "process of its own answering the same client with \"OK\\n\" per line, placed "
                "by the kernel, and the same server on the other CPU than the client. "
                "Intake: bytes per second read from each of four connections sending blank lines "
                "as fast as the daemon reads, slowest and fastest, against 10,240 B/s. CPU: the "
                "daemon's time on a CPU per second of wall time (schedstat), idle for " +
                fixed(options.idle_seconds, 0) + " s and under that flood for " +
                fixed(options.flood_seconds, 0) + " s; wake-ups: voluntary context switches. Beside the idle "
                "daemon, a bare loop in a process of its own sleeps as the daemon does: "
                "usleep(250000) over and over (classic), a ppoll() of two idle sockets with a "
                "5 s timeout (wake_on_input). Targets are the waking daemon's unless marked.");
    Table table({"figure", "classic", "wake_on_input", "target"});
    table.add({"`TRIGGER` round trip, ms", trip(classic.message_trip), trip(waking.message_trip),
               "p50 ≤ 0.5, p99 ≤ 2, max ≤ 10"});
    table.add({"`ONE LINE TRIGGER` round trip, ms", trip(classic.one_line_trip),
               trip(waking.one_line_trip), "p50 ≤ 0.5, p99 ≤ 2, max ≤ 10"});
    table.add({"floor: trivial server, ms", trip(classic.floor_trip), trip(waking.floor_trip),
               "the machine's"});
    table.add({"floor: trivial server on the other CPU, ms", trip(classic.across_trip),
               trip(waking.across_trip), "the machine's"});
    table.add({"trigger → `start`, ms", trip(classic.to_start), trip(waking.to_start), "p99 ≤ 2"});
    table.add({"trigger → `notify`, ms", trip(classic.to_notify), trip(waking.to_notify), "p99 ≤ 2"});
    table.add({"triggers unanswered", std::to_string(classic.lost), std::to_string(waking.lost), "0"});
    table.add({"intake, slowest connection, B/s", share(classic.intake_min), share(waking.intake_min),
               "95 % to 100 %"});
    table.add({"intake, fastest connection, B/s", share(classic.intake_max), share(waking.intake_max),
               "never above 100 %"});
    table.add({"idle CPU, us per s", fixed(classic.idle_cpu_us, 1), fixed(waking.idle_cpu_us, 1),
               "≤ a tenth of classic"});
    table.add({"floor: bare loop sleeping alike, CPU us per s", fixed(classic.idle_floor_us, 1),
               fixed(waking.idle_floor_us, 1), "the machine's"});
    table.add({"idle CPU over its floor", over_floor(classic), over_floor(waking), "classic ≤ 1.5"});
    table.add({"idle wake-ups per s", fixed(classic.idle_wakes, 2), fixed(waking.idle_wakes, 2),
               "≤ a tenth of classic"});
    table.add({"CPU under flood, us per s", fixed(classic.flood_cpu_us, 0), fixed(waking.flood_cpu_us, 0),
               ""});
    table.print();
    return 0;
}
