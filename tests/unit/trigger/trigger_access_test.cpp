// Who may reach the trigger port, through the listener on the sandbox's port
// 9876: the address it binds (tcp_listen_address) and the addresses a
// connection may come from (tcp_allow), in the classic step and in the
// waking loop's step.  Peers come from any 127.x.y.z address of the
// sandbox's loopback interface.
#include "config/daemon_settings.h"
#include "daemon/daemon_counters.h"
#include "trigger/trigger_access.h"
#include "trigger/trigger_listener.h"

#include "daemon.h"
#include "tcp.h"
#include "text.h"
#include "trigger_test_support.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <vector>

using namespace trigger_test;
using q9test::count_of;
using q9test::TcpPeer;

namespace {

AddressAllowList allow_only(const std::vector<std::string>& entries)
{
    AddressAllowList list;
    list.everyone = false;
    for (const std::string& entry : entries) {
        AllowedBlock block;
        EXPECT_EQ(read_allowed_block(entry, block), BlockReading::exact) << entry;
        list.blocks.push_back(block);
    }
    return list;
}

std::string refusal_line(const std::string& peer, int count)
{
    return "Refused TCP connection from " + peer + ": not in tcp_allow (" + std::to_string(count) +
           " refused since the last line)\n";
}

std::string fd_line(const char* format, int fd)
{
    char text[200];
    snprintf(text, sizeof(text), format, fd);
    return text;
}

std::string local_address(int fd)
{
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    return text;
}

class TriggerAccess : public testing::Test {
protected:
    void SetUp() override
    {
        daemon_counters.refusals = RefusalCounters();
        tcp_refusal_lines = RefusalLines();
    }
    void TearDown() override
    {
        drop_all_tcp_clients();
        tcp_trigger_close();
        daemon_settings = DaemonSettings();
    }

    // A peer from `source`, kept until the end of the test.
    TcpPeer& peer_from(const std::string& source, const std::string& destination = "127.0.0.1")
    {
        peers.push_back(std::make_unique<TcpPeer>(source, destination));
        EXPECT_TRUE(peers.back()->connected()) << source << " to " << destination;
        return *peers.back();
    }
    // Steps until `open` connections are open and `refused` were refused;
    // what the steps printed.
    static std::string step_until(size_t open, uint64_t refused)
    {
        testing::internal::CaptureStderr();
        wait_until([&] {
            service_all_tcp_clients();
            return tcp_clients.size() == open && daemon_counters.refusals.address == refused;
        });
        return testing::internal::GetCapturedStderr();
    }
    static std::string captured(void (*action)())
    {
        testing::internal::CaptureStderr();
        action();
        return testing::internal::GetCapturedStderr();
    }
    // The daemon's descriptor of the connection that `peer` opened.
    static int daemon_fd_of(const TcpPeer& peer)
    {
        sockaddr_in mine{};
        socklen_t length = sizeof(mine);
        getsockname(peer.fd(), reinterpret_cast<sockaddr*>(&mine), &length);
        for (const auto& entry : tcp_clients)
            if (entry.second.peer.sin_port == mine.sin_port && entry.second.peer.sin_addr.s_addr == mine.sin_addr.s_addr)
                return entry.first;
        return -1;
    }
    // Sends a trigger from `peer` and steps until its answer came.
    static std::string answer_to_trigger(TcpPeer& peer)
    {
        peer.send("ONE LINE TRIGGER\n");
        std::string reply;
        testing::internal::CaptureStderr();
        wait_until([&] {
            service_all_tcp_clients();
            reply += peer.available();
            return reply.size() >= 3;
        });
        testing::internal::GetCapturedStderr();
        return reply;
    }

    std::vector<std::unique_ptr<TcpPeer>> peers;
};

TEST_F(TriggerAccess, RefusedPeerIsClosedUnreadUnansweredAndToldWhileAnAllowedOneIsServed)
{
    daemon_settings.tcp_allow = allow_only({"127.0.0.2"});
    ASSERT_EQ(tcp_trigger_open(), 0);
    TcpPeer& refused = peer_from("127.0.0.3");
    ASSERT_TRUE(refused.send("ONE LINE TRIGGER\n"));
    TcpPeer& allowed = peer_from("127.0.0.2");
    std::string printed = step_until(1, 1);
    int fd = daemon_fd_of(allowed);
    EXPECT_EQ(printed, refusal_line("127.0.0.3", 1) + fd_line("Accepted TCP client fd %d\n", fd));
    EXPECT_TRUE(refused.closed_without_a_byte());
    EXPECT_EQ(answer_to_trigger(allowed), "OK\n");
    EXPECT_EQ(daemon_counters.refusals.address, 1u);
}

TEST_F(TriggerAccess, RefusedPeersTakeNoPlaceFromFourAllowedOnes)
{
    daemon_settings.tcp_allow = allow_only({"127.0.0.0/30"});
    ASSERT_EQ(tcp_trigger_open(), 0);
    size_t open = 0;
    uint64_t refused = 0;
    std::string printed;
    for (const char* source : {"127.0.0.1", "127.0.9.1", "127.0.0.2", "127.0.9.2", "127.0.0.3", "127.0.0.1"}) {
        peer_from(source);
        bool allowed = std::string(source).rfind("127.0.0.", 0) == 0;
        printed += allowed ? step_until(++open, refused) : step_until(open, ++refused);
    }
    EXPECT_EQ(count_of(printed, "Accepted TCP client fd"), 4);
    EXPECT_EQ(count_of(printed, "Refused TCP connection from 127.0.9."), 2);
    for (auto& peer : peers) {
        if (daemon_fd_of(*peer) >= 0)
            EXPECT_EQ(answer_to_trigger(*peer), "OK\n");
        else
            EXPECT_TRUE(peer->closed_without_a_byte());
    }
}

TEST_F(TriggerAccess, EmptyListRefusesEveryAddress)
{
    daemon_settings.tcp_allow = allow_only({});
    ASSERT_EQ(tcp_trigger_open(), 0);
    TcpPeer& peer = peer_from("127.0.0.1");
    EXPECT_EQ(step_until(0, 1), refusal_line("127.0.0.1", 1));
    EXPECT_TRUE(peer.closed_without_a_byte());
}

TEST_F(TriggerAccess, RefusalIsWorkOfAWindowStep)
{
    daemon_settings.tcp_allow = allow_only({});
    ASSERT_EQ(tcp_trigger_open(), 0);
    open_tcp_window();
    peer_from("127.0.0.5");
    bool found_work = false;
    testing::internal::CaptureStderr();
    ASSERT_TRUE(wait_until([&] {
        found_work = service_tcp_step();
        return daemon_counters.refusals.address == 1;
    }));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), refusal_line("127.0.0.5", 1));
    EXPECT_TRUE(found_work);
    EXPECT_FALSE(service_tcp_step());
}

TEST_F(TriggerAccess, BurstFromOneAddressIsOneLineThenItsCountOnceItsSecondHasPassed)
{
    daemon_settings.tcp_allow = allow_only({"127.0.0.1"});
    ASSERT_EQ(tcp_trigger_open(), 0);
    std::string printed;
    for (uint64_t refused = 1; refused <= 5; ++refused) {
        peer_from("127.0.0.7");
        printed += step_until(0, refused);
    }
    EXPECT_EQ(printed, refusal_line("127.0.0.7", 1));
    ASSERT_TRUE(tcp_refusal_lines.waiting());

    std::vector<pollfd> fds;
    uint64_t wake_at = UINT64_MAX;
    bool budget_spent = false;
    tcp_wait_descriptors(fds, wake_at, budget_spent);
    EXPECT_EQ(wake_at, tcp_refusal_lines.next_line_us());

    testing::internal::CaptureStderr();
    wait_until([] {
        service_all_tcp_clients();
        return !tcp_refusal_lines.waiting();
    });
    EXPECT_EQ(testing::internal::GetCapturedStderr(), refusal_line("127.0.0.7", 4));
}

TEST_F(TriggerAccess, NarrowedListClosesTheConnectionsItNoLongerAllows)
{
    ASSERT_EQ(tcp_trigger_open(), 0);
    TcpPeer& staying = peer_from("127.0.0.2");
    TcpPeer& leaving = peer_from("127.0.0.3");
    step_until(2, 0);
    int leaving_fd = daemon_fd_of(leaving);
    daemon_settings.tcp_allow = allow_only({"127.0.0.2"});
    EXPECT_EQ(captured(follow_trigger_access_settings),
              fd_line("TCP client fd %d from 127.0.0.3 no longer in tcp_allow, closing\n", leaving_fd));
    EXPECT_TRUE(leaving.closed_without_a_byte());
    EXPECT_EQ(captured(service_all_tcp_clients), fd_line("Dropping TCP client fd %d\n", leaving_fd));
    EXPECT_EQ(answer_to_trigger(staying), "OK\n");
    EXPECT_EQ(daemon_counters.refusals.address, 0u);
}

TEST_F(TriggerAccess, WithoutTheKeysEveryoneIsLetInAndNothingIsSaid)
{
    ASSERT_EQ(tcp_trigger_open(), 0);
    TcpPeer& peer = peer_from("127.0.9.9");
    step_until(1, 0);
    EXPECT_EQ(captured(follow_trigger_access_settings), "");
    EXPECT_EQ(captured(report_listen_address_in_force), "");
    EXPECT_EQ(answer_to_trigger(peer), "OK\n");
    EXPECT_FALSE(tcp_refusal_lines.waiting());
}

TEST_F(TriggerAccess, ListenerBindsTheConfiguredAddressOnly)
{
    daemon_settings.tcp_listen_address = "127.0.0.2";
    ASSERT_EQ(tcp_trigger_open(), 0);
    EXPECT_EQ(local_address(tcp_trigger_fd), "127.0.0.2");
    EXPECT_EQ(tcp_trigger_address, "127.0.0.2");
    EXPECT_EQ(q9test::connect_from("127.0.0.1", "127.0.0.1", q9test::trigger_port), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    peer_from("127.0.0.1", "127.0.0.2");
    step_until(1, 0);
    EXPECT_EQ(captured(report_listen_address_in_force), "");
}

TEST_F(TriggerAccess, ChangedListenAddressTakesARestart)
{
    ASSERT_EQ(tcp_trigger_open(), 0);
    daemon_settings.tcp_listen_address = "127.0.0.2";
    EXPECT_EQ(captured(follow_trigger_access_settings),
              "Warning: [daemon] tcp_listen_address = \"127.0.0.2\" takes a restart, the trigger listener "
              "stays on 0.0.0.0\n");
    EXPECT_EQ(local_address(tcp_trigger_fd), "0.0.0.0");
}

TEST_F(TriggerAccess, HandedOverListenerIgnoresAConfiguredAddressWithALine)
{
    tcp_trigger_fd = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(tcp_trigger_open(), 0);
    EXPECT_EQ(tcp_trigger_address, "");
    EXPECT_EQ(captured(report_listen_address_in_force), "");
    daemon_settings.tcp_listen_address = "127.0.0.2";
    EXPECT_EQ(captured(report_listen_address_in_force),
              "Warning: [daemon] tcp_listen_address = \"127.0.0.2\" ignored, the trigger listener was handed "
              "over by the service manager\n");
}

}  // namespace
