#include "service/status_command.h"

#include "config/configuration.h"
#include "config/daemon_settings.h"
#include "daemon/daemon_counters.h"
#include "q9_version.h"
#include "rendermgr/channel_states.h"
#include "rendermgr/channels.h"
#include "comm_packet_reader.h"
#include "service/command_server.h"
#include "trigger/trigger_listener.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <string>

namespace {

using Fields = std::map<std::string, std::string>;

class StatusCommandTest : public testing::Test {
protected:
    void TearDown() override
    {
        drop_all_tcp_clients();
        server_socket_clients.clear();
        media_persistence.clear();
        free_all();
        daemon_settings = DaemonSettings();
        daemon_counters = DaemonCounters();
        if (peer_ >= 0)
            close(peer_);
    }

    // The reply's pairs by name, and their names in order.
    Fields reply(std::vector<std::string>* names = nullptr)
    {
        comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
        write_status_reply(packet);
        EXPECT_STREQ("status", packet_command_word(packet));
        EXPECT_STREQ("OK", packet_status_word(packet));
        EXPECT_EQ(0u, packet_argument_count(packet));
        Fields fields;
        for (size_t i = 0; i < packet_nv_pair_count(packet); ++i) {
            fields[packet_nv_name(packet, i)] = packet_nv_value(packet, i);
            if (names)
                names->push_back(packet_nv_name(packet, i));
        }
        comm_socket_v4_packet_release(packet);
        return fields;
    }

    // One connection from 192.0.2.7:5000 that has begun a message.
    int connect_reading_peer()
    {
        int ends[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
        peer_ = ends[1];
        tcp_clients[ends[0]].take_fd(ends[0]);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(5000);
        inet_pton(AF_INET, "192.0.2.7", &address.sin_addr);
        tcp_clients[ends[0]].peer = address;
        EXPECT_EQ(9, send(peer_, "TRIGGER\na", 9, 0));
        tcp_clients[ends[0]].idle();
        return ends[0];
    }

    int peer_ = -1;
};

TEST_F(StatusCommandTest, IdleDaemonHasHeaderCountersAndNoListMembers)
{
    std::vector<std::string> names;
    Fields fields = reply(&names);
    EXPECT_EQ(q9_version, fields["version"]);
    EXPECT_EQ(std::to_string(getpid()), fields["pid"]);
    EXPECT_EQ(configuration_path, fields["config.path"]);
    EXPECT_EQ("failed", fields["config.result"]) << "nothing loaded yet";
    EXPECT_EQ("false", fields["daemon.wake_on_input"]);
    EXPECT_EQ(37u, names.size());
    EXPECT_EQ("refusals.item_name_bytes", names.back());
    EXPECT_EQ("any", fields["daemon.tcp_allow"]);
    EXPECT_EQ("0", fields["refusals.address"]);
}

TEST_F(StatusCommandTest, SettingsAndCountersAreThoseInForce)
{
    daemon_settings.close_long_lines = true;
    daemon_settings.client_send_timeout_ms = 750;
    daemon_counters.triggers = 12;
    daemon_counters.client_send_failures = 2;
    note_reload(false);
    note_pass(0, 1234, 0);
    Fields fields = reply();
    EXPECT_EQ("true", fields["daemon.close_long_lines"]);
    EXPECT_EQ("750", fields["daemon.client_send_timeout_ms"]);
    EXPECT_EQ("12", fields["counters.triggers"]);
    EXPECT_EQ("2", fields["counters.client_send_failures"]);
    EXPECT_EQ("1", fields["counters.reloads"]);
    EXPECT_EQ("1", fields["counters.reload_failures"]);
    EXPECT_EQ("failed", fields["config.result"]);
    EXPECT_EQ("1", fields["passes.count"]);
    EXPECT_EQ("1234", fields["passes.slowest_work_us"]);
}

TEST_F(StatusCommandTest, ConnectionsClientsItemsAndChannelsAreListed)
{
    int fd = connect_reading_peer();
    server_socket_clients[3] = CommSocketClient{true, ""};
    server_socket_clients[5] = CommSocketClient{false, "clip"};
    media_persistence["b"].owner = 1000;
    media_persistence["a"];
    rendermgr_get_or_create_channel(7);
    Fields fields = reply();
    EXPECT_EQ(std::to_string(fd), fields["tcp.0.fd"]);
    EXPECT_EQ("192.0.2.7:5000", fields["tcp.0.peer"]);
    EXPECT_EQ("reading", fields["tcp.0.state"]);
    EXPECT_EQ("9", fields["tcp.0.bytes_read"]);
    EXPECT_EQ("0", fields["tcp.0.messages"]);
    EXPECT_EQ("3", fields["clients.0.index"]);
    EXPECT_EQ("true", fields["clients.0.listening"]);
    EXPECT_EQ("5", fields["clients.1.index"]);
    EXPECT_EQ("clip", fields["clients.1.target"]);
    EXPECT_EQ("a", fields["items.0.name"]);
    EXPECT_EQ("", fields["items.0.owner"]) << "registered without item_owners";
    EXPECT_EQ("b", fields["items.1.name"]);
    EXPECT_EQ("1000", fields["items.1.owner"]);
    EXPECT_EQ("7", fields["channels.0.number"]);
    EXPECT_EQ("failed", fields["channels.0.state"]);
    EXPECT_LE(std::stoull(fields["channels.0.since"]), static_cast<uint64_t>(time(nullptr)));
}

TEST_F(StatusCommandTest, ConnectionWithoutRecordShowsAnUnknownPeer)
{
    int fd = connect_reading_peer();
    tcp_clients.at(fd).peer = sockaddr_in{};
    Fields fields = reply();
    EXPECT_EQ("unknown", fields["tcp.0.peer"]);
    EXPECT_EQ("0", fields["tcp.0.messages"]);
}

}  // namespace
