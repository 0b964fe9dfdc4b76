// The classic daemon and the waking one (`wake_on_input`) side by side, each
// in its own run against the same peers: trigger round trip for both forms,
// trigger to `start` and to `notify`, TCP intake under flood, and the
// daemon's CPU time per second idle and under that flood.
//
// Triggers go one at a time over one connection.  In the classic run the
// next is sent at a random moment of the 250 ms pass after the previous
// acknowledgement, as in the trigger latency benchmark.  In the waking run
// the gap is random between 2 and 8 ms: at a mean of 5 ms the bytes stay
// below the intake ceiling of 10,240 B/s, which the waking daemon keeps as
// the classic one does, so no trigger waits for a budget window.
#include "command_line.h"
#include "peers.h"
#include "probes.h"
#include "stats.h"

#include <poll.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>
#include <random>

using namespace q9bench;

namespace {

constexpr double ceiling_per_second = 10240;

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
    size_t lost = 0;
    double intake_min = 0, intake_max = 0;       // B/s of the slowest and fastest connection
    double idle_cpu_us = 0, idle_wakes = 0;      // per second
    double flood_cpu_us = 0;                     // per second
};

std::vector<double> gaps_of(const Mode& mode, int count, unsigned seed)
{
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> classic(0, 250000), waking(2000, 8000);
    std::vector<double> gaps;
    for (int i = 0; i < count; ++i)
        gaps.push_back(mode.waking ? waking(random) : classic(random));
    return gaps;
}

// Sends `message` after each gap and waits for `reply`; the send times
// (also of lost triggers, at -1 round trip) and the round trips in us.
std::vector<double> round_trips(const std::string& message, const std::string& reply,
                                const std::vector<double>& gaps, std::vector<double>& sent)
{
    TriggerConnection connection;
    std::vector<double> trips;
    for (double gap : gaps) {
        sleep_ms(gap / 1000);
        double at = now_us();
        if (send(connection.fd(), message.data(), message.size(), MSG_NOSIGNAL) !=
            static_cast<ssize_t>(message.size()))
            break;
        sent.push_back(at);
        if (send_and_collect(connection, "", reply.size(), 5e6) < reply.size())
            break;
        trips.push_back(now_us() - at);
    }
    return trips;
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
    std::vector<double> sent;
    std::vector<double> trips = round_trips("TRIGGER\nsource=bench\n\n", "OK\n\n",
                                            gaps_of(mode, count, 7), sent);
    q9test::wait_until([&] {
        return listener.notifications().size() >= sent.size() && media.arrivals().size() >= sent.size();
    });
    figures.message_trip = summarize(trips);
    figures.to_start = summarize(delays(sent, media.arrivals()));
    figures.to_notify = summarize(delays(sent, notify_times(listener)));
    figures.lost = static_cast<size_t>(count) - trips.size();
    std::vector<double> one_line_sent;
    figures.one_line_trip =
        summarize(round_trips("ONE LINE TRIGGER\n", "OK\n", gaps_of(mode, count, 11), one_line_sent));
    figures.lost += static_cast<size_t>(count) - figures.one_line_trip.count;
}

void measure_idle(pid_t pid, double seconds, Figures& figures)
{
    ProcUsage before = proc_usage(pid);
    double start = now_us();
    sleep_ms(seconds * 1000);
    ProcUsage after = proc_usage(pid);
    double elapsed = (now_us() - start) / 1e6;
    figures.idle_cpu_us = (after.runtime_ns - before.runtime_ns) / 1e3 / elapsed;
    figures.idle_wakes = (after.voluntary_switches - before.voluntary_switches) / elapsed;
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
    measure_idle(daemon.pid(), options.idle_seconds, figures);
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
                " (wake_on_input) triggers of each form, one at a time over one connection. "
                "Intake: bytes per second read from each of four connections sending blank lines "
                "as fast as the daemon reads, slowest and fastest, against 10,240 B/s. CPU: the "
                "daemon's time on a CPU per second of wall time (schedstat), idle for " +
                fixed(options.idle_seconds, 0) + " s and under that flood for " +
                fixed(options.flood_seconds, 0) + " s; wake-ups: voluntary context switches.");
    Table table({"figure", "classic", "wake_on_input", "target (wake_on_input)"});
    table.add({"`TRIGGER` round trip, ms", trip(classic.message_trip), trip(waking.message_trip),
               "p50 ≤ 0.5, p99 ≤ 2, max ≤ 10"});
    table.add({"`ONE LINE TRIGGER` round trip, ms", trip(classic.one_line_trip),
               trip(waking.one_line_trip), "p50 ≤ 0.5, p99 ≤ 2, max ≤ 10"});
    table.add({"trigger → `start`, ms", trip(classic.to_start), trip(waking.to_start), "p99 ≤ 2"});
    table.add({"trigger → `notify`, ms", trip(classic.to_notify), trip(waking.to_notify), "p99 ≤ 2"});
    table.add({"triggers unanswered", std::to_string(classic.lost), std::to_string(waking.lost), "0"});
    table.add({"intake, slowest connection, B/s", share(classic.intake_min), share(waking.intake_min),
               "95 % to 100 %"});
    table.add({"intake, fastest connection, B/s", share(classic.intake_max), share(waking.intake_max),
               "never above 100 %"});
    table.add({"idle CPU, us per s", fixed(classic.idle_cpu_us, 1), fixed(waking.idle_cpu_us, 1),
               "≤ a tenth of classic"});
    table.add({"idle wake-ups per s", fixed(classic.idle_wakes, 2), fixed(waking.idle_wakes, 2),
               "≤ a tenth of classic"});
    table.add({"CPU under flood, us per s", fixed(classic.flood_cpu_us, 0), fixed(waking.flood_cpu_us, 0),
               ""});
    table.print();
    return 0;
}
