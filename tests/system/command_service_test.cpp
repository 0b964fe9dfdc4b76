// The local command service seen by local programs: requests through the
// service socket, the replies and notifications they get, and the lines the
// daemon writes about its clients.

#include "daemon.h"
#include "daemon_test.h"
#include "packet_peers.h"
#include "packets.h"
#include "tcp.h"
#include "text.h"
#include "waiting.h"
#include "frame.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

using namespace q9test;

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

const uint8_t kRequestFlags = COMM_SOCKET_V4_REPLY_WANTED | COMM_SOCKET_V4_MODE_BIT;

// The persistent media items, as "list-pmi" reports them.
Pairs listed_items(PacketClient& client)
{
    Packet reply = ask(client, "list-pmi");
    EXPECT_EQ(reply.command, "list-pmi");
    EXPECT_EQ(reply.status, "OK");
    return reply.pairs;
}

// Sends one trigger message over TCP and waits for its acknowledgement.
bool trigger()
{
    TcpPeer peer;
    return peer.send("TRIGGER\n\n") && peer.receive(4) == "OK\n\n";
}

class CommandService : public DaemonTest {
protected:
    // Whether `client` got a notification for one trigger.  The daemon
    // notifies clients in the order in which they connected, so once
    // `later`, registered for all triggers, has its notification, one for
    // `client` would already be waiting.
    bool notified(PacketClient& client, PacketClient& later)
    {
        Packet packet;
        EXPECT_TRUE(trigger());
        EXPECT_TRUE(later.receive(packet));
        EXPECT_EQ(packet.command, "notify");
        return client.receive(packet, std::chrono::milliseconds(0)) && packet.command == "notify";
    }

    // A client registered for all triggers, connected after the others.
    std::unique_ptr<PacketClient> later_listener()
    {
        auto later = std::make_unique<PacketClient>();
        EXPECT_EQ(ask(*later, "register", {{"triggers", "*"}}).status, "OK");
        return later;
    }
};

TEST_F(CommandService, TestIsAnsweredWithOneFixedPairAndTheRequestsReference)
{
    PacketClient client;
    Packet reply = ask(client, "test", {}, 0x0123456789abcdefull);
    EXPECT_EQ(reply.command, "test");
    EXPECT_EQ(reply.status, "OK");
    EXPECT_TRUE(reply.arguments.empty());
    EXPECT_EQ(reply.pairs, (Pairs{{"name", "value"}}));
    EXPECT_EQ(reply.result, 0);
    EXPECT_EQ(reply.reference, 0x0123456789abcdefull);
    EXPECT_EQ(reply.flags, COMM_SOCKET_V4_MODE_BIT);
}

TEST_F(CommandService, ReplyCopiesAClearModeBit)
{
    PacketClient client;
    ASSERT_TRUE(client.send_packet(COMM_SOCKET_V4_REPLY_WANTED, 7, "test", {}, {}));
    Packet reply;
    ASSERT_TRUE(client.receive(reply));
    EXPECT_EQ(reply.command, "test");
    EXPECT_EQ(reply.flags, 0);
    EXPECT_EQ(reply.reference, 7u);
}

TEST_F(CommandService, ListWithoutItemsHasNoPairs)
{
    PacketClient client;
    Packet reply = ask(client, "list-pmi", {}, 99);
    EXPECT_EQ(reply.command, "list-pmi");
    EXPECT_EQ(reply.status, "OK");
    EXPECT_TRUE(reply.pairs.empty());
    EXPECT_EQ(reply.result, 0);
    EXPECT_EQ(reply.reference, 99u);
}

TEST_F(CommandService, RegisterIsAnsweredOkAndItemsAreListedInNameOrder)
{
    PacketClient client;
    Packet reply = ask(client, "register", {{"target", "b"}}, 5);
    EXPECT_EQ(reply.command, "register");
    EXPECT_EQ(reply.status, "OK");
    EXPECT_TRUE(reply.pairs.empty());
    EXPECT_EQ(reply.result, 0);
    EXPECT_EQ(reply.reference, 5u);
    EXPECT_EQ(reply.flags, COMM_SOCKET_V4_MODE_BIT);
    ASSERT_EQ(ask(client, "register", {{"target", "a"}}).status, "OK");
    EXPECT_EQ(listed_items(client), (Pairs{{"item", "a"}, {"item", "b"}}));
}

TEST_F(CommandService, ItemNamedByTwoClientsIsOneItemAndEitherCanRemoveIt)
{
    PacketClient first;
    PacketClient second;
    ASSERT_EQ(ask(first, "register", {{"target", "x"}}).status, "OK");
    ASSERT_EQ(ask(second, "register", {{"target", "x"}}).status, "OK");
    EXPECT_EQ(listed_items(first), (Pairs{{"item", "x"}}));
    Packet reply = ask(second, "unregister", {{"target", "x"}}, 3);
    EXPECT_EQ(reply.command, "unregister");
    EXPECT_EQ(reply.status, "OK");
    EXPECT_EQ(reply.result, 0);
    EXPECT_EQ(reply.reference, 3u);
    EXPECT_TRUE(listed_items(first).empty());
}

TEST_F(CommandService, RegisteringANewTargetKeepsTheEarlierOne)
{
    PacketClient client;
    ASSERT_EQ(ask(client, "register", {{"target", "x"}}).status, "OK");
    ASSERT_EQ(ask(client, "register", {{"target", "y"}}).status, "OK");
    EXPECT_EQ(listed_items(client), (Pairs{{"item", "x"}, {"item", "y"}}));
}

TEST_F(CommandService, LaterTargetPairOfOneRequestCounts)
{
    PacketClient client;
    ASSERT_EQ(ask(client, "register", {{"target", "first"}, {"other", "z"}, {"target", "second"}}).status,
              "OK");
    EXPECT_EQ(listed_items(client), (Pairs{{"item", "second"}}));
}

TEST_F(CommandService, ItemsOutliveTheClientThatRegisteredThem)
{
    auto client = std::make_unique<PacketClient>();
    ASSERT_EQ(ask(*client, "register", {{"target", "kept"}}).status, "OK");
    client.reset();
    ASSERT_TRUE(daemon->wait_for_stderr("* disconnected client\n"));
    PacketClient next;
    EXPECT_EQ(listed_items(next), (Pairs{{"item", "kept"}}));
}

TEST_F(CommandService, AllTriggersRegistrationBringsNotifications)
{
    PacketClient client;
    PacketClient quiet;
    ASSERT_EQ(ask(quiet, "test").status, "OK");
    auto later = later_listener();
    EXPECT_FALSE(notified(client, *later));
    ASSERT_EQ(ask(client, "register", {{"triggers", "*"}}).status, "OK");
    EXPECT_TRUE(notified(client, *later));
    EXPECT_FALSE(notified(quiet, *later));
}

TEST_F(CommandService, RegisterWithEmptyTriggersStopsNotifications)
{
    PacketClient client;
    ASSERT_EQ(ask(client, "register", {{"triggers", "*"}}).status, "OK");
    auto later = later_listener();
    ASSERT_TRUE(notified(client, *later));
    ASSERT_EQ(ask(client, "register", {{"triggers", ""}}).status, "OK");
    EXPECT_FALSE(notified(client, *later));
}

TEST_F(CommandService, UnregisterWithEmptyTriggersKeepsNotificationsButStarStopsThem)
{
    PacketClient client;
    ASSERT_EQ(ask(client, "register", {{"triggers", "*"}}).status, "OK");
    auto later = later_listener();
    ASSERT_EQ(ask(client, "unregister", {{"triggers", ""}}).status, "OK");
    EXPECT_TRUE(notified(client, *later));
    ASSERT_EQ(ask(client, "unregister", {{"triggers", "*"}}).status, "OK");
    EXPECT_FALSE(notified(client, *later));
}

TEST_F(CommandService, UnknownTriggerStringIsAnsweredOkWithResult101AndChangesNoFlag)
{
    PacketClient client;
    auto later = later_listener();
    Packet reply = ask(client, "register", {{"triggers", "abc"}}, 11);
    EXPECT_EQ(reply.command, "register");
    EXPECT_EQ(reply.status, "OK");
    EXPECT_TRUE(reply.pairs.empty());
    EXPECT_EQ(reply.result, 101);
    EXPECT_EQ(reply.reference, 11u);
    EXPECT_FALSE(notified(client, *later));
    ASSERT_EQ(ask(client, "register", {{"triggers", "*"}}).result, 0);
    EXPECT_EQ(ask(client, "register", {{"triggers", "TRIGGER"}}).result, 101);
    EXPECT_TRUE(notified(client, *later));
}

TEST_F(CommandService, UnknownTriggerStringStillRegistersTheTarget)
{
    PacketClient client;
    Packet reply = ask(client, "register", {{"target", "x"}, {"triggers", "abc"}});
    EXPECT_EQ(reply.status, "OK");
    EXPECT_EQ(reply.result, 101);
    EXPECT_EQ(listed_items(client), (Pairs{{"item", "x"}}));
}

TEST_F(CommandService, UnregisterWithUnknownTriggerStringIsAnsweredOkWithResult101)
{
    PacketClient client;
    ASSERT_EQ(ask(client, "register", {{"triggers", "*"}}).status, "OK");
    auto later = later_listener();
    Packet reply = ask(client, "unregister", {{"triggers", "abc"}});
    EXPECT_EQ(reply.command, "unregister");
    EXPECT_EQ(reply.status, "OK");
    EXPECT_EQ(reply.result, 101);
    EXPECT_TRUE(notified(client, *later));
}

TEST_F(CommandService, UnknownCommandGetsTheStandardErrorReply)
{
    PacketClient client;
    Packet reply = ask(client, "REGISTER", {{"target", "x"}}, 42);
    EXPECT_EQ(reply.command, "REGISTER");
    EXPECT_EQ(reply.status, "Unknown command");
    EXPECT_TRUE(reply.arguments.empty());
    EXPECT_TRUE(reply.pairs.empty());
    EXPECT_EQ(reply.result, 1);
    EXPECT_EQ(reply.reference, 42u);
    EXPECT_EQ(reply.flags, COMM_SOCKET_V4_MODE_BIT);
    EXPECT_TRUE(listed_items(client).empty());
}

TEST_F(CommandService, ArgumentsOfARequestAreIgnored)
{
    PacketClient client;
    ASSERT_TRUE(client.send_packet(kRequestFlags, 8, "register", {"extra", "words"}, {{"target", "x"}}));
    Packet reply;
    ASSERT_TRUE(client.receive(reply));
    EXPECT_EQ(reply.command, "register");
    EXPECT_EQ(reply.status, "OK");
    EXPECT_EQ(reply.result, 0);
    EXPECT_EQ(listed_items(client), (Pairs{{"item", "x"}}));
}

TEST_F(CommandService, RequestWithoutReplyWantedIsNotExecuted)
{
    PacketClient client;
    auto later = later_listener();
    ASSERT_TRUE(client.send("register", {{"target", "x"}, {"triggers", "*"}}, false));
    ASSERT_TRUE(client.send("test", {}, false));
    // Requests are handled in order, so the first reply to come is this one's.
    Packet reply = ask(client, "list-pmi");
    EXPECT_EQ(reply.command, "list-pmi");
    EXPECT_TRUE(reply.pairs.empty());
    EXPECT_FALSE(notified(client, *later));
}

TEST_F(CommandService, ConnectionsAndDisconnectionsAreReported)
{
    auto first = std::make_unique<PacketClient>();
    PacketClient second;
    PacketClient third;
    ASSERT_TRUE(daemon->wait_for_stderr("* new connection\n", 3));
    first.reset();
    ASSERT_TRUE(daemon->wait_for_stderr("* disconnected client\n"));
    EXPECT_EQ(ask(second, "test").status, "OK");
    std::string err = daemon->stderr_text();
    EXPECT_EQ(count_of(err, "* new connection\n"), 3);
    EXPECT_EQ(count_of(err, "* disconnected client\n"), 1);
}

TEST_F(CommandService, MalformedFramesDropOnlyTheirOwnClient)
{
    PacketClient good;
    ASSERT_EQ(ask(good, "register", {{"target", "x"}, {"triggers", "*"}}).status, "OK");
    std::string oversized = request_frame(kRequestFlags, "test").substr(0, FRAME_PREFIX_SIZE);
    frame_store(reinterpret_cast<unsigned char*>(&oversized[0]) + FRAME_LENGTH_AT, 0xffffffffu);
    std::string out_of_frame = request_frame(kRequestFlags, "test");
    frame_store(reinterpret_cast<unsigned char*>(&out_of_frame[0]) + FRAME_COMMAND_AT, 100000u);
    const std::string frames[] = {std::string("NOPE") + std::string(100, 'j'),
                                  oversized + std::string(100, 'j'), out_of_frame};
    int dropped = 0;
    for (const std::string& frame : frames) {
        int fd = connect_unix(service_path);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(send(fd, frame.data(), frame.size(), MSG_NOSIGNAL), static_cast<ssize_t>(frame.size()));
        EXPECT_TRUE(daemon->wait_for_stderr("* disconnected client\n", ++dropped));
        EXPECT_TRUE(wait_until([fd] {
            char byte;
            ssize_t length = recv(fd, &byte, 1, MSG_DONTWAIT);
            return length == 0 || (length < 0 && errno != EAGAIN);
        })) << "the daemon kept the connection";
        close(fd);
    }
    EXPECT_EQ(ask(good, "test").status, "OK");
    EXPECT_EQ(listed_items(good), (Pairs{{"item", "x"}}));
    Packet notification;
    ASSERT_TRUE(trigger());
    EXPECT_TRUE(good.receive(notification));
    EXPECT_EQ(notification.command, "notify");
}

TEST_F(CommandService, WellFormedRawFrameIsAnsweredAndKeepsItsConnection)
{
    int fd = connect_unix(service_path);
    ASSERT_GE(fd, 0);
    std::string frame = request_frame(kRequestFlags, "test");
    ASSERT_EQ(send(fd, frame.data(), frame.size(), MSG_NOSIGNAL), static_cast<ssize_t>(frame.size()));
    unsigned char prefix[FRAME_PREFIX_SIZE];
    EXPECT_EQ(recv(fd, prefix, sizeof(prefix), MSG_WAITALL), static_cast<ssize_t>(sizeof(prefix)));
    EXPECT_TRUE(frame_prefix_valid(prefix));
    EXPECT_EQ(count_of(daemon->stderr_text(), "* disconnected client\n"), 0);
    close(fd);
}

TEST_F(CommandService, ClientThatLeftAfterRegisteringForTriggersIsNotMissed)
{
    auto gone = std::make_unique<PacketClient>();
    ASSERT_EQ(ask(*gone, "register", {{"triggers", "*"}}).status, "OK");
    gone.reset();
    ASSERT_TRUE(daemon->wait_for_stderr("* disconnected client\n"));
    auto later = later_listener();
    Packet notification;
    ASSERT_TRUE(trigger());
    EXPECT_TRUE(later->receive(notification));
    EXPECT_EQ(notification.command, "notify");
    EXPECT_EQ(daemon->stderr_text().find("Failed to send packet to client"), std::string::npos);
}

}  // namespace
