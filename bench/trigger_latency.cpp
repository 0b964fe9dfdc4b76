// Trigger latency: how long a trigger takes from the TCP peer's send to the
// daemon's acknowledgement, to the notify at a listening local client and to
// the start request at the media-item service.
//
// The daemon serves its TCP peers once per 250 ms pass, so a trigger waits
// for the next pass, and what matters is the distribution over the moment
// at which the trigger is sent.  In the main run each of four connections
// has one trigger in flight: after each acknowledgement it waits a random
// time, evenly spread over one pass, and sends the next, so the send moments
// fall evenly over the pass.  A second run sends open loop (exponential gaps,
// not waiting for acknowledgements), so that one connection often has several
// triggers handled in the same pass, as a peer sending bursts would.
//
// Acknowledgements arrive in order per connection; message-form triggers
// carry a "seq" pair, which the notify passes on.  Start requests carry no
// identity, but the daemon starts the item of each trigger before it
// notifies, and both arrive in the daemon's order, so the k-th start belongs
// to the trigger of the k-th notify.
#include "command_line.h"
#include "daemon/pass_limits.h"
#include "peers.h"
#include "probes.h"
#include "stats.h"

#include <poll.h>
#include <sys/socket.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <random>

using namespace q9bench;

namespace {

constexpr int connections = 4;
constexpr double pass_us = pass_interval_us;

struct Options {
    int triggers = 1000;        // per form, one in flight per connection
    int burst_triggers = 400;   // per form, open loop
    double mean_gap_ms = 50;    // open loop, per connection
};

struct Form {
    bool one_line;
    std::string reply() const { return one_line ? "OK\n" : "OK\n\n"; }
    std::string message(const std::string& seq) const
    {
        return one_line ? "ONE LINE TRIGGER\n" : "TRIGGER\nseq=" + seq + "\nsource=bench\n\n";
    }
};

struct Trigger {
    double sent_us = 0;
    double acked_us = -1;
    bool queued = false;  // sent while an earlier one of its connection was unacknowledged
};

struct FormResult {
    std::map<std::string, Trigger> triggers;  // by seq
    std::vector<double> round_trips(int queued = -1) const
    {
        std::vector<double> us;
        for (const auto& entry : triggers) {
            const Trigger& trigger = entry.second;
            if (trigger.acked_us >= 0 && (queued < 0 || trigger.queued == (queued == 1)))
                us.push_back(trigger.acked_us - trigger.sent_us);
        }
        return us;
    }
    int lost() const
    {
        int count = 0;
        for (const auto& entry : triggers)
            count += entry.second.acked_us < 0;
        return count;
    }
};

// One connection's share.  `closed`: one trigger in flight, the next sent
// at a random moment of the pass after the acknowledgement; otherwise open
// loop with exponential gaps.
void run_connection(const Form& form, int index, int count, bool closed, double mean_gap_ms,
                    FormResult& result, std::mutex& mutex)
{
    TriggerConnection connection;
    std::mt19937 random(1000 + index + (closed ? 0 : 100) + (form.one_line ? 10 : 0));
    std::exponential_distribution<double> gap(1.0 / (mean_gap_ms * 1000.0));
    std::uniform_real_distribution<double> phase(0, pass_us);
    std::deque<std::string> waiting;
    std::string reply = form.reply();
    size_t pending_bytes = 0;
    double next_send = now_us() + (closed ? phase(random) : gap(random));
    double deadline = now_us() + (count * (closed ? pass_us : mean_gap_ms * 1000.0)) + 30e6;
    int sent = 0;
    while ((sent < count || !waiting.empty()) && now_us() < deadline) {
        double now = now_us();
        bool may_send = sent < count && (!closed || waiting.empty());
        if (may_send && now >= next_send) {
            std::string seq = std::to_string(index * 1000000 + sent);
            std::string message = form.message(seq);
            double at = now_us();
            if (send(connection.fd(), message.data(), message.size(), MSG_NOSIGNAL) !=
                static_cast<ssize_t>(message.size()))
                break;
            {
                std::lock_guard<std::mutex> lock(mutex);
                result.triggers[seq] = Trigger{at, -1, !waiting.empty()};
            }
            waiting.push_back(seq);
            ++sent;
            if (!closed)
                next_send += gap(random);
            continue;
        }
        int timeout_ms = may_send ? static_cast<int>(std::max(0.0, (next_send - now) / 1000.0)) : 50;
        pollfd ready{connection.fd(), POLLIN, 0};
        if (poll(&ready, 1, timeout_ms) <= 0)
            continue;
        char buffer[4096];
        ssize_t length = recv(connection.fd(), buffer, sizeof(buffer), MSG_DONTWAIT);
        double at = now_us();
        if (length <= 0)
            break;
        pending_bytes += static_cast<size_t>(length);
        std::lock_guard<std::mutex> lock(mutex);
        while (pending_bytes >= reply.size() && !waiting.empty()) {
            pending_bytes -= reply.size();
            result.triggers[waiting.front()].acked_us = at;
            waiting.pop_front();
            if (closed)
                next_send = at + phase(random);
        }
    }
    std::lock_guard<std::mutex> lock(mutex);
    for (int i = sent; i < count; ++i)
        result.triggers[std::to_string(index * 1000000 + i)] = Trigger{0, -1, false};
}

FormResult run_form(const Form& form, int triggers, bool closed, double mean_gap_ms)
{
    FormResult result;
    std::mutex mutex;
    std::vector<std::thread> threads;
    for (int i = 0; i < connections; ++i) {
        int share = triggers / connections + (i < triggers % connections ? 1 : 0);
        threads.emplace_back([&, i, share] {
            run_connection(form, i, share, closed, mean_gap_ms, result, mutex);
        });
    }
    for (auto& thread : threads)
        thread.join();
    return result;
}

void add_summary_row(Table& table, const std::string& what, const std::vector<double>& us)
{
    std::vector<std::string> row = {what};
    auto cells = summary_cells(summarize(us), 1000.0, 2);
    row.insert(row.end(), cells.begin(), cells.end());
    table.add(row);
}

Options parse(int argc, char** argv)
{
    Options options;
    options.triggers = static_cast<int>(option(argc, argv, "triggers", options.triggers));
    options.burst_triggers = static_cast<int>(option(argc, argv, "burst-triggers", options.burst_triggers));
    options.mean_gap_ms = option(argc, argv, "gap-ms", options.mean_gap_ms);
    return options;
}

struct Reach {
    std::vector<double> to_notify, to_start, ack_after_notify;
    size_t notifies = 0, starts = 0;
};

// Pairs the notifies and starts of one message-form run with its triggers.
Reach reach_of(const FormResult& result, const std::vector<Notification>& notifications,
               const std::vector<double>& starts)
{
    Reach reach;
    reach.notifies = notifications.size();
    reach.starts = starts.size();
    for (size_t k = 0; k < notifications.size(); ++k) {
        auto trigger = result.triggers.find(notifications[k].seq);
        if (trigger == result.triggers.end())
            continue;
        reach.to_notify.push_back(notifications[k].at_us - trigger->second.sent_us);
        if (trigger->second.acked_us >= 0)
            reach.ack_after_notify.push_back(trigger->second.acked_us - notifications[k].at_us);
        if (starts.size() == notifications.size())
            reach.to_start.push_back(starts[k] - trigger->second.sent_us);
    }
    return reach;
}

// Runs one message-form run and collects what the listener and the service saw.
Reach message_run(const Form& form, int triggers, bool closed, double gap_ms,
                  ListenerGroup& listener, MediaItemService& media, FormResult& result)
{
    listener.clear();
    media.clear();
    result = run_form(form, triggers, closed, gap_ms);
    size_t expected = result.triggers.size() - static_cast<size_t>(result.lost());
    q9test::wait_until([&] {
        return listener.notifications().size() >= expected && media.arrivals().size() >= expected;
    });
    return reach_of(result, listener.notifications(), media.arrivals());
}

}  // namespace

int main(int argc, char** argv)
{
    Options options = parse(argc, argv);
    q9test::write_config(q9test::minimal_config());
    MediaItemService media;
    q9test::Daemon daemon;
    if (!media.listening() || !daemon.wait_until_running(daemon_limit)) {
        fprintf(stderr, "trigger_latency: the daemon or the media-item service did not come up\n");
        return 1;
    }
    bool item = service_request("register", {{"target", "bench-item"}});
    ListenerGroup listener(1);
    if (!item || !listener.ready()) {
        fprintf(stderr, "trigger_latency: registration failed\n");
        return 1;
    }

    Form message_form{false};
    Form one_line_form{true};
    FormResult message, burst_message;
    Reach reach = message_run(message_form, options.triggers, true, 0, listener, media, message);
    FormResult one_line = run_form(one_line_form, options.triggers, true, 0);
    Reach burst_reach = message_run(message_form, options.burst_triggers, false,
                                    options.mean_gap_ms, listener, media, burst_message);
    FormResult burst_one_line =
        run_form(one_line_form, options.burst_triggers, false, options.mean_gap_ms);

    heading("Trigger round trip",
            "Time from the TCP send of a trigger to the acknowledgement received, in ms. Four "
            "connections, each with one trigger in flight, sent at a random moment of the pass "
            "after the previous acknowledgement. Target: up to one 250 ms pass plus the daemon's "
            "own work. One listening local client and one persistent media item are registered, "
            "so every trigger also starts the item and notifies.");
    Table round_trip({"form", "triggers", "min", "p50", "p90", "p99", "max", "mean"});
    add_summary_row(round_trip, "`TRIGGER` message (\"OK\\n\\n\")", message.round_trips());
    add_summary_row(round_trip, "`ONE LINE TRIGGER` (\"OK\\n\")", one_line.round_trips());
    round_trip.print();

    heading("Trigger to notify and to start",
            "Same `TRIGGER` messages as above: time from the TCP send to the `notify` taken from "
            "its socket by the listening local client, and to the `start` request's connection "
            "accepted by the media-item service, in ms; and how long after the notify the "
            "acknowledgement reached the TCP peer. The media-item service is the benchmark's "
            "own, at the service's socket: it stamps each request's connection as it is "
            "accepted, where the simulator looks at its connected peers only every 20 ms. "
            "Listener, service and TCP peers are served by different threads of the benchmark, "
            "so a thread scheduled late stamps late: on a busy machine a difference may even "
            "come out negative.");
    Table paths({"path", "triggers", "min", "p50", "p90", "p99", "max", "mean"});
    add_summary_row(paths, "trigger → `start` at the media-item service", reach.to_start);
    add_summary_row(paths, "trigger → `notify` at a listener", reach.to_notify);
    add_summary_row(paths, "`notify` → acknowledgement at the TCP peer", reach.ack_after_notify);
    paths.print();
    printf("%zu triggers sent; %zu notifies and %zu start requests arrived (%d malformed); "
           "%d triggers without acknowledgement.\n\n",
           message.triggers.size(), reach.notifies, reach.starts, media.malformed(),
           message.lost() + one_line.lost());

    heading("Trigger round trip with bursts",
            "Open loop: each connection sends at random moments (exponential gaps, mean " +
                fixed(options.mean_gap_ms, 0) +
                " ms) without waiting for acknowledgements, so a connection often has several "
                "triggers handled in one pass. \"queued\" triggers were sent while an earlier one "
                "of the same connection was still unacknowledged.");
    Table burst({"form", "triggers", "min", "p50", "p90", "p99", "max", "mean"});
    add_summary_row(burst, "`TRIGGER` message, all", burst_message.round_trips());
    add_summary_row(burst, "`TRIGGER` message, not queued", burst_message.round_trips(0));
    add_summary_row(burst, "`TRIGGER` message, queued", burst_message.round_trips(1));
    add_summary_row(burst, "`notify` → acknowledgement", burst_reach.ack_after_notify);
    add_summary_row(burst, "`ONE LINE TRIGGER`, all", burst_one_line.round_trips());
    burst.print();

    daemon.stop(daemon_limit);
    return 0;
}
