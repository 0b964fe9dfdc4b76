// The four peer faults of the classic daemon, with the peer limits of the
// [daemon] table on, in the classic loop and in the waking one: no peer
// holds a place, memory or the daemon's thread beyond its limit, and
// triggers are answered throughout.  Without the limits the same faults
// hold the daemon (tcp_flood_test.cpp, daemon_lifecycle_test.cpp).
//
// Bounds: four long lines; three peers of 1 MiB each at most; 1,000
// one-line triggers; four silent peers.  Each test ends within about 10 s;
// every wait is 15 s at most (60 s for the stream of triggers).  Each prints
// its figure (time from the fault to recovery, memory) on stdout.
#include "load_support.h"
#include "files.h"
#include "packet_peers.h"
#include "packets.h"
#include "proc.h"
#include "tcp.h"
#include "text.h"
#include "waiting.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace q9test;
using namespace q9load;

namespace {

constexpr uint64_t message_limit = 16384;
constexpr int stream_triggers = 1000;

long elapsed_ms(Clock::time_point since)
{
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count());
}

/// Sends what the kernel takes of `bytes` without waiting; the count sent.
size_t send_what_fits(int fd, const std::string& bytes)
{
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t sent = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent <= 0)
            break;
        done += static_cast<size_t>(sent);
    }
    return done;
}

class PeerLimitsLoad : public LoadTest, public testing::WithParamInterface<bool> {
protected:
    void SetUp() override
    {
        LoadTest::SetUp();
        write_config(minimal_config() + "[daemon]\nwake_on_input = " + (GetParam() ? "true" : "false") +
                     "\nclose_long_lines = true\nmax_message_bytes = " + std::to_string(message_limit) +
                     "\ntcp_idle_timeout_s = 1\nclient_send_timeout_ms = 500\n");
        ASSERT_TRUE(daemon->deliver(SIGHUP));
        ASSERT_TRUE(daemon->wait_for_stderr("Daemon settings: wake_on_input = "));
        // The warm-up's connections are gone, so every place is free.
        accepted = count_of(daemon->stderr_text(), "Accepted TCP client fd ");
    }
    void figure(const char* what, long value, const char* unit)
    {
        printf("figure %s %s: %ld %s\n", GetParam() ? "waking" : "classic", what, value, unit);
        RecordProperty(what, static_cast<int>(value));
    }
    /// The resident memory figures of the fault `what`.
    /// Every peer of `closed` is closed by the daemon; once they and `other`
    /// are gone, the daemon holds no more than before the fault.
    void expect_closed_and_nothing_kept(std::vector<std::unique_ptr<TcpPeer>>& closed, TcpPeer& other)
    {
        for (auto& peer : closed)
            EXPECT_TRUE(peer->wait_closed());
        closed.clear();
        other.close();
        expect_footprint_kept();
    }
    void resident_figures(const std::string& what)
    {
        figure((what + ": resident before").c_str(), before.resident_kib, "KiB");
        figure((what + ": resident after").c_str(), footprint_of(daemon->pid()).resident_kib, "KiB");
    }
    /// Connects `count` peers and waits until the daemon took each.
    void connect_peers(std::vector<std::unique_ptr<TcpPeer>>& peers, int count)
    {
        for (int i = 0; i < count; ++i) {
            peers.push_back(std::make_unique<TcpPeer>());
            ASSERT_TRUE(peers.back()->connected());
        }
        accepted += count;
        ASSERT_TRUE(daemon->wait_for_stderr("Accepted TCP client fd ", accepted));
    }

    int accepted = 0;
};

TEST_P(PeerLimitsLoad, FourLongLinesAreClosedAndAFifthPeerIsAnswered)
{
    std::vector<std::unique_ptr<TcpPeer>> long_lines;
    connect_peers(long_lines, 4);
    TcpPeer fifth;
    ASSERT_TRUE(fifth.send("TRIGGER\n\n"));
    auto fault = Clock::now();
    for (auto& peer : long_lines)
        ASSERT_TRUE(peer->send(std::string(1024, 'x')));
    EXPECT_EQ(fifth.receive(4), "OK\n\n");
    figure("long lines: fault to fifth peer answered", elapsed_ms(fault), "ms");
    EXPECT_TRUE(daemon->wait_for_stderr("protocol violation, text line too long\n", 4));
    expect_closed_and_nothing_kept(long_lines, fifth);
    EXPECT_EQ(count_of(daemon->stderr_text(), "Message: command='TRIGGER'"), 2);
    resident_figures("long lines");
}

TEST_P(PeerLimitsLoad, NeverEndingMessagesStopAtTheLimitAndMemoryStaysFlat)
{
    std::vector<std::unique_ptr<TcpPeer>> flooders;
    connect_peers(flooders, 3);
    std::string endless = "TRIGGER\n";
    while (endless.size() < (1u << 20))
        endless += "name=" + std::string(1000, 'v') + "\n";
    auto fault = Clock::now();
    size_t sent = 0;
    for (auto& peer : flooders)
        sent += send_what_fits(peer->fd(), endless);
    EXPECT_GT(sent, 3 * message_limit);
    // A trigger during the fault takes the fourth place and is answered.
    EXPECT_TRUE(trigger_acknowledged());
    EXPECT_TRUE(daemon->wait_for_stderr(" message longer than 16384 bytes, closing\n", 3));
    for (auto& peer : flooders)
        EXPECT_TRUE(peer->wait_closed());
    figure("endless messages: fault to all three closed", elapsed_ms(fault), "ms");
    EXPECT_EQ(count_of(daemon->stderr_text(), "Message: command='TRIGGER'"), 2);
    flooders.clear();
    EXPECT_TRUE(trigger_acknowledged());
    expect_footprint_kept();
    figure("endless messages: bytes sent by the peers", static_cast<long>(sent), "bytes");
    resident_figures("endless messages");
}

TEST_P(PeerLimitsLoad, ListenerThatNeverReadsIsDroppedWhileEveryTriggerIsAnswered)
{
    int stuck = connect_unix(service_path);
    ASSERT_GE(stuck, 0);
    ASSERT_TRUE(send_all(stuck, request_frame(reply_wanted_flags, "register", {{"triggers", "*"}})));
    auto reader = std::make_unique<PacketClient>();
    Packet reply;
    ASSERT_TRUE(reader->request(reply, "register", {{"triggers", "*"}}));
    std::atomic<int> notified{0};
    std::thread reading([&] {
        Packet packet;
        while (notified < stream_triggers && reader->receive(packet))
            notified += packet.command == "notify" ? 1 : 0;
    });
    std::string stream;
    for (int i = 0; i < stream_triggers; ++i)
        stream += "ONE LINE TRIGGER\n";
    TcpPeer streamer;
    auto fault = Clock::now();
    ASSERT_TRUE(streamer.send(stream));
    // The longest the streamer waited for its next reply: the stuck
    // listener's pass is in it.
    std::string replies;
    long longest_gap = 0;
    auto last_reply = Clock::now();
    auto deadline = Clock::now() + std::chrono::seconds(60);
    while (replies.size() < 3 * stream_triggers && Clock::now() < deadline) {
        std::string arrived = streamer.receive(1, std::chrono::milliseconds(100));
        if (arrived.empty())
            continue;
        longest_gap = std::max(longest_gap, elapsed_ms(last_reply));
        last_reply = Clock::now();
        replies += arrived + streamer.available();
    }
    figure("stuck listener: 1000 triggers answered", elapsed_ms(fault), "ms");
    figure("stuck listener: longest wait for a reply", longest_gap, "ms");
    reading.join();
    size_t oks = static_cast<size_t>(count_of(replies, "OK\n"));
    EXPECT_EQ(oks, static_cast<size_t>(stream_triggers));
    EXPECT_EQ(notified, stream_triggers);
    EXPECT_TRUE(daemon->wait_for_stderr(" took no packet for 500 ms, disconnecting\n"));
    EXPECT_EQ(count_of(daemon->stderr_text(), " took no packet for "), 1);
    EXPECT_TRUE(daemon->wait_for_stderr("* disconnected client\n", 2));
    // Nothing more reaches the dropped listener: it reads its end.
    char byte;
    ssize_t length;
    while ((length = recv(stuck, &byte, 1, MSG_DONTWAIT)) > 0) {
    }
    EXPECT_EQ(length, 0);
    close(stuck);
    reader.reset();
    streamer.close();
    expect_footprint_kept();
    resident_figures("stuck listener");
}

TEST_P(PeerLimitsLoad, SilentPeersAreClosedAndAWaitingPeerGetsAPlace)
{
    std::vector<std::unique_ptr<TcpPeer>> silent;
    connect_peers(silent, 4);
    auto fault = Clock::now();
    TcpPeer waiting;
    ASSERT_TRUE(waiting.send("TRIGGER\n\n"));
    EXPECT_EQ(waiting.receive(4), "OK\n\n");
    figure("silent peers: waiting peer answered after", elapsed_ms(fault), "ms");
    expect_closed_and_nothing_kept(silent, waiting);
    EXPECT_GE(count_of(daemon->stderr_text(), " idle for 1 s, closing\n"), 4);
}

INSTANTIATE_TEST_SUITE_P(Loop, PeerLimitsLoad, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& info) {
                             return info.param ? "Waking" : "Classic";
                         });

}  // namespace
