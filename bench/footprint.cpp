// Footprint: resident memory and open descriptors of the daemon at idle,
// while and after it handles 100,000 triggers, and while and after 10,000
// local clients come and go.  Memory and descriptors should stay flat
// however much work the daemon has done.
//
// The triggers go out as fast as the daemon reads them: one-line triggers
// back to back over four connections, many per segment, so the daemon's
// intake budget sets the pace.  One listening local client and one
// persistent media item are registered, so each trigger takes the whole
// path.  The clients come in rounds: all of a round connect, register for
// every trigger, get their reply and hang up.
#include "files.h"
#include "peers.h"
#include "proc.h"
#include "probes.h"
#include "stats.h"

#include <poll.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>
#include <sstream>

using namespace q9bench;

namespace {

constexpr int trigger_total = 100000;
constexpr int trigger_connections = 4;
constexpr int client_total = 10000;
constexpr int client_round = 250;

// Size of the daemon's brk heap in KiB, from its memory map.
long heap_kib(pid_t pid)
{
    std::istringstream maps(q9test::read_file("/proc/" + std::to_string(pid) + "/maps"));
    std::string line;
    long total = 0;
    while (std::getline(maps, line)) {
        if (line.find("[heap]") == std::string::npos)
            continue;
        unsigned long start = 0, end = 0;
        sscanf(line.c_str(), "%lx-%lx", &start, &end);
        total += static_cast<long>((end - start) / 1024);
    }
    return total;
}

class Footprint {
public:
    explicit Footprint(pid_t pid)
        : pid_(pid), table_({"point", "triggers", "clients", "RSS KiB", "anonymous KiB", "file KiB",
                             "peak RSS KiB", "heap KiB", "descriptors"})
    {
    }
    void sample(const std::string& point, uint64_t triggers, uint64_t clients)
    {
        table_.add({point, grouped(triggers), grouped(clients), grouped(q9test::resident_kib(pid_)),
                    grouped(q9test::status_kib(pid_, "RssAnon")),
                    grouped(q9test::status_kib(pid_, "RssFile")),
                    grouped(q9test::status_kib(pid_, "VmHWM")), grouped(heap_kib(pid_)),
                    std::to_string(q9test::open_descriptor_count(pid_))});
    }
    void print() const { table_.print(); }

private:
    pid_t pid_;
    Table table_;
};

// One connection's share of the triggers; counts the acknowledgements.
void send_triggers(int count, std::atomic<uint64_t>& acknowledged)
{
    TriggerConnection connection;
    // "OK\n" per one-line trigger.
    uint64_t counted = 0;
    send_and_collect(connection, repeated("ONE LINE TRIGGER\n", count), 3u * count, 600e6,
                     [&](size_t reply_bytes) {
                         acknowledged += reply_bytes / 3 - counted;
                         counted = reply_bytes / 3;
                     });
}

// Connects a round of clients, registers each, and hangs them all up.
int client_round_trip(int count)
{
    std::vector<comm_socket_v4*> clients;
    for (int i = 0; i < count; ++i) {
        comm_socket_v4* sock = comm_socket_v4_create();
        if (comm_socket_v4_connect_to(sock, q9test::service_path) != 0) {
            comm_socket_v4_destroy(sock);
            continue;
        }
        clients.push_back(sock);
    }
    int answered = 0;
    for (comm_socket_v4* sock : clients) {
        q9test::wait_until([&] { return comm_socket_v4_idle(sock) < 0 || (sock->established & 1); });
        comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
        packet->flags = q9test::reply_wanted_flags;
        q9test::write_packet(packet, "register", "", {}, {{"triggers", "*"}});
        comm_socket_v4_packet_send_to_server(sock, packet);
        comm_socket_v4_packet_release(packet);
        comm_socket_v4_idle(sock);
    }
    for (comm_socket_v4* sock : clients) {
        comm_socket_v4_packet* reply = nullptr;
        q9test::wait_until([&] {
            if (comm_socket_v4_idle(sock) < 0)
                return true;
            reply = comm_socket_v4_client_get_packet_from_server(sock);
            return reply != nullptr;
        });
        answered += reply != nullptr;
        comm_socket_v4_packet_release(reply);
        comm_socket_v4_close(sock);
        comm_socket_v4_destroy(sock);
    }
    return answered;
}

}  // namespace

int main()
{
    q9test::write_config(q9test::minimal_config());
    MediaItemService media;
    q9test::Daemon daemon;
    if (!daemon.wait_until_running(daemon_limit)) {
        fprintf(stderr, "footprint: the daemon did not come up\n");
        return 1;
    }
    Footprint footprint(daemon.pid());
    sleep_ms(1000);
    footprint.sample("idle after start", 0, 0);

    bool item = service_request("register", {{"target", "bench-item"}});
    auto listener = std::make_unique<ListenerGroup>(1, false);
    if (!item || !listener->ready()) {
        fprintf(stderr, "footprint: registration failed\n");
        return 1;
    }
    std::atomic<uint64_t> acknowledged{0};
    std::vector<std::thread> senders;
    double start = now_us();
    for (int i = 0; i < trigger_connections; ++i)
        senders.emplace_back([&] { send_triggers(trigger_total / trigger_connections, acknowledged); });
    for (uint64_t mark = trigger_total / 4; mark <= trigger_total; mark += trigger_total / 4) {
        q9test::wait_until([&] { return acknowledged >= mark; }, std::chrono::milliseconds(300000));
        footprint.sample("triggers handled", acknowledged, 0);
    }
    for (auto& sender : senders)
        sender.join();
    double trigger_seconds = (now_us() - start) / 1e6;
    q9test::wait_until([&] { return listener->received() >= acknowledged; });
    uint64_t notified = listener->received();
    listener.reset();
    sleep_ms(1000);
    footprint.sample("idle after the triggers", acknowledged, 0);

    int answered = 0;
    int idle_descriptors = q9test::open_descriptor_count(daemon.pid());
    start = now_us();
    for (int done = 0; done < client_total;) {
        answered += client_round_trip(client_round);
        done += client_round;
        if (done % (client_total / 4) != 0)
            continue;
        // Sampled once the daemon has seen the round hang up.
        q9test::wait_until([&] { return q9test::open_descriptor_count(daemon.pid()) <= idle_descriptors; },
                           std::chrono::milliseconds(3000));
        footprint.sample("clients came and went", acknowledged, done);
    }
    double client_seconds = (now_us() - start) / 1e6;
    sleep_ms(1000);
    footprint.sample("idle after the clients", acknowledged, client_total);

    heading("Footprint",
            "Resident memory (VmRSS, split into anonymous and file-backed pages, and the peak "
            "VmHWM), the size of the daemon's brk heap, and its open descriptors. Target: "
            "under 6 MiB and flat, descriptors flat. At idle the descriptors are the three "
            "standard ones, the lock on the executable, the TCP listener, the command service "
            "and syslog; while triggers arrive, the four TCP peers, the listening client and a "
            "media-item request come and go.");
    footprint.print();
    printf("%s triggers acknowledged in %.1f s (%s start requests, %s notifies); %d of %d "
           "clients answered, in %.1f s.\n\n",
           grouped(acknowledged).c_str(), trigger_seconds, grouped(media.arrivals().size()).c_str(),
           grouped(notified).c_str(), answered, client_total, client_seconds);
    daemon.stop(daemon_limit);
    return 0;
}
