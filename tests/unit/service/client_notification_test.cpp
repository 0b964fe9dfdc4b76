#include "daemon/process_state.h"
#include "library_calls.h"
#include "service/client_notification.h"
#include "service_harness.h"

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <string>

namespace {

class ClientNotification : public ServiceTest {
protected:
    void SetUp() override
    {
        ServiceTest::SetUp();
        message.command = "TRIGGER";
        message.nv_pairs = {{"b", "2"}, {"a", "1"}};
    }

    /// True when the next packet `client` gets is the answer to a "test"
    /// asked now, so that nothing was sent to it before.
    static bool received_nothing(LocalClient& client)
    {
        auto packet = client.ask({"test"});
        return packet && packet->command == "test";
    }

    /// The bytes waiting in the client's socket, taken past its endpoint,
    /// which has read nothing of them yet.
    static std::string waiting_bytes(LocalClient& client)
    {
        std::string bytes;
        char buffer[4096];
        ssize_t length;
        while ((length = recv(client.endpoint()->fd, buffer, sizeof(buffer), MSG_DONTWAIT)) > 0)
            bytes.append(buffer, static_cast<size_t>(length));
        return bytes;
    }

    static void listen_to_all(LocalClient& client)
    {
        auto reply = client.ask({"register", {{"triggers", "*"}}});
        ASSERT_TRUE(reply);
        ASSERT_EQ(reply->result, 0);
    }

    /// Expects `client` to be notified of the message, and to be notified
    /// of nothing more once it has asked `stop`.
    void expect_notified_until(LocalClient& client, const Request& stop)
    {
        notify_clients(message);
        auto packet = client.receive();
        ASSERT_TRUE(packet);
        EXPECT_EQ(packet->command, "notify");
        client.ask(stop);
        notify_clients(message);
        EXPECT_TRUE(received_nothing(client));
    }

    TCPTriggerClient message;
};

TEST_F(ClientNotification, WithoutClientsNothingIsSent)
{
    reset_library_calls();
    notify_clients(message);
    EXPECT_TRUE(library_calls.sends.empty());
}

TEST_F(ClientNotification, ClientsNotAskingForAllTriggersGetNothing)
{
    LocalClient plain;
    LocalClient with_target;
    with_target.ask({"register", {{"target", "x"}}});
    reset_library_calls();
    notify_clients(message);
    EXPECT_TRUE(library_calls.sends.empty());
    EXPECT_TRUE(received_nothing(plain));
    EXPECT_TRUE(received_nothing(with_target));
}

TEST_F(ClientNotification, NotifyCarriesCommandAndPairsInNameOrder)
{
    LocalClient client;
    listen_to_all(client);
    notify_clients(message);
    auto packet = client.receive();
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->command, "notify");
    EXPECT_EQ(packet->status, "OK");
    EXPECT_EQ(packet->arguments, std::vector<std::string>{"TRIGGER"});
    EXPECT_EQ(packet->pairs, (Pairs{{"a", "1"}, {"b", "2"}}));
    EXPECT_EQ(packet->flags, COMM_SOCKET_V4_MODE_BIT);
    EXPECT_EQ(packet->reference, 0u);
    EXPECT_EQ(packet->result, 0);
}

TEST_F(ClientNotification, MessageWithoutPairsGivesOneArgumentAndNoPairs)
{
    LocalClient client;
    listen_to_all(client);
    message.command = "ONE LINE TRIGGER";
    message.nv_pairs.clear();
    notify_clients(message);
    auto packet = client.receive();
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->arguments, std::vector<std::string>{"ONE LINE TRIGGER"});
    EXPECT_TRUE(packet->pairs.empty());
}

TEST_F(ClientNotification, EmptyCommandIsStillTheOneArgument)
{
    LocalClient client;
    listen_to_all(client);
    message.command = "";
    message.nv_pairs = {{"", ""}, {"k", "v=w"}};
    notify_clients(message);
    auto packet = client.receive();
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->arguments, std::vector<std::string>{""});
    EXPECT_EQ(packet->pairs, (Pairs{{"", ""}, {"k", "v=w"}}));
}

TEST_F(ClientNotification, TwoListenersGetTheSamePacketSmallerIndexFirst)
{
    LocalClient first;
    LocalClient second;
    listen_to_all(second);
    listen_to_all(first);
    reset_library_calls();
    notify_clients(message);
    ASSERT_EQ(library_calls.sends.size(), 2u);
    EXPECT_LT(comm_socket_v4_client_ptr2index(library_calls.sends[0].client),
              comm_socket_v4_client_ptr2index(library_calls.sends[1].client));
    auto to_first = first.receive();
    auto to_second = second.receive();
    ASSERT_TRUE(to_first && to_second);
    EXPECT_EQ(to_first->arguments, to_second->arguments);
    EXPECT_EQ(to_first->pairs, to_second->pairs);
    EXPECT_EQ(to_first->pairs, (Pairs{{"a", "1"}, {"b", "2"}}));
}

TEST_F(ClientNotification, EachPacketIsReleasedOnce)
{
    LocalClient first;
    LocalClient second;
    listen_to_all(first);
    listen_to_all(second);
    reset_library_calls();
    notify_clients(message);
    ASSERT_EQ(library_calls.sends.size(), 2u);
    const comm_socket_v4_packet* packet = library_calls.sends[0].packet;
    EXPECT_EQ(library_calls.packet_calls,
              (decltype(library_calls.packet_calls){{'s', packet}, {'s', packet}, {'r', packet}}));
}

TEST_F(ClientNotification, OneClientAloneGetsAPacketOfItsOwn)
{
    LocalClient client;
    listen_to_all(client);
    reset_library_calls();
    notify_client(client.index(), server_socket_clients.at(client.index()), message);
    ASSERT_EQ(library_calls.sends.size(), 1u);
    const comm_socket_v4_packet* packet = library_calls.sends[0].packet;
    EXPECT_EQ(library_calls.packet_calls,
              (decltype(library_calls.packet_calls){{'s', packet}, {'r', packet}}));
}

TEST_F(ClientNotification, NoPacketIsMadeWithoutAListener)
{
    LocalClient plain;
    reset_library_calls();
    notify_clients(message);
    EXPECT_TRUE(library_calls.packet_calls.empty());
    EXPECT_TRUE(library_calls.releases.empty());
}

TEST_F(ClientNotification, ListenersGetTheBytesOfTheOneClientPath)
{
    LocalClient first;
    LocalClient second;
    listen_to_all(first);
    listen_to_all(second);
    notify_clients(message);
    std::string to_first = waiting_bytes(first);
    std::string to_second = waiting_bytes(second);
    notify_client(first.index(), server_socket_clients.at(first.index()), message);
    std::string alone = waiting_bytes(first);
    ASSERT_FALSE(alone.empty());
    EXPECT_EQ(to_first, alone);
    EXPECT_EQ(to_second, alone);
}

TEST_F(ClientNotification, RegisteringStarStartsAndEmptyStopsNotifications)
{
    LocalClient client;
    listen_to_all(client);
    expect_notified_until(client, {"register", {{"triggers", ""}}});
}

TEST_F(ClientNotification, UnregisteringEmptyKeepsAndStarStopsNotifications)
{
    LocalClient client;
    listen_to_all(client);
    client.ask({"unregister", {{"triggers", ""}}});
    expect_notified_until(client, {"unregister", {{"triggers", "*"}}});
}

TEST_F(ClientNotification, DisconnectedListenerGetsNothing)
{
    LocalClient client;
    listen_to_all(client);
    client.disconnect();
    reset_library_calls();
    testing::internal::CaptureStderr();
    notify_clients(message);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_TRUE(library_calls.sends.empty());
}

TEST_F(ClientNotification, IndexAtTableSizeFindsNoClient)
{
    LocalClient client;
    CommSocketClient listener;
    listener.all_triggers = true;
    reset_library_calls();
    notify_client(server_socket->clients.size(), listener, message);
    EXPECT_TRUE(library_calls.sends.empty());
    EXPECT_TRUE(library_calls.releases.empty());
}

TEST_F(ClientNotification, IndexAboveHighestClientIndexFindsNoClient)
{
    LocalClient first;
    LocalClient second;
    CommSocketClient listener;
    listener.all_triggers = true;
    uint64_t highest = server_socket->max_client_index;
    server_socket->max_client_index = second.index() - 1;
    reset_library_calls();
    notify_client(second.index(), listener, message);
    server_socket->max_client_index = highest;
    EXPECT_TRUE(library_calls.sends.empty());
    EXPECT_TRUE(received_nothing(second));
}

TEST_F(ClientNotification, WithoutEndpointNothingIsSent)
{
    LocalClient client;
    CommSocketClient listener;
    listener.all_triggers = true;
    comm_socket_v4* endpoint = server_socket;
    server_socket = nullptr;
    reset_library_calls();
    notify_client(client.index(), listener, message);
    server_socket = endpoint;
    EXPECT_TRUE(library_calls.sends.empty());
}

TEST_F(ClientNotification, RecordDecidesNotTheIndex)
{
    LocalClient client;
    CommSocketClient listener;
    listener.all_triggers = true;
    notify_client(client.index(), listener, message);
    auto packet = client.receive();
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->command, "notify");
    EXPECT_FALSE(server_socket_clients.at(client.index()).all_triggers);
}

TEST_F(ClientNotification, FailedSendIsReportedAndTheNextClientStillServed)
{
    LocalClient gone;
    LocalClient staying;
    listen_to_all(gone);
    listen_to_all(staying);
    gone.hang_up();
    testing::internal::CaptureStderr();
    notify_clients(message);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Failed to send packet to client\n");
    EXPECT_EQ(server_socket_clients.count(gone.index()), 1u);
    auto packet = staying.receive();
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->command, "notify");
}

TEST_F(ClientNotification, SlowListenerIsWaitedFor)
{
    LocalClient client;
    listen_to_all(client);
    fill_peer(client.index());
    reset_library_calls();
    library_calls.before_wait = [&](int) { drain(client); };
    notify_clients(message);
    library_calls.before_wait = nullptr;
    EXPECT_EQ(library_calls.waits, 1);
    ASSERT_EQ(library_calls.sends.size(), 2u);
    EXPECT_EQ(library_calls.sends[0].result, 0);
    EXPECT_GT(library_calls.sends[1].result, 0);
    EXPECT_EQ(library_calls.releases.at(library_calls.sends[0].packet), 1);
    std::optional<q9test::Packet> packet;
    do
        packet = client.receive();
    while (packet && packet->command == "filler");
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->command, "notify");
}

}  // namespace
