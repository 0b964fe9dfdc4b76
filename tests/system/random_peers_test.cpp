// Robustness against TCP peers that send anything at all: four peers pour
// random bytes, stray lines and well-formed messages into the trigger port
// at once, while a local listener takes the notifications.  The daemon must
// stay up, keep its books straight and go on serving newcomers.
//
// Q9_RANDOM_PEERS_SECONDS sets the length of the run (10 s by default) and
// Q9_RANDOM_PEERS_SEED repeats a run; the seed is printed with the results.

#include "daemon.h"
#include "packet_peers.h"
#include "packets.h"
#include "tcp.h"
#include "text.h"
#include "waiting.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <random>
#include <sstream>

using namespace q9test;

namespace {

// Below the daemon's intake of 2560 bytes per pass and connection, so that
// little is left in flight when a peer closes.
constexpr double kBytesPerSecond = 6000;
// A line this long never stalls a connection, which holds lines of 1023
// characters at most.
constexpr size_t kSteadyLineLimit = 512;

int run_seconds()
{
    const char* text = getenv("Q9_RANDOM_PEERS_SECONDS");
    return text != nullptr && atoi(text) > 0 ? atoi(text) : 10;
}

uint64_t run_seed()
{
    const char* text = getenv("Q9_RANDOM_PEERS_SEED");
    return text != nullptr ? std::strtoull(text, nullptr, 0) : std::random_device{}();
}

// One piece of what a peer sends: raw bytes, printable noise with line ends
// and equals signs, blank lines, or a well-formed message; now and then a
// line long enough to stall the connection.
std::string random_chunk(std::mt19937_64& rng)
{
    auto pick = [&rng](size_t count) { return static_cast<size_t>(rng() % count); };
    static const std::string noise = "abcXYZ019 ==\t\r\n\n\nTRIGGER-'\"\x7f\x80\xff";
    static const char* const commands[] = {"TRIGGER", "CUE", "trigger", "ONE LINE TRIGGER "};
    std::string chunk;
    switch (pick(8)) {
    case 0:
    case 1:
        for (size_t i = pick(128) + 1; i > 0; --i)
            chunk += static_cast<char>(rng());
        break;
    case 2:
        for (size_t i = pick(160) + 1; i > 0; --i)
            chunk += noise[pick(noise.size())];
        break;
    case 3:
        chunk = pick(2) ? std::string(pick(4) + 1, '\n') : " \t\r\n";
        break;
    case 4:
        chunk = "ONE LINE TRIGGER\n";
        break;
    case 5:
    case 6:
        chunk = std::string(commands[pick(4)]) + "\r\n";
        for (size_t i = pick(5); i > 0; --i)
            chunk += std::string(1, "abcdef"[pick(6)]) + "=" + std::to_string(pick(1000)) + "\n";
        chunk += "\n";
        break;
    default:
        chunk = pick(3000) == 0 ? std::string(1100, 'L') : "TRIGGER\n\n";
        break;
    }
    return chunk;
}

// One of the four peers.  A steady peer's lines stay short, so that it can
// never stall and its place is freed when it closes.
struct RandomPeer {
    std::unique_ptr<TcpPeer> connection = std::make_unique<TcpPeer>();
    bool steady = false;
    std::string pending;
    size_t since_linefeed = 0;
    uint64_t sent = 0;
    uint64_t received = 0;
    Clock::time_point last_reply{};
    int reconnects = 0;

    void add(const std::string& chunk)
    {
        for (char byte : chunk) {
            if (steady && since_linefeed >= kSteadyLineLimit) {
                pending += '\n';
                since_linefeed = 0;
            }
            pending += byte;
            since_linefeed = byte == '\n' ? 0 : since_linefeed + 1;
        }
    }

    // Sends what the pace allows without waiting, and takes the replies in.
    void exchange(std::mt19937_64& rng, double allowance)
    {
        if (pending.empty())
            add(random_chunk(rng));
        size_t budget = allowance > static_cast<double>(sent) ? static_cast<size_t>(allowance - sent) : 0;
        size_t length = std::min(budget, pending.size());
        ssize_t written = length == 0 ? 0 : ::send(connection->fd(), pending.data(), length,
                                                   MSG_DONTWAIT | MSG_NOSIGNAL);
        bool send_failed = written < 0 && errno != EAGAIN;
        if (written > 0) {
            pending.erase(0, static_cast<size_t>(written));
            sent += static_cast<uint64_t>(written);
        }
        char buffer[4096];
        ssize_t length_read;
        while ((length_read = recv(connection->fd(), buffer, sizeof(buffer), MSG_DONTWAIT)) > 0) {
            received += static_cast<uint64_t>(length_read);
            last_reply = Clock::now();
        }
        // The daemon drops only connections it could not answer; a fresh one
        // takes the freed place.
        if (length_read == 0 || (length_read < 0 && errno != EAGAIN) || send_failed) {
            connection = std::make_unique<TcpPeer>();
            pending.clear();
            since_linefeed = 0;
            ++reconnects;
        }
    }
};

// Takes in every notification that has arrived; their number.
int drain(PacketClient& listener)
{
    int count = 0;
    Packet packet;
    while (listener.receive(packet, std::chrono::milliseconds(0)))
        count += packet.command == "notify";
    return count;
}

// Number of trigger messages the daemon handled, from its stderr listing.
int triggers_handled(const Daemon& daemon)
{
    std::istringstream err(daemon.stderr_text());
    std::string line;
    int count = 0;
    while (std::getline(err, line))
        count += line == "Message: command='TRIGGER'" || line == "Message: command='ONE LINE TRIGGER'";
    return count;
}

TEST(RandomPeers, RandomBytesFromFourPeersNeitherCrashTheDaemonNorStopItServingOthers)
{
    write_config(minimal_config());
    Daemon daemon;
    ASSERT_TRUE(daemon.wait_until_running());
    uint64_t seed = run_seed();
    int seconds = run_seconds();
    SCOPED_TRACE("Q9_RANDOM_PEERS_SEED=" + std::to_string(seed));
    std::mt19937_64 rng(seed);
    PacketClient listener;
    Packet reply;
    ASSERT_TRUE(listener.request(reply, "register", {{"triggers", "*"}}));
    std::vector<RandomPeer> peers(4);
    peers[3].steady = true;

    int notifications = 0;
    auto start = Clock::now();
    while (Clock::now() - start < std::chrono::seconds(seconds) && daemon.running()) {
        double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        for (RandomPeer& peer : peers)
            peer.exchange(rng, elapsed * kBytesPerSecond);
        notifications += drain(listener);
        struct timespec pause = {0, 2 * 1000 * 1000};
        nanosleep(&pause, nullptr);
    }
    ASSERT_TRUE(daemon.running()) << daemon.stderr_text();

    TcpPeer fifth;
    ASSERT_TRUE(fifth.send("ONE LINE TRIGGER\n"));
    peers[3].connection->close();
    EXPECT_EQ(fifth.receive(3), "OK\n");
    EXPECT_TRUE(wait_until([&] {
        notifications += drain(listener);
        return notifications == triggers_handled(daemon);
    })) << notifications << " notifications for " << triggers_handled(daemon) << " triggers";
    EXPECT_TRUE(listener.request(reply, "test"));
    EXPECT_EQ(reply.status, "OK");
    EXPECT_EQ(daemon.stderr_text().find("protocol violation"), std::string::npos);

    std::cout << "seed " << seed << ", " << seconds << " s, " << notifications << " notifications, "
              << count_of(daemon.stderr_text(), "Message: command=") << " messages handled\n";
    for (size_t i = 0; i < peers.size(); ++i)
        std::cout << "peer " << i << (peers[i].steady ? " (steady)" : "") << ": " << peers[i].sent
                  << " bytes sent, " << peers[i].received << " reply bytes, the last after "
                  << std::chrono::duration<double>(peers[i].last_reply - start).count() << " s, "
                  << peers[i].reconnects << " reconnects\n";
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.wait_exit(), 0);
}

}  // namespace
