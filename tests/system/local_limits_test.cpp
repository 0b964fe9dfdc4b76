// max_local_clients, max_items and max_item_name_bytes seen from outside:
// what is beyond them is refused with its line, its reply and its count,
// and changes nothing; without them every client and item is served.

#include "daemon.h"
#include "packet_peers.h"
#include "packets.h"
#include "tcp.h"
#include "text.h"
#include "waiting.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

using namespace q9test;

namespace {

// Whether the daemon ended the connection `fd` by the deadline.
bool closed_by_daemon(int fd)
{
    return wait_until([fd] {
        char byte;
        ssize_t length = recv(fd, &byte, 1, MSG_DONTWAIT);
        return length == 0 || (length < 0 && errno != EAGAIN);
    });
}

class LocalLimits : public testing::Test {
protected:
    void start(const std::string& keys)
    {
        write_config(config_with_daemon_keys(keys));
        daemon = std::make_unique<Daemon>();
        ASSERT_TRUE(daemon->wait_until_running());
    }

    std::unique_ptr<Daemon> daemon;
};

TEST_F(LocalLimits, AConnectionBeyondMaxLocalClientsIsClosedAtOnce)
{
    start("max_local_clients = 2\n");
    PacketClient first;
    PacketClient second;
    ASSERT_EQ(reply_summary(ask(second, "test")), "test / OK / 0");
    int third = connect_unix(service_path);
    ASSERT_GE(third, 0);
    EXPECT_TRUE(closed_by_daemon(third));
    close(third);
    EXPECT_TRUE(daemon->wait_for_stderr("* new connection\n"
                                        "* client 2 is over max_local_clients 2, disconnecting\n"
                                        "* disconnected client\n"));
    EXPECT_EQ(status_value(first, "refusals.local_clients"), "1");
    EXPECT_EQ(status_value(first, "clients.1.index"), "1");
    EXPECT_EQ(status_value(first, "clients.2.index"), "(absent)");
}

TEST_F(LocalLimits, ARegisterBeyondMaxItemsIsRefusedAndChangesNothing)
{
    start("max_items = 2\n");
    PacketClient client;
    ASSERT_EQ(reply_summary(ask(client, "register", {{"target", "a"}})), "register / OK / 0");
    ASSERT_EQ(reply_summary(ask(client, "register", {{"target", "b"}})), "register / OK / 0");
    EXPECT_EQ(reply_summary(ask(client, "register", {{"target", "c"}, {"triggers", "*"}})),
              "register / Too many items / 104");
    EXPECT_TRUE(daemon->wait_for_stderr("* client 0 may not register another item, max_items is 2: c\n"));
    EXPECT_EQ(ask(client, "list-pmi").pairs, (Pairs{{"item", "a"}, {"item", "b"}}));
    EXPECT_EQ(status_value(client, "clients.0.target"), "b");
    EXPECT_EQ(status_value(client, "clients.0.listening"), "false");
    EXPECT_EQ(reply_summary(ask(client, "register", {{"target", "a"}})), "register / OK / 0")
        << "an item present adds nothing";
    EXPECT_EQ(status_value(client, "refusals.items"), "1");
}

TEST_F(LocalLimits, ARegisterOfANameBeyondMaxItemNameBytesIsRefusedAndChangesNothing)
{
    start("max_item_name_bytes = 8\n");
    PacketClient client;
    EXPECT_EQ(reply_summary(ask(client, "register", {{"target", "123456789"}, {"triggers", "*"}})),
              "register / Item name too long / 105");
    EXPECT_TRUE(daemon->wait_for_stderr(
        "* client 0 may not register a name of 9 bytes, max_item_name_bytes is 8\n"));
    EXPECT_TRUE(ask(client, "list-pmi").pairs.empty());
    // Clients are notified in the order they connected: once the later
    // listener has its notification, one for `client` would be waiting.
    PacketClient later;
    ASSERT_EQ(reply_summary(ask(later, "register", {{"triggers", "*"}})), "register / OK / 0");
    TcpPeer peer;
    ASSERT_TRUE(peer.send("TRIGGER\n\n"));
    ASSERT_EQ(peer.receive(4), "OK\n\n");
    Packet notification;
    ASSERT_TRUE(later.receive(notification));
    EXPECT_FALSE(client.receive(notification, std::chrono::milliseconds(0))) << "triggers=* was applied";
    EXPECT_EQ(reply_summary(ask(client, "register", {{"target", "12345678"}})), "register / OK / 0");
    EXPECT_EQ(status_value(client, "refusals.item_name_bytes"), "1");
}

// The classic daemon: no limit, no refusal line, every reply as ever.
TEST_F(LocalLimits, WithoutLimitsEveryClientAndItemIsServed)
{
    write_config(minimal_config());
    daemon = std::make_unique<Daemon>();
    ASSERT_TRUE(daemon->wait_until_running());
    std::vector<std::unique_ptr<PacketClient>> clients;
    for (int i = 0; i < 8; ++i) {
        clients.push_back(std::make_unique<PacketClient>());
        std::string name = std::string(300, 'n') + std::to_string(i);
        ASSERT_EQ(reply_summary(ask(*clients.back(), "register", {{"target", name}})), "register / OK / 0");
    }
    EXPECT_EQ(ask(*clients[0], "list-pmi").pairs.size(), 8u);
    std::string err = daemon->stderr_text();
    EXPECT_EQ(count_of(err, "* new connection\n"), 8);
    EXPECT_EQ(err.find("* client"), std::string::npos);
    for (const char* reason : {"local_clients", "items", "item_name_bytes"})
        EXPECT_EQ(status_value(*clients[0], std::string("refusals.") + reason), "0") << reason;
}

}  // namespace
