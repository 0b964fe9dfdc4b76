// max_local_clients: a local connection beyond the limit is ended at once,
// with its queued requests, one line and a count.
#include "config/daemon_settings.h"
#include "daemon/daemon_counters.h"
#include "daemon/process_state.h"
#include "service/command_server.h"
#include "service_harness.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

class LocalClientLimit : public ServiceTest {
protected:
    void TearDown() override
    {
        comm_socket_v4_destroy(extra);
        daemon_settings = DaemonSettings();
        daemon_counters.refusals = RefusalCounters();
        ServiceTest::TearDown();
    }

    // Connects `extra`, which sends `request` at once, and serves the
    // command server until it has taken and let go one more client; its
    // stderr in `err`.
    bool connect_extra(const Request& request)
    {
        extra = comm_socket_v4_create();
        EXPECT_EQ(comm_socket_v4_connect_to(extra, server_socket_path), 0);
        comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
        packet->flags = request.flags;
        q9test::write_packet(packet, request.command, "", {}, request.pairs);
        EXPECT_GT(comm_socket_v4_packet_send_to_server(extra, packet), 0);
        comm_socket_v4_packet_release(packet);
        comm_socket_v4_idle(extra);
        CommandServerTotals before = command_server_totals;
        testing::internal::CaptureStderr();
        bool served = serve_until([&] {
            return command_server_totals.accepted > before.accepted &&
                   (command_server_totals.dropped > before.dropped || command_server_totals.requests > before.requests);
        });
        err = testing::internal::GetCapturedStderr();
        return served;
    }

    comm_socket_v4* extra = nullptr;
    std::string err;
};

TEST_F(LocalClientLimit, AClientBeyondTheLimitIsDisconnectedWithItsRequest)
{
    daemon_settings.max_local_clients = 1;
    LocalClient first;
    ASSERT_TRUE(connect_extra({"register", {{"target", "x"}, {"triggers", "*"}}}));
    unsigned long index = first.index() + 1;
    EXPECT_EQ(err, "* new connection\n* client " + std::to_string(index) +
                       " is over max_local_clients 1, disconnecting\n* disconnected client\n");
    EXPECT_EQ(daemon_counters.refusals.local_clients, 1u);
    EXPECT_EQ(server_socket_clients.size(), 1u);
    EXPECT_EQ(server_socket_clients.count(first.index()), 1u);
    EXPECT_TRUE(media_persistence.empty());
    EXPECT_TRUE(q9test::wait_until([&] { return comm_socket_v4_idle(extra) == -1; }));
    auto reply = first.ask({"test"});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, "OK");
}

TEST_F(LocalClientLimit, APlaceFreedByAClientThatLeftIsTakenAgain)
{
    daemon_settings.max_local_clients = 1;
    auto first = std::make_unique<LocalClient>();
    first->disconnect();
    ASSERT_TRUE(connect_extra({"register", {{"target", "x"}}}));
    EXPECT_EQ(err, "* new connection\n");
    EXPECT_EQ(server_socket_clients.size(), 1u);
    EXPECT_EQ(daemon_counters.refusals.local_clients, 0u);
}

TEST_F(LocalClientLimit, WithoutALimitEveryClientGetsARecord)
{
    LocalClient first;
    LocalClient second;
    ASSERT_TRUE(connect_extra({"test"}));
    EXPECT_EQ(err, "* new connection\n");
    EXPECT_EQ(server_socket_clients.size(), 3u);
    EXPECT_EQ(daemon_counters.refusals.local_clients, 0u);
}

}  // namespace
