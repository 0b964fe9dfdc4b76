// The opt-in limits of a TCP trigger connection: close_long_lines,
// max_message_bytes and tcp_idle_timeout_s, on one connection and through
// the listener in both kinds of main loop.  Without them the classic
// behaviour holds (tcp_trigger_client_test.cpp, trigger_listener_test.cpp).
#include "appliance_util.h"
#include "config/daemon_settings.h"
#include "trigger/trigger_listener.h"

#include "daemon.h"
#include "trigger_test_support.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace trigger_test;

namespace {

constexpr uint64_t one_second_us = 1000000;

std::string fd_line(const char* format, int fd)
{
    char text[200];
    snprintf(text, sizeof(text), format, fd);
    return text;
}

// True once `peer` reads the end of the stream, or a reset (the daemon
// closed with bytes of the peer unread), before any byte.
bool closed_without_bytes(int peer)
{
    ssize_t result = -1;
    int error = 0;
    wait_until([&] {
        char byte;
        result = recv(peer, &byte, 1, MSG_DONTWAIT);
        error = errno;
        return result >= 0 || error != EAGAIN;
    });
    return result == 0 || (result < 0 && error == ECONNRESET);
}

int count_of(const std::string& text, const std::string& needle)
{
    int count = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
        ++count;
    return count;
}

class PeerLimits : public testing::Test {
protected:
    void TearDown() override { daemon_settings = DaemonSettings(); }
};

using LineLimit = PeerLimits;
using MessageLimit = PeerLimits;

TEST_F(LineLimit, LineOf1024CharactersClosesItsConnection)
{
    daemon_settings.close_long_lines = true;
    PairedClient paired;
    send_text(paired.peer, std::string(1024, 'a'));
    std::string printed;
    for (int call = 0; call < 4; ++call)
        printed += paired.idle_once();
    EXPECT_EQ(printed, fd_line("TCP client fd %d protocol violation, text line too long\n", paired.fd));
    EXPECT_EQ(paired.result, -1);
    EXPECT_EQ(paired.client.sock_fd, -1);
    EXPECT_TRUE(closed_without_bytes(paired.peer));
}

TEST_F(LineLimit, LineOf1023CharactersIsStillProcessed)
{
    daemon_settings.close_long_lines = true;
    PairedClient paired;
    paired.feed(std::string(1023, 'a') + "\n");
    for (int call = 0; call < 5; ++call)
        paired.idle_once();
    paired.feed("\n");
    EXPECT_EQ(paired.result, 0);
    EXPECT_EQ(receive_at_least(paired.peer, 4), "OK\n\n");
}

TEST_F(LineLimit, LongFurtherLineClosesTooWithTheMessageUnhandled)
{
    daemon_settings.close_long_lines = true;
    PairedClient paired;
    paired.feed("TRIGGER\n" + std::string(1100, 'b'));
    std::string printed;
    for (int call = 0; call < 6 && paired.client.sock_fd >= 0; ++call)
        printed += paired.idle_once();
    EXPECT_EQ(printed, fd_line("TCP client fd %d protocol violation, text line too long\n", paired.fd));
    EXPECT_EQ(paired.client.sock_fd, -1);
    EXPECT_TRUE(closed_without_bytes(paired.peer));
}

TEST_F(LineLimit, LineStalledBeforeTheSettingIsClosedAtTheNextRead)
{
    PairedClient paired;
    paired.feed(std::string(1024, 'a'));
    for (int call = 0; call < 4; ++call)
        paired.idle_once();
    ASSERT_TRUE(paired.client.stalled());
    EXPECT_EQ(paired.idle_once(), "");
    EXPECT_EQ(paired.result, 0);
    daemon_settings.close_long_lines = true;
    EXPECT_EQ(paired.idle_once(),
              fd_line("TCP client fd %d protocol violation, text line too long\n", paired.fd));
    EXPECT_EQ(paired.result, -1);
}

// Feeds `input` under a message limit of 9 bytes: the connection stays open
// and answers `replies`.
void expect_answered_within_nine_bytes(const std::string& input, const std::string& replies)
{
    daemon_settings.max_message_bytes = 9;
    PairedClient paired;
    paired.feed(input);
    EXPECT_EQ(paired.result, 0);
    EXPECT_EQ(receive_at_least(paired.peer, replies.size()), replies);
}

TEST_F(MessageLimit, MessageOfExactlyTheLimitIsHandledAndAnswered)
{
    expect_answered_within_nine_bytes("TRIGGER\n\n", "OK\n\n");
}

TEST_F(MessageLimit, BlankLinesAndBlanksBetweenMessagesDoNotCount)
{
    expect_answered_within_nine_bytes("\n\r\n \t\nTRIGGER\n\n\n \nTRIGGER\n\n", "OK\n\nOK\n\n");
}

TEST_F(MessageLimit, OneByteOverTheLimitClosesUnhandledAndUnanswered)
{
    daemon_settings.max_message_bytes = 8;
    PairedClient paired;
    std::string printed = paired.feed("TRIGGER\n\n");
    EXPECT_EQ(printed, fd_line("TCP client fd %d message longer than 8 bytes, closing\n", paired.fd));
    EXPECT_EQ(paired.result, -1);
    EXPECT_TRUE(closed_without_bytes(paired.peer));
}

TEST_F(MessageLimit, OneLineTriggerCountsItsSeventeenBytes)
{
    daemon_settings.max_message_bytes = 17;
    PairedClient accepted;
    accepted.feed("ONE LINE TRIGGER\n");
    EXPECT_EQ(receive_at_least(accepted.peer, 3), "OK\n");
    daemon_settings.max_message_bytes = 16;
    PairedClient refused;
    EXPECT_EQ(refused.feed("ONE LINE TRIGGER\n"),
              fd_line("TCP client fd %d message longer than 16 bytes, closing\n", refused.fd));
}

TEST_F(MessageLimit, NeverEndingMessageStopsAtTheLimit)
{
    daemon_settings.max_message_bytes = 4096;
    PairedClient paired;
    send_text(paired.peer, "TRIGGER\n");
    std::string printed;
    for (int round = 0; round < 100 && paired.client.sock_fd >= 0; ++round) {
        send_text(paired.peer, "name=" + std::to_string(round) + std::string(90, 'v') + "\n");
        printed += paired.idle_once();
    }
    EXPECT_EQ(printed, fd_line("TCP client fd %d message longer than 4096 bytes, closing\n", paired.fd));
    EXPECT_EQ(paired.client.bytes_read, 4097u);
    EXPECT_EQ(paired.client.message_bytes, 4097u);
}

TEST_F(MessageLimit, WithoutTheLimitTheSameStreamIsCollectedWhole)
{
    PairedClient paired;
    send_text(paired.peer, "TRIGGER\n");
    for (int round = 0; round < 100; ++round) {
        send_text(paired.peer, "name=" + std::to_string(round) + std::string(90, 'v') + "\n");
        EXPECT_EQ(paired.idle_once(), "");
    }
    EXPECT_EQ(paired.client.sock_fd, paired.fd);
    EXPECT_EQ(paired.client.nv_pairs.at("name").size(), 100u * 93u - 1 - 10);
}

// The listener on the sandbox's port 9876 with trigger peers, in the
// classic step and in the waking loop's step.
class ListenerLimits : public PeerLimits {
protected:
    void SetUp() override { ASSERT_EQ(tcp_trigger_open(), 0); }
    void TearDown() override
    {
        drop_all_tcp_clients();
        tcp_trigger_close();
        for (int peer : peers)
            close(peer);
        PeerLimits::TearDown();
    }

    int connect_peer()
    {
        int peer = q9test::connect_loopback(q9test::trigger_port);
        EXPECT_GE(peer, 0);
        peers.push_back(peer);
        return peer;
    }
    // Steps until `count` connections are open; what the steps printed.
    static std::string step_until_open(size_t count)
    {
        testing::internal::CaptureStderr();
        wait_until([&] {
            service_all_tcp_clients();
            return tcp_clients.size() == count;
        });
        return testing::internal::GetCapturedStderr();
    }
    /// Sends a trigger from `peer` and steps until its answer came.
    static std::string answer_to_trigger(int peer)
    {
        send_text(peer, "TRIGGER\n\n");
        std::string reply;
        testing::internal::CaptureStderr();
        wait_until([&] {
            service_all_tcp_clients();
            reply += receive_available(peer);
            return reply.size() >= 4;
        });
        testing::internal::GetCapturedStderr();
        return reply;
    }
    /// Sends a line too long to hold from `peer`, whose connection is the
    /// only one, and steps until that connection stalls.
    static TCPTriggerClient& stall(int peer)
    {
        send_text(peer, std::string(1024, 'x'));
        TCPTriggerClient& client = tcp_clients.begin()->second;
        wait_until([&] {
            step();
            return client.stalled();
        });
        return client;
    }
    static std::string step()
    {
        testing::internal::CaptureStderr();
        service_all_tcp_clients();
        return testing::internal::GetCapturedStderr();
    }

    std::vector<int> peers;
};

TEST_F(ListenerLimits, FourLongLinePeersLeaveAndAFifthIsAnswered)
{
    daemon_settings.close_long_lines = true;
    for (int i = 0; i < 4; ++i)
        connect_peer();
    step_until_open(4);
    int fifth = connect_peer();
    for (int i = 0; i < 4; ++i)
        send_text(peers[i], std::string(1024, 'x'));
    std::string printed;
    testing::internal::CaptureStderr();
    wait_until([&] {
        service_all_tcp_clients();
        return tcp_clients.size() == 1;
    });
    printed = testing::internal::GetCapturedStderr();
    EXPECT_EQ(count_of(printed, "protocol violation, text line too long\n"), 4);
    EXPECT_EQ(count_of(printed, "Dropping TCP client fd"), 4);
    EXPECT_EQ(answer_to_trigger(fifth), "OK\n\n");
}

TEST_F(ListenerLimits, SilentPeerIsClosedAndItsPlaceGoesToAWaitingPeer)
{
    daemon_settings.tcp_idle_timeout_s = 1;
    for (int i = 0; i < 4; ++i)
        connect_peer();
    step_until_open(4);
    int waiting = connect_peer();
    auto silent = tcp_clients.begin();
    int silent_fd = silent->first;
    silent->second.last_input_us = monotonic_clock_us() - 2 * one_second_us;
    std::string printed = step_until_open(4);
    EXPECT_EQ(printed.substr(0, printed.find("Accepted")),
              fd_line("TCP client fd %d idle for 1 s, closing\n", silent_fd) +
                  fd_line("Dropping TCP client fd %d\n", silent_fd));
    EXPECT_EQ(answer_to_trigger(waiting), "OK\n\n");
}

TEST_F(ListenerLimits, PeerThatSentWithinItsIdleTimeStays)
{
    daemon_settings.tcp_idle_timeout_s = 1;
    int peer = connect_peer();
    step_until_open(1);
    TCPTriggerClient& client = tcp_clients.begin()->second;
    client.last_input_us = monotonic_clock_us() - 2 * one_second_us;
    send_text(peer, "\n");
    wait_until([&] { return pending_bytes(client.sock_fd) == 1; });
    EXPECT_EQ(step(), "");
    EXPECT_EQ(tcp_clients.size(), 1u);
    EXPECT_GT(client.last_input_us, monotonic_clock_us() - one_second_us);
}

TEST_F(ListenerLimits, WithoutTheTimeoutASilentPeerKeepsItsPlace)
{
    connect_peer();
    step_until_open(1);
    tcp_clients.begin()->second.last_input_us = 0;
    EXPECT_EQ(step(), "");
    EXPECT_EQ(tcp_clients.size(), 1u);
}

TEST_F(ListenerLimits, StalledPeerCountsAsSilent)
{
    daemon_settings.tcp_idle_timeout_s = 1;
    int peer = connect_peer();
    step_until_open(1);
    TCPTriggerClient& client = stall(peer);
    int fd = client.sock_fd;
    client.last_input_us = monotonic_clock_us() - 2 * one_second_us;
    EXPECT_EQ(step(), fd_line("TCP client fd %d idle for 1 s, closing\n", fd) +
                          fd_line("Dropping TCP client fd %d\n", fd));
}

TEST_F(ListenerLimits, WaitingLoopWakesAtTheEndOfTheIdleTime)
{
    daemon_settings.tcp_idle_timeout_s = 3;
    connect_peer();
    step_until_open(1);
    TCPTriggerClient& client = tcp_clients.begin()->second;
    std::vector<pollfd> fds;
    uint64_t wake_at = ~0ull;
    bool budget_spent = false;
    tcp_wait_descriptors(fds, wake_at, budget_spent);
    EXPECT_EQ(wake_at, client.last_input_us + 3 * one_second_us);
    daemon_settings.tcp_idle_timeout_s = 0;
    wake_at = ~0ull;
    tcp_wait_descriptors(fds, wake_at, budget_spent);
    EXPECT_EQ(wake_at, ~0ull);
}

TEST_F(ListenerLimits, StalledPeerIsNotWatchedButStillWakesTheLoopForItsIdleTime)
{
    daemon_settings.tcp_idle_timeout_s = 2;
    int peer = connect_peer();
    step_until_open(1);
    TCPTriggerClient& client = stall(peer);
    std::vector<pollfd> fds;
    uint64_t wake_at = ~0ull;
    bool budget_spent = false;
    tcp_wait_descriptors(fds, wake_at, budget_spent);
    for (const pollfd& entry : fds)
        EXPECT_NE(entry.fd, client.sock_fd);
    EXPECT_EQ(wake_at, client.last_input_us + 2 * one_second_us);
}

TEST_F(ListenerLimits, WindowStepClosesASilentPeerAndCountsItAsWork)
{
    daemon_settings.tcp_idle_timeout_s = 1;
    connect_peer();
    step_until_open(1);
    open_tcp_window();
    int fd = tcp_clients.begin()->first;
    tcp_clients.begin()->second.last_input_us = monotonic_clock_us() - 2 * one_second_us;
    testing::internal::CaptureStderr();
    EXPECT_TRUE(service_tcp_step());
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              fd_line("TCP client fd %d idle for 1 s, closing\n", fd) +
                  fd_line("Dropping TCP client fd %d\n", fd));
    EXPECT_TRUE(tcp_clients.empty());
}

TEST_F(ListenerLimits, WindowStepClosesALongLine)
{
    daemon_settings.close_long_lines = true;
    int peer = connect_peer();
    step_until_open(1);
    open_tcp_window();
    int fd = tcp_clients.begin()->first;
    send_text(peer, std::string(1100, 'x'));
    testing::internal::CaptureStderr();
    wait_until([&] {
        service_tcp_step();
        return tcp_clients.empty();
    });
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              fd_line("TCP client fd %d protocol violation, text line too long\n", fd) +
                  fd_line("Dropping TCP client fd %d\n", fd));
}

}  // namespace
