#include "daemon/input_wait.h"

#include "appliance_util.h"
#include "daemon/main_loop.h"
#include "daemon/pass_limits.h"
#include "daemon/process_state.h"
#include "daemon/signals.h"
#include "service/command_server.h"
#include "trigger/trigger_listener.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <csignal>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr uint64_t far_away_us = 30000000;

int connect_to_trigger_port()
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(tcp_trigger_port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(0, connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address));
    return fd;
}

void send_all(int fd, const std::string& bytes)
{
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()), send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL));
}

std::string received(int fd)
{
    std::string text;
    char buffer[4096];
    ssize_t length;
    while ((length = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT)) > 0)
        text.append(buffer, static_cast<size_t>(length));
    return text;
}

bool readable(int fd)
{
    pollfd ready{fd, POLLIN, 0};
    return poll(&ready, 1, 10000) == 1;
}

/// Bytes the connection has read in the current window.
size_t window_bytes(const TCPTriggerClient& record)
{
    return tcp_bytes_per_window - record.window_left;
}

bool watches(const std::vector<pollfd>& fds, int fd)
{
    return std::any_of(fds.begin(), fds.end(), [fd](const pollfd& entry) { return entry.fd == fd; });
}

/// The daemon's TCP side and command server on their fixed port and path,
/// with peers the test plays; a fresh budget window at the start.
class WakingLoop : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(0, tcp_trigger_open());
        server_socket = comm_socket_v4_create();
        ASSERT_EQ(0, comm_socket_v4_create_server(server_socket, server_socket_path));
        start_new_window();
    }
    void TearDown() override
    {
        for (int fd : peers)
            close(fd);
        testing::internal::CaptureStderr();
        drop_all_tcp_clients();
        tcp_trigger_close();
        server_socket = comm_socket_v4_destroy(server_socket);
        server_socket_clients.clear();
        testing::internal::GetCapturedStderr();
        DIEsig = 0;
        reload_config = 0;
    }

    // The window is the loop's own; a wait after the current one has ended
    // opens the next, which ends no earlier than `window_opened` plus its
    // length.
    void start_new_window()
    {
        usleep(pass_interval_us + 10000);
        DIEsig = 1;
        window_opened = monotonic_clock_us();
        wait_for_input(window, 0);
        DIEsig = 0;
    }

    /// A TCP peer, accepted by the daemon.
    int accepted_peer()
    {
        int fd = connect_to_trigger_port();
        peers.push_back(fd);
        size_t before = tcp_clients.size();
        testing::internal::CaptureStderr();
        for (int i = 0; i < 1000 && tcp_clients.size() == before; ++i) {
            service_tcp_step();
            usleep(1000);
        }
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(before + 1, tcp_clients.size());
        return fd;
    }

    TCPTriggerClient& record_of_newest() { return tcp_clients.rbegin()->second; }

    /// A peer that sent far more than a window's budget, served `passes`
    /// passes; its record.
    TCPTriggerClient& flooding_peer(int passes)
    {
        int peer = accepted_peer();
        TCPTriggerClient& record = record_of_newest();
        send_all(peer, std::string(8000, '\n'));
        serve_tcp_passes(passes);
        return record;
    }

    void serve_tcp_passes(int passes)
    {
        testing::internal::CaptureStderr();
        for (int i = 0; i < passes; ++i)
            serve_tcp_steps(waking);
        testing::internal::GetCapturedStderr();
    }

    /// Waits with nothing else due for long: the wait must end with the
    /// window, neither before it nor at the far refresh.
    void expect_wait_to_end_with_the_window()
    {
        uint64_t start = monotonic_clock_us();
        wait_for_input(window, start + far_away_us);
        EXPECT_GE(monotonic_clock_us(), window_opened + pass_interval_us);
        EXPECT_LT(monotonic_clock_us() - start, far_away_us / 2);
    }

    /// What a waking pass may do.
    const PassBudget waking{calls_per_pass, true};
    PassWindow window;
    std::vector<int> peers;
    uint64_t window_opened = 0;
};

TEST_F(WakingLoop, FloodGetsTheWindowBudgetAndNoMoreUntilTheNextWindow)
{
    TCPTriggerClient& record = flooding_peer(5);
    EXPECT_EQ(tcp_bytes_per_window, record.bytes_read);
    open_tcp_window();
    serve_tcp_passes(1);
    EXPECT_EQ(2 * tcp_bytes_per_window, record.bytes_read);
}

TEST_F(WakingLoop, OnePassReadsWhatArrivedWhileTheBudgetLasts)
{
    int peer = accepted_peer();
    TCPTriggerClient& record = record_of_newest();
    send_all(peer, std::string(1000, '\n'));
    serve_tcp_passes(1);
    EXPECT_EQ(1000u, record.bytes_read);
    EXPECT_EQ(1000u, window_bytes(record));
}

TEST_F(WakingLoop, SecondConnectionIsServedWhileTheFirstHasSpentItsBudget)
{
    int flooder = accepted_peer();
    TCPTriggerClient& flooding = record_of_newest();
    int other = accepted_peer();
    send_all(flooder, std::string(8000, '\n'));
    serve_tcp_passes(3);
    ASSERT_EQ(tcp_bytes_per_window, flooding.bytes_read);
    send_all(other, "ONE LINE TRIGGER\n");
    serve_tcp_passes(1);
    ASSERT_TRUE(readable(other));
    EXPECT_EQ("OK\n", received(other));
    EXPECT_EQ(tcp_bytes_per_window, flooding.bytes_read);
}

TEST_F(WakingLoop, SpentBudgetIsNotWaitedOnButTheOtherConnectionIs)
{
    int flooder = accepted_peer();
    int flooding_fd = record_of_newest().sock_fd;
    accepted_peer();
    int quiet_fd = record_of_newest().sock_fd;
    send_all(flooder, std::string(8000, '\n'));
    serve_tcp_passes(3);
    std::vector<pollfd> fds;
    uint64_t wake_at = far_away_us;
    bool budget_spent = false;
    tcp_wait_descriptors(fds, wake_at, budget_spent);
    EXPECT_TRUE(budget_spent);
    EXPECT_FALSE(watches(fds, flooding_fd));
    EXPECT_TRUE(watches(fds, quiet_fd));
    EXPECT_TRUE(watches(fds, tcp_trigger_fd));
    EXPECT_EQ(far_away_us, wake_at);
}

TEST_F(WakingLoop, StalledLineIsNotWaitedOn)
{
    int peer = accepted_peer();
    TCPTriggerClient& record = record_of_newest();
    send_all(peer, std::string(1100, 'x'));
    serve_tcp_passes(2);
    ASSERT_TRUE(record.stalled());
    std::vector<pollfd> fds;
    uint64_t wake_at = far_away_us;
    bool budget_spent = false;
    tcp_wait_descriptors(fds, wake_at, budget_spent);
    EXPECT_FALSE(watches(fds, record.sock_fd));
    EXPECT_FALSE(budget_spent);
}

TEST_F(WakingLoop, FullListenerIsNotWaitedOn)
{
    for (int i = 0; i < 4; ++i)
        accepted_peer();
    std::vector<pollfd> fds;
    uint64_t wake_at = far_away_us;
    bool budget_spent = false;
    tcp_wait_descriptors(fds, wake_at, budget_spent);
    EXPECT_FALSE(watches(fds, tcp_trigger_fd));
    EXPECT_EQ(4u, fds.size());
}

TEST_F(WakingLoop, ClosedConnectionAwaitingItsSweepWakesAtOnce)
{
    int peer = accepted_peer();
    TCPTriggerClient& record = record_of_newest();
    close(peer);
    peers.clear();
    testing::internal::CaptureStderr();
    for (int i = 0; i < 1000 && record.sock_fd >= 0; ++i)
        record.idle();
    testing::internal::GetCapturedStderr();
    std::vector<pollfd> fds;
    uint64_t wake_at = far_away_us;
    bool budget_spent = false;
    tcp_wait_descriptors(fds, wake_at, budget_spent);
    EXPECT_EQ(0u, wake_at);
}

TEST_F(WakingLoop, WaitEndsWhenATriggerArrives)
{
    int peer = accepted_peer();
    std::thread sender([peer] {
        usleep(100000);
        send(peer, "ONE LINE TRIGGER\n", 17, MSG_NOSIGNAL);
    });
    uint64_t start = monotonic_clock_us();
    wait_for_input(window, start + far_away_us);
    sender.join();
    EXPECT_LT(monotonic_clock_us() - start, far_away_us / 2);
    serve_tcp_passes(1);
    EXPECT_EQ("OK\n", received(peer));
}

TEST_F(WakingLoop, WaitEndsWhenAPeerConnects)
{
    std::thread connector([this] {
        usleep(100000);
        peers.push_back(connect_to_trigger_port());
    });
    uint64_t start = monotonic_clock_us();
    wait_for_input(window, start + far_away_us);
    connector.join();
    EXPECT_LT(monotonic_clock_us() - start, far_away_us / 2);
}

TEST_F(WakingLoop, WaitWithNothingToDoLastsUntilTheNextRefresh)
{
    uint64_t refresh = monotonic_clock_us() + 300000;
    wait_for_input(window, refresh);
    EXPECT_GE(monotonic_clock_us(), refresh);
}

TEST_F(WakingLoop, SpentBudgetWakesAtTheWindowsEndAndNotBefore)
{
    TCPTriggerClient& record = flooding_peer(3);
    ASSERT_EQ(tcp_bytes_per_window, window_bytes(record));
    expect_wait_to_end_with_the_window();
    DIEsig = 1;
    wait_for_input(window, 0);
    EXPECT_EQ(0u, window_bytes(record));
}

TEST_F(WakingLoop, CountedStopSignalSkipsTheWait)
{
    DIEsig = 1;
    uint64_t start = monotonic_clock_us();
    wait_for_input(window, start + far_away_us);
    EXPECT_LT(monotonic_clock_us() - start, far_away_us / 2);
}

TEST_F(WakingLoop, HangupDuringTheWaitEndsIt)
{
    signal(SIGHUP, reload_config_signal);
    pthread_t waiter = pthread_self();
    std::thread signaller([waiter] {
        usleep(100000);
        pthread_kill(waiter, SIGHUP);
    });
    uint64_t start = monotonic_clock_us();
    wait_for_input(window, start + far_away_us);
    signaller.join();
    EXPECT_LT(monotonic_clock_us() - start, far_away_us / 2);
    EXPECT_EQ(1, reload_config);
    signal(SIGHUP, SIG_DFL);
}

TEST_F(WakingLoop, WaitLeavesTheSignalMaskAsItFoundIt)
{
    sigset_t before;
    sigprocmask(SIG_SETMASK, nullptr, &before);
    wait_for_input(window, monotonic_clock_us() + 1000);
    sigset_t after;
    sigprocmask(SIG_SETMASK, nullptr, &after);
    for (int signo : {SIGINT, SIGTERM, SIGQUIT, SIGHUP})
        EXPECT_EQ(sigismember(&before, signo), sigismember(&after, signo)) << signo;
}

// A local program sending one request at a time: each round finds it.
class CommandServerWindow : public WakingLoop {
protected:
    void SetUp() override
    {
        WakingLoop::SetUp();
        client = comm_socket_v4_create();
        ASSERT_EQ(0, comm_socket_v4_connect_to(client, server_socket_path));
        serve();
        ASSERT_EQ(1u, server_socket_clients.size());
        start_new_window();
    }
    void TearDown() override
    {
        comm_socket_v4_destroy(client);
        WakingLoop::TearDown();
    }

    void send_test_request()
    {
        comm_socket_v4_packet* request = comm_socket_v4_packet_create();
        request->flags = COMM_SOCKET_V4_REPLY_WANTED | COMM_SOCKET_V4_MODE_BIT;
        comm_socket_v4_packet_begin_writing(request, 0, "test", "");
        comm_socket_v4_packet_write_argv_end(request);
        comm_socket_v4_packet_write_end(request);
        // A local stream socket puts the bytes into the server's queue
        // before the send returns, so the next round finds them.
        ASSERT_GT(comm_socket_v4_packet_send_to_server(client, request), 0);
        comm_socket_v4_packet_release(request);
    }

    void serve()
    {
        testing::internal::CaptureStderr();
        serve_command_server_rounds(window, waking);
        testing::internal::GetCapturedStderr();
    }

    int replies_received()
    {
        int count = 0;
        comm_socket_v4_idle(client);
        while (comm_socket_v4_packet* reply = comm_socket_v4_client_get_packet_from_server(client)) {
            ++count;
            comm_socket_v4_packet_release(reply);
        }
        return count;
    }

    comm_socket_v4* client = nullptr;
};

TEST_F(CommandServerWindow, TenRoundsThatFindWorkPerWindowThenTheNextWindow)
{
    int replies = 0;
    for (int i = 0; i < calls_per_pass; ++i) {
        send_test_request();
        serve();
        replies += replies_received();
    }
    EXPECT_EQ(calls_per_pass, replies);
    send_test_request();
    serve();
    EXPECT_EQ(0, replies_received());
    start_new_window();
    serve();
    EXPECT_EQ(1, replies_received());
}

TEST_F(CommandServerWindow, RoundThatFindsNothingEndsThePassWithoutSpendingTheBudget)
{
    for (int i = 0; i < 3 * calls_per_pass; ++i)
        serve();
    send_test_request();
    serve();
    EXPECT_EQ(1, replies_received());
}

TEST_F(CommandServerWindow, SpentRoundsLeaveTheServerUnwatched)
{
    for (int i = 0; i < calls_per_pass; ++i) {
        send_test_request();
        serve();
    }
    // The request waiting at the server does not end the wait: the
    // window's end does.
    send_test_request();
    expect_wait_to_end_with_the_window();
}

// An endpoint that fails its round is given one round per window instead of
// being watched, so a descriptor of it that stays ready cannot spin the loop.
TEST_F(CommandServerWindow, UnusableServerIsRetriedOncePerWindow)
{
    comm_socket_v4_close(server_socket);
    serve();
    start_new_window();
    expect_wait_to_end_with_the_window();
}

}  // namespace
