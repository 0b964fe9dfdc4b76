// What `q9_korvane_xml_events_ctl metrics` once a second costs the daemon:
// its CPU time (the kernel's run time, /proc/PID/schedstat) over windows
// with a run every second beside windows without, idle and loaded (four
// peers at full intake of `ONE LINE TRIGGER` lines, 64 listening local
// clients, 16 render-manager channels).  The windows take turns, so a
// change in the machine's load falls on both.  Beside it, the client's own
// time per run, and promtool's verdict on a loaded daemon's text.
#include "command_line.h"
#include "peers.h"
#include "probes.h"
#include "stats.h"
#include "fixed_paths.h"
#include "promtool.h"

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>

using namespace q9bench;

namespace {

constexpr size_t listeners = 64;
constexpr int channels = 16;

struct Turns {
    double seconds = 0;          ///< length of all windows of one kind together
    uint64_t quiet_ns = 0;       ///< daemon run time in the windows without runs
    uint64_t asked_ns = 0;       ///< and in those with one run a second
    std::vector<double> run_us;  ///< wall time of each run
    double client_cpu_us = 0;    ///< user and system time of all runs together
    std::string last_text;       ///< what the last run printed
};

double children_cpu_us()
{
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e6 + usage.ru_utime.tv_usec +
           usage.ru_stime.tv_usec;
}

// One window of `seconds` with a run at the start of every second.
uint64_t asked_window(pid_t daemon, int seconds, Turns& turns)
{
    uint64_t before = proc_usage(daemon).runtime_ns;
    for (int second = 0; second < seconds; ++second) {
        double start = now_us();
        double cpu_before = children_cpu_us();
        q9test::ToolResult result = q9test::run_tool(Q9_CTL_BINARY, {"metrics"});
        turns.run_us.push_back(now_us() - start);
        turns.client_cpu_us += children_cpu_us() - cpu_before;
        turns.last_text = result.out;
        sleep_ms(std::max(0.0, 1000 - (now_us() - start) / 1000));
    }
    return proc_usage(daemon).runtime_ns - before;
}

uint64_t quiet_window(pid_t daemon, int seconds)
{
    uint64_t before = proc_usage(daemon).runtime_ns;
    sleep_ms(seconds * 1000.0);
    return proc_usage(daemon).runtime_ns - before;
}

Turns take_turns(pid_t daemon, int rounds, int seconds)
{
    Turns turns;
    sleep_ms(1000);
    for (int round = 0; round < rounds; ++round) {
        turns.quiet_ns += quiet_window(daemon, seconds);
        turns.asked_ns += asked_window(daemon, seconds, turns);
    }
    turns.seconds = static_cast<double>(rounds) * seconds;
    return turns;
}

std::vector<std::string> cells(const std::string& name, const Turns& turns)
{
    double quiet_share = turns.quiet_ns / 1e9 / turns.seconds * 100;
    double asked_share = turns.asked_ns / 1e9 / turns.seconds * 100;
    double per_run_us = (static_cast<double>(turns.asked_ns) - turns.quiet_ns) / 1e3 / turns.run_us.size();
    Summary wall = summarize(turns.run_us);
    return {name, fixed(turns.seconds, 0), fixed(quiet_share, 3), fixed(asked_share, 3),
            fixed(asked_share - quiet_share, 3), fixed(per_run_us, 0), fixed(wall.p50 / 1000, 1),
            fixed(wall.max / 1000, 1), fixed(turns.client_cpu_us / turns.run_us.size() / 1000, 1)};
}

std::string promtool_verdict(const std::string& text)
{
    std::optional<std::string> problems = q9test::promtool_problems(text);
    if (!problems)
        return "promtool is not installed";
    return problems->empty() ? "`promtool check metrics` finds no problem"
                             : "`promtool check metrics` complains, " + *problems;
}

}  // namespace

int main(int argc, char** argv)
{
    int rounds = static_cast<int>(option(argc, argv, "rounds", 3));
    int seconds = static_cast<int>(option(argc, argv, "seconds", 20));
    Table table({"daemon", "seconds each", "CPU % without", "CPU % with a run a second", "cost, % of a core",
                 "µs per run", "run wall p50 ms", "max ms", "client CPU ms per run"});

    q9test::write_config(q9test::minimal_config());
    {
        q9test::Daemon daemon;
        daemon.wait_until_running(daemon_limit);
        table.add(cells("idle", take_turns(daemon.pid(), rounds, seconds)));
        daemon.stop(daemon_limit);
    }

    std::vector<std::string> channel_args = {"rendermgr"};
    for (int channel = 1; channel <= channels; ++channel)
        channel_args.push_back(std::to_string(channel));
    auto simulator = start_simulator(channel_args);
    std::string verdict = "not measured: the load could not be set up";
    {
        q9test::Daemon daemon;
        daemon.wait_until_running(daemon_limit);
        daemon.wait_for_stderr("connection open", channels);
        ListenerGroup group(listeners, false);
        FullIntake intake("ONE LINE TRIGGER\n");
        if (group.ready() && intake.connected()) {
            Turns turns = take_turns(daemon.pid(), rounds, seconds);
            table.add(cells("loaded", turns));
            verdict = promtool_verdict(turns.last_text);
        } else {
            fprintf(stderr, "metrics: the load could not be set up\n");
        }
        daemon.stop(daemon_limit);
    }
    simulator->signal(SIGTERM);
    simulator->wait_exit();

    heading("Metrics once a second",
            "The daemon's CPU time (schedstat) in windows of " + std::to_string(seconds) +
                " s with one `q9_korvane_xml_events_ctl metrics` run at the start of every second, "
                "against windows without, taking turns " + std::to_string(rounds) +
                " times; cost = the difference, as a share of one core (target: under 1 %). µs per "
                "run: that difference per run, the status request answered in a pass. Loaded: four "
                "TCP peers at full intake of `ONE LINE TRIGGER` lines, " + std::to_string(listeners) +
                " listening local clients, " + std::to_string(channels) +
                " render-manager channels; its figures move with the load by more than a run costs. "
                "Run wall time and client CPU: the client process itself, started by the benchmark "
                "(fork, exec, connect, one request, the text).\n\nOn the loaded daemon's text: " +
                verdict + ".");
    table.print();
    return 0;
}
