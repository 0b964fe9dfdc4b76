// Notification fan-out: one trigger, 64 listening local clients.  How long
// from the first client receiving the trigger's notify to the last?
//
// The daemon sends the notifies one client after the other from its single
// thread.  The clients are served by one thread of this program that waits
// on all their sockets and stamps each notify as it takes it from its socket,
// so the spread seen here is the daemon's sending plus this thread's own
// reading.  The daemon runs with the pass probe, whose per-pass work time
// bounds the daemon's part from above.
//
// Then the cost of one notify: the daemon's CPU time and heap allocations in
// the pass that handles a trigger, with no listener, one and 64, beside the
// floor: the CPU time of a plain send() of the same frame to a local reader
// that drains it, measured in this process once the daemon has stopped.
#include "command_line.h"
#include "frame.h"
#include "peers.h"
#include "probes.h"
#include "stats.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>

using namespace q9bench;

namespace {

constexpr size_t listeners = 64;

struct Spread {
    std::vector<double> first_to_last, send_to_first, send_to_last;
    int incomplete = 0;
};

/// The daemon's work in the passes that handled one trigger each, and in
/// the idle pass just before each of them.
struct TriggerPasses {
    std::vector<double> cpu_us, idle_cpu_us;
    std::vector<double> allocations, idle_allocations;
    /// Per trigger: its pass less the idle pass before it, which leaves out
    /// what every pass costs with these clients connected.
    std::vector<double> work_cpu_us, work_allocations;
    int unanswered = 0;
};

std::string trigger_message(int seq)
{
    return "TRIGGER\nseq=" + std::to_string(seq) + "\nsource=bench\n\n";
}

double thread_cpu_us()
{
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return now.tv_sec * 1e6 + now.tv_nsec / 1e3;
}

// Waits for the "OK\n\n" of one trigger on the non-blocking connection.
bool acknowledged(int fd)
{
    size_t got = 0;
    return q9test::wait_until(
        [&] {
            char ack[4];
            ssize_t length = recv(fd, ack, sizeof(ack) - got, 0);
            if (length > 0)
                got += static_cast<size_t>(length);
            return got == sizeof(ack);
        },
        std::chrono::milliseconds(5000));
}

// Sends each trigger right after a pass border, while the daemon sleeps, so
// that the pass after it handles the trigger alone, and records that pass
// and the idle pass before it.
TriggerPasses handle_triggers(const ProbeReader& probe, TriggerConnection& connection,
                              int triggers)
{
    char stale[256];
    while (recv(connection.fd(), stale, sizeof(stale), 0) > 0) {
    }
    TriggerPasses passes;
    for (int i = 0; i < triggers; ++i) {
        uint64_t idle = probe.passes();
        probe.wait_passes(idle, 1);
        uint64_t pass = probe.passes();
        std::string message = trigger_message(i);
        send(connection.fd(), message.data(), message.size(), MSG_NOSIGNAL);
        if (!acknowledged(connection.fd()) || !probe.wait_passes(pass, 1)) {
            ++passes.unanswered;
            continue;
        }
        PassRecord before = probe.records(idle, idle + 1).at(0);
        PassRecord record = probe.records(pass, pass + 1).at(0);
        passes.cpu_us.push_back(record.cpu_ns / 1e3);
        passes.idle_cpu_us.push_back(before.cpu_ns / 1e3);
        passes.work_cpu_us.push_back((double(record.cpu_ns) - double(before.cpu_ns)) / 1e3);
        passes.allocations.push_back(static_cast<double>(record.allocations));
        passes.idle_allocations.push_back(static_cast<double>(before.allocations));
        passes.work_allocations.push_back(double(record.allocations) - double(before.allocations));
    }
    return passes;
}

// The bytes of the notify that the daemon sends for trigger_message(seq).
std::string notify_frame(int seq)
{
    comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
    comm_socket_v4_packet_begin_writing(packet, 0, "notify", "OK");
    comm_socket_v4_packet_write_argv(packet, "TRIGGER");
    comm_socket_v4_packet_write_argv_end(packet);
    comm_socket_v4_packet_write_nv_pair(packet, "seq", std::to_string(seq).c_str());
    comm_socket_v4_packet_write_nv_pair(packet, "source", "bench");
    comm_socket_v4_packet_write_end(packet);
    frame_stamp(packet->data, COMM_SOCKET_V4_MODE_BIT, 0, 0);
    std::string frame(reinterpret_cast<const char*>(packet->data), frame_length(packet->data));
    comm_socket_v4_packet_release(packet);
    return frame;
}

/// CPU time of the sending thread per send, one sample per round of sends.
struct Floor {
    std::vector<double> cpu_us_per_send;
    size_t frame_bytes = 0;
};

// The floor of a notify: a round sends the frame once to each of `readers`
// local stream sockets, whose one reader thread waits in poll() on all of
// them and drains what arrives, as the benchmark's listeners do.  Each round
// starts once the reader is back in poll(), and is timed on the sending
// thread's CPU clock.
Floor measure_floor(size_t readers, int rounds)
{
    Floor floor;
    std::string frame = notify_frame(0);
    floor.frame_bytes = frame.size();
    std::vector<int> senders, receivers;
    for (size_t i = 0; i < readers; ++i) {
        int pair[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0)
            return floor;
        senders.push_back(pair[0]);
        receivers.push_back(pair[1]);
    }
    std::atomic<uint64_t> drained{0};
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        std::vector<pollfd> ready(receivers.size());
        std::vector<char> buffer(65536);
        while (!stop) {
            for (size_t i = 0; i < receivers.size(); ++i)
                ready[i] = {receivers[i], POLLIN, 0};
            if (poll(ready.data(), ready.size(), 50) <= 0)
                continue;
            for (size_t i = 0; i < receivers.size(); ++i) {
                ssize_t length;
                if (ready[i].revents != 0 &&
                    (length = recv(receivers[i], buffer.data(), buffer.size(), MSG_DONTWAIT)) > 0)
                    drained += static_cast<uint64_t>(length);
            }
        }
    });
    for (int round = 0; round < rounds; ++round) {
        sleep_ms(2);
        double start = thread_cpu_us();
        for (int fd : senders)
            send(fd, frame.data(), frame.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        floor.cpu_us_per_send.push_back((thread_cpu_us() - start) / readers);
        uint64_t expected = (round + 1) * readers * frame.size();
        q9test::wait_until([&] { return drained.load() >= expected; },
                           std::chrono::milliseconds(5000));
    }
    stop = true;
    reader.join();
    for (size_t i = 0; i < readers; ++i) {
        close(senders[i]);
        close(receivers[i]);
    }
    return floor;
}

double median(std::vector<double> samples)
{
    return summarize(std::move(samples)).p50;
}

void print_notify_cost(const TriggerPasses& none, const TriggerPasses& one,
                       const TriggerPasses& all, const Floor& floor)
{
    std::string many = std::to_string(listeners);
    heading("Cost of a notify",
            "CPU time of the daemon's thread (from the pass probe) and heap allocations in the "
            "pass that handles one `TRIGGER` (2 pairs) and in the idle pass before it, with no "
            "listening local client, one and " + many +
                "; a trigger's work is its pass less the idle pass before it. The floor is a plain "
                "`send()` of the same " + std::to_string(floor.frame_bytes) +
                "-byte frame, once to each of " + many +
                " local stream sockets whose one reader waits in `poll()` and drains them, timed "
                "on the sending thread's CPU clock in this process after the daemon stopped.");
    Table table({"listeners", "triggers", "trigger pass CPU µs p50", "idle pass CPU µs p50",
                 "trigger's work CPU µs p50", "p90", "trigger pass allocations p50",
                 "idle pass allocations p50"});
    auto row = [&](const std::string& name, const TriggerPasses& passes) {
        Summary work = summarize(passes.work_cpu_us);
        table.add({name, std::to_string(work.count), fixed(median(passes.cpu_us), 1),
                   fixed(median(passes.idle_cpu_us), 1), fixed(work.p50, 1), fixed(work.p90, 1),
                   fixed(median(passes.allocations), 0), fixed(median(passes.idle_allocations), 0)});
    };
    row("none", none);
    row("1", one);
    row(many, all);
    table.print();
    double per_notify = (median(all.work_cpu_us) - median(none.work_cpu_us)) / listeners;
    double per_further = (median(all.work_cpu_us) - median(one.work_cpu_us)) / (listeners - 1);
    double allocations_further =
        (median(all.work_allocations) - median(one.work_allocations)) / (listeners - 1);
    Summary floor_us = summarize(floor.cpu_us_per_send);
    Table derived({"per notify (from the p50s)", "value"});
    derived.add({"CPU µs per notify, " + many + " listeners (work less the work without listener)",
                 fixed(per_notify, 2)});
    derived.add({"CPU µs per further listener (work with " + many + " less with 1)",
                 fixed(per_further, 2)});
    derived.add({"floor: CPU µs per send, p50 (p90) of " + std::to_string(floor_us.count) +
                     " rounds",
                 fixed(floor_us.p50, 2) + " (" + fixed(floor_us.p90, 2) + ")"});
    derived.add({"CPU per notify / floor", fixed(per_notify / floor_us.p50, 2)});
    derived.add({"allocations per notify after the first listener", fixed(allocations_further, 2)});
    derived.print();
    int unanswered = none.unanswered + one.unanswered + all.unanswered;
    if (unanswered > 0)
        printf("%d triggers were not acknowledged within 5 s.\n\n", unanswered);
}

}  // namespace

int main(int argc, char** argv)
{
    int triggers = static_cast<int>(option(argc, argv, "triggers", 100));
    std::string probe_path = probe_file("fanout");
    ProbeReader probe(probe_path);
    auto daemon = start_probed_daemon(probe_path);
    if (!daemon)
        return 1;
    TriggerConnection connection;
    if (!connection.connected()) {
        fprintf(stderr, "fanout: the trigger connection could not connect\n");
        return 1;
    }
    TriggerPasses none = handle_triggers(probe, connection, triggers);
    TriggerPasses one;
    {
        ListenerGroup single(1, false);
        if (!single.ready()) {
            fprintf(stderr, "fanout: the single listener could not register\n");
            return 1;
        }
        one = handle_triggers(probe, connection, triggers);
    }
    ListenerGroup group(listeners);
    if (!group.ready()) {
        fprintf(stderr, "fanout: the clients could not register\n");
        return 1;
    }

    Spread spread;
    uint64_t first_pass = probe.passes();
    for (int i = 0; i < triggers; ++i) {
        std::string seq = std::to_string(i);
        std::string message = trigger_message(i);
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
    group.clear();
    TriggerPasses all = handle_triggers(probe, connection, triggers);

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
    print_notify_cost(none, one, all, measure_floor(listeners, triggers));
    return 0;
}
