#include "daemon/process_state.h"
#include "library_calls.h"
#include "service/command_server.h"
#include "service_harness.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <memory>

namespace {

using CommandServer = ServiceTest;

std::vector<std::string> persistent_items()
{
    std::vector<std::string> names;
    for (const auto& item : media_persistence)
        names.push_back(item.first);
    return names;
}

TEST_F(CommandServer, WithoutEndpointReturnsMinusOne)
{
    server_socket = comm_socket_v4_destroy(server_socket);
    ASSERT_EQ(server_socket, nullptr);
    EXPECT_EQ(handle_server_socket(), -1);
    server_socket = comm_socket_v4_create();
    EXPECT_LT(server_socket->fd, 0);
    EXPECT_EQ(handle_server_socket(), -1);
}

TEST_F(CommandServer, ServingWithNothingPendingReturnsZero)
{
    EXPECT_EQ(handle_server_socket(), 0);
    EXPECT_TRUE(server_socket_clients.empty());
}

TEST_F(CommandServer, NewConnectionGetsAFreshRecord)
{
    testing::internal::CaptureStderr();
    LocalClient client;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "* new connection\n");
    ASSERT_EQ(server_socket_clients.size(), 1u);
    const CommSocketClient& record = server_socket_clients.at(client.index());
    EXPECT_FALSE(record.all_triggers);
    EXPECT_EQ(record.target, "");
}

TEST_F(CommandServer, AcceptLeavesARecordAlreadyUnderTheIndex)
{
    server_socket_clients[0].all_triggers = true;
    server_socket_clients[0].target = "kept";
    comm_socket_v4* peer = comm_socket_v4_create();
    ASSERT_EQ(comm_socket_v4_connect_to(peer, server_socket_path), 0);
    testing::internal::CaptureStderr();
    bool accepted = serve_until([] { return !server_socket->clients.empty(); });
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "* new connection\n");
    comm_socket_v4_close(peer);
    peer = comm_socket_v4_destroy(peer);
    ASSERT_TRUE(accepted);
    ASSERT_EQ(server_socket_clients.size(), 1u);
    EXPECT_TRUE(server_socket_clients.at(0).all_triggers);
    EXPECT_EQ(server_socket_clients.at(0).target, "kept");
}

TEST_F(CommandServer, DisconnectionWithoutRecordIsStillReported)
{
    LocalClient client;
    LocalClient other;
    server_socket_clients.erase(client.index());
    client.hang_up();
    testing::internal::CaptureStderr();
    bool freed = serve_until([&] { return server_socket->clients.at(client.index()) == nullptr; });
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "* disconnected client\n");
    EXPECT_TRUE(freed);
    EXPECT_EQ(server_socket_clients.count(other.index()), 1u);
}

TEST_F(CommandServer, EachClientHasItsOwnRecordByIndex)
{
    LocalClient first;
    LocalClient second;
    EXPECT_NE(first.index(), second.index());
    EXPECT_EQ(server_socket_clients.size(), 2u);
    EXPECT_NE(server_socket->clients.at(first.index()), nullptr);
    EXPECT_NE(server_socket->clients.at(second.index()), nullptr);
}

TEST_F(CommandServer, DisconnectionErasesTheRecordButKeepsTheMediaItem)
{
    LocalClient client;
    client.ask({"register", {{"target", "x"}}});
    testing::internal::CaptureStderr();
    client.disconnect();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "* disconnected client\n");
    EXPECT_TRUE(server_socket_clients.empty());
    EXPECT_EQ(persistent_items(), std::vector<std::string>{"x"});
}

TEST_F(CommandServer, FreedIndexIsGivenToTheNextClientWithAFreshRecord)
{
    auto first = std::make_unique<LocalClient>();
    first->ask({"register", {{"triggers", "*"}}});
    unsigned long index = first->index();
    first->disconnect();
    LocalClient next;
    EXPECT_EQ(next.index(), index);
    EXPECT_FALSE(server_socket_clients.at(index).all_triggers);
}

TEST_F(CommandServer, TestAnswersNameValue)
{
    LocalClient client;
    auto reply = client.ask({"test"});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->command, "test");
    EXPECT_EQ(reply->status, "OK");
    EXPECT_TRUE(reply->arguments.empty());
    EXPECT_EQ(reply->pairs, (Pairs{{"name", "value"}}));
    EXPECT_EQ(reply->result, 0);
}

TEST_F(CommandServer, TestAnswersAlsoAClientWithoutRecord)
{
    LocalClient client;
    server_socket_clients.clear();
    auto reply = client.ask({"test"});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->command, "test");
    EXPECT_EQ(reply->status, "OK");
    EXPECT_EQ(reply->pairs, (Pairs{{"name", "value"}}));
    EXPECT_TRUE(server_socket_clients.empty());
}

TEST_F(CommandServer, ReplyCopiesReferenceAndModeBitOnly)
{
    LocalClient client;
    auto with_mode = client.ask({"test", {}, {}, 0xff, 0x1122334455667788});
    ASSERT_TRUE(with_mode);
    EXPECT_EQ(with_mode->flags, COMM_SOCKET_V4_MODE_BIT);
    EXPECT_EQ(with_mode->reference, 0x1122334455667788u);
    EXPECT_EQ(with_mode->result, 0);
    auto without_mode = client.ask({"test", {}, {}, COMM_SOCKET_V4_REPLY_WANTED | 0xf0, 7});
    ASSERT_TRUE(without_mode);
    EXPECT_EQ(without_mode->flags, 0);
    EXPECT_EQ(without_mode->reference, 7u);
}

TEST_F(CommandServer, ListWithoutItemsHasNoPairs)
{
    LocalClient client;
    auto reply = client.ask({"list-pmi"});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->command, "list-pmi");
    EXPECT_EQ(reply->status, "OK");
    EXPECT_TRUE(reply->pairs.empty());
    EXPECT_EQ(reply->result, 0);
}

TEST_F(CommandServer, ListNamesItemsInAscendingOrder)
{
    LocalClient client;
    client.ask({"register", {{"target", "b"}}});
    client.ask({"register", {{"target", "a"}}});
    auto reply = client.ask({"list-pmi"});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, "OK");
    EXPECT_EQ(reply->pairs, (Pairs{{"item", "a"}, {"item", "b"}}));
}

TEST_F(CommandServer, ListOrdersNamesByUnsignedBytes)
{
    media_persistence["\xc3\xa9t\xc3\xa9"];
    media_persistence["zz"];
    media_persistence["z"];
    LocalClient client;
    auto reply = client.ask({"list-pmi"});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->pairs, (Pairs{{"item", "z"}, {"item", "zz"}, {"item", "\xc3\xa9t\xc3\xa9"}}));
}

TEST_F(CommandServer, RegisterWithoutPairsAnswersOkAndChangesNothing)
{
    LocalClient client;
    auto reply = client.ask({"register"});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->command, "register");
    EXPECT_EQ(reply->status, "OK");
    EXPECT_TRUE(reply->pairs.empty());
    EXPECT_EQ(reply->result, 0);
    EXPECT_FALSE(server_socket_clients.at(client.index()).all_triggers);
    EXPECT_TRUE(media_persistence.empty());
}

TEST_F(CommandServer, RegisterTargetAddsTheItemAndRemembersIt)
{
    LocalClient client;
    auto reply = client.ask({"register", {{"target", "x"}}});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, "OK");
    EXPECT_EQ(reply->result, 0);
    EXPECT_EQ(persistent_items(), std::vector<std::string>{"x"});
    EXPECT_FALSE(media_persistence.at("x").flag);
    EXPECT_EQ(server_socket_clients.at(client.index()).target, "x");
}

TEST_F(CommandServer, SameTargetFromTwoClientsIsOneItemAndEitherRemovesIt)
{
    LocalClient first;
    LocalClient second;
    first.ask({"register", {{"target", "x"}}});
    second.ask({"register", {{"target", "x"}}});
    EXPECT_EQ(persistent_items(), std::vector<std::string>{"x"});
    auto reply = second.ask({"unregister", {{"target", "x"}}});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->command, "unregister");
    EXPECT_EQ(reply->status, "OK");
    EXPECT_TRUE(media_persistence.empty());
    EXPECT_EQ(server_socket_clients.at(second.index()).target, "");
    EXPECT_EQ(server_socket_clients.at(first.index()).target, "x");
}

TEST_F(CommandServer, FirstRegistrantMayAlsoRemoveASharedItem)
{
    LocalClient first;
    LocalClient second;
    first.ask({"register", {{"target", "x"}}});
    second.ask({"register", {{"target", "x"}}});
    first.ask({"unregister", {{"target", "x"}}});
    EXPECT_TRUE(media_persistence.empty());
    EXPECT_EQ(server_socket_clients.at(first.index()).target, "");
}

TEST_F(CommandServer, SecondTargetKeepsTheFirstItem)
{
    LocalClient client;
    client.ask({"register", {{"target", "x"}}});
    client.ask({"register", {{"target", "y"}}});
    EXPECT_EQ(persistent_items(), (std::vector<std::string>{"x", "y"}));
    EXPECT_EQ(server_socket_clients.at(client.index()).target, "y");
}

TEST_F(CommandServer, UnregisterOfAnotherTargetClearsOwnTarget)
{
    LocalClient client;
    client.ask({"register", {{"target", "x"}}});
    auto reply = client.ask({"unregister", {{"target", "unknown"}}});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, "OK");
    EXPECT_EQ(reply->result, 0);
    EXPECT_EQ(persistent_items(), std::vector<std::string>{"x"});
    EXPECT_EQ(server_socket_clients.at(client.index()).target, "");
}

TEST_F(CommandServer, RegisterTriggersStarSetsAndEmptyClears)
{
    LocalClient client;
    auto reply = client.ask({"register", {{"triggers", "*"}}});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, "OK");
    EXPECT_TRUE(server_socket_clients.at(client.index()).all_triggers);
    client.ask({"register", {{"triggers", ""}}});
    EXPECT_FALSE(server_socket_clients.at(client.index()).all_triggers);
}

TEST_F(CommandServer, UnregisterTriggersEmptyKeepsAndStarClears)
{
    LocalClient client;
    client.ask({"register", {{"triggers", "*"}}});
    auto reply = client.ask({"unregister", {{"triggers", ""}}});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, "OK");
    EXPECT_EQ(reply->result, 0);
    EXPECT_TRUE(server_socket_clients.at(client.index()).all_triggers);
    client.ask({"unregister", {{"triggers", "*"}}});
    EXPECT_FALSE(server_socket_clients.at(client.index()).all_triggers);
}

TEST_F(CommandServer, UnknownTriggerStringAnswersOkWithResult101)
{
    LocalClient client;
    client.ask({"register", {{"triggers", "*"}}});
    auto reply = client.ask({"register", {{"triggers", "abc"}}});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->command, "register");
    EXPECT_EQ(reply->status, "OK");
    EXPECT_TRUE(reply->arguments.empty());
    EXPECT_TRUE(reply->pairs.empty());
    EXPECT_EQ(reply->result, 101);
    EXPECT_TRUE(server_socket_clients.at(client.index()).all_triggers);
}

TEST_F(CommandServer, UnknownTriggerStringLeavesAClearedFlagCleared)
{
    LocalClient client;
    auto reply = client.ask({"register", {{"triggers", "TRIGGER"}}});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->result, 101);
    EXPECT_FALSE(server_socket_clients.at(client.index()).all_triggers);
}

TEST_F(CommandServer, UnregisterWithUnknownTriggerStringAnswersResult101)
{
    LocalClient client;
    client.ask({"register", {{"triggers", "*"}}});
    auto reply = client.ask({"unregister", {{"triggers", "abc"}}});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->command, "unregister");
    EXPECT_EQ(reply->status, "OK");
    EXPECT_EQ(reply->result, 101);
    EXPECT_TRUE(server_socket_clients.at(client.index()).all_triggers);
}

TEST_F(CommandServer, TargetIsAddedDespiteAnUnknownTriggerString)
{
    LocalClient client;
    auto reply = client.ask({"register", {{"target", "x"}, {"triggers", "abc"}}});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->result, 101);
    EXPECT_EQ(persistent_items(), std::vector<std::string>{"x"});
    EXPECT_EQ(server_socket_clients.at(client.index()).target, "x");
}

TEST_F(CommandServer, TargetIsRemovedDespiteAnUnknownTriggerString)
{
    LocalClient client;
    client.ask({"register", {{"target", "x"}}});
    auto reply = client.ask({"unregister", {{"triggers", "abc"}, {"target", "x"}}});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->result, 101);
    EXPECT_TRUE(media_persistence.empty());
}

TEST_F(CommandServer, LaterPairOfTheSameNameCounts)
{
    LocalClient client;
    client.ask({"register", {{"target", "first"}, {"other", "ignored"}, {"target", "second"}}});
    EXPECT_EQ(persistent_items(), std::vector<std::string>{"second"});
    EXPECT_EQ(server_socket_clients.at(client.index()).target, "second");
    auto reply = client.ask({"register", {{"triggers", "abc"}, {"triggers", "*"}}});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->result, 0);
    EXPECT_TRUE(server_socket_clients.at(client.index()).all_triggers);
}

TEST_F(CommandServer, PairNamesAreComparedExactly)
{
    LocalClient client;
    auto reply = client.ask({"register", {{"Target", "x"}, {"triggers ", "*"}, {"TRIGGERS", "*"}}});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, "OK");
    EXPECT_TRUE(media_persistence.empty());
    EXPECT_FALSE(server_socket_clients.at(client.index()).all_triggers);
}

TEST_F(CommandServer, RegisterWithoutRecordAnswersContextLost)
{
    LocalClient client;
    server_socket_clients.clear();
    auto reply = client.ask({"register", {{"target", "x"}, {"triggers", "*"}}});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->command, "register");
    EXPECT_EQ(reply->status, "Your client context has been lost (BUG)");
    EXPECT_TRUE(reply->pairs.empty());
    EXPECT_EQ(reply->result, 100);
    EXPECT_TRUE(media_persistence.empty());
    EXPECT_TRUE(server_socket_clients.empty());
}

TEST_F(CommandServer, UnregisterWithoutRecordAnswersContextLost)
{
    media_persistence["x"];
    LocalClient client;
    server_socket_clients.clear();
    auto reply = client.ask({"unregister", {{"target", "x"}}});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->command, "unregister");
    EXPECT_EQ(reply->status, "Your client context has been lost (BUG)");
    EXPECT_EQ(reply->result, 100);
    EXPECT_EQ(persistent_items(), std::vector<std::string>{"x"});
    EXPECT_TRUE(server_socket_clients.empty());
}

TEST_F(CommandServer, CapitalisedCommandIsUnknown)
{
    LocalClient client;
    auto reply = client.ask({"REGISTER", {{"target", "x"}, {"triggers", "*"}}, {}, 0x03, 42});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->command, "REGISTER");
    EXPECT_EQ(reply->status, "Unknown command");
    EXPECT_TRUE(reply->arguments.empty());
    EXPECT_TRUE(reply->pairs.empty());
    EXPECT_EQ(reply->result, 1);
    EXPECT_EQ(reply->reference, 42u);
    EXPECT_TRUE(media_persistence.empty());
    EXPECT_FALSE(server_socket_clients.at(client.index()).all_triggers);
}

TEST_F(CommandServer, UnknownCommandsGetTheStandardErrorReply)
{
    LocalClient client;
    for (const char* command : {"", "notify", "tes", "list-pmi ", "start"}) {
        auto reply = client.ask({command});
        ASSERT_TRUE(reply) << command;
        EXPECT_EQ(reply->command, command);
        EXPECT_EQ(reply->status, "Unknown command");
        EXPECT_EQ(reply->result, 1);
    }
}

TEST_F(CommandServer, ArgumentsOfARequestAreIgnored)
{
    LocalClient client;
    auto reply = client.ask({"register", {{"target", "x"}}, {"target", "y", "unregister"}});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->command, "register");
    EXPECT_EQ(reply->status, "OK");
    EXPECT_EQ(reply->result, 0);
    EXPECT_EQ(persistent_items(), std::vector<std::string>{"x"});
}

TEST_F(CommandServer, RequestWithoutReplyWantedIsNotExecuted)
{
    LocalClient client;
    client.send({"register", {{"target", "x"}, {"triggers", "*"}}, {}, COMM_SOCKET_V4_MODE_BIT});
    client.send({"list-pmi", {}, {}, 0});
    auto reply = client.ask({"test"});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->command, "test");
    EXPECT_TRUE(media_persistence.empty());
    EXPECT_FALSE(server_socket_clients.at(client.index()).all_triggers);
}

TEST_F(CommandServer, UnregisterWithoutReplyWantedIsNotExecuted)
{
    LocalClient client;
    client.ask({"register", {{"target", "x"}, {"triggers", "*"}}});
    client.send({"unregister", {{"target", "x"}, {"triggers", "*"}}, {}, 0});
    auto reply = client.ask({"test"});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->command, "test");
    EXPECT_EQ(persistent_items(), std::vector<std::string>{"x"});
    EXPECT_TRUE(server_socket_clients.at(client.index()).all_triggers);
}

TEST_F(CommandServer, RequestWithoutReplyReleasesTheRequestAndANullReply)
{
    LocalClient client;
    client.send({"test", {}, {}, 0});
    reset_library_calls();
    ASSERT_TRUE(serve_until([] { return library_calls.releases.size() == 2; }));
    EXPECT_EQ(library_calls.releases.at(nullptr), 1);
    for (const auto& release : library_calls.releases)
        EXPECT_EQ(release.second, 1);
    EXPECT_TRUE(library_calls.sends.empty());
}

TEST_F(CommandServer, ReplyAndRequestAreReleasedOnceEach)
{
    LocalClient client;
    client.send({"register", {{"target", "x"}}});
    reset_library_calls();
    ASSERT_TRUE(serve_until([] { return library_calls.sends.size() == 1; }));
    ASSERT_EQ(library_calls.releases.size(), 2u);
    EXPECT_EQ(library_calls.releases.at(library_calls.sends[0].packet), 1);
    EXPECT_EQ(library_calls.releases.count(nullptr), 0u);
    for (const auto& release : library_calls.releases)
        EXPECT_EQ(release.second, 1);
}

TEST_F(CommandServer, OneCallServesEveryQueuedRequest)
{
    LocalClient first;
    LocalClient second;
    first.send({"register", {{"target", "a"}}});
    first.send({"register", {{"target", "b"}}});
    second.send({"register", {{"target", "c"}}});
    comm_socket_v4_idle(first.endpoint());
    comm_socket_v4_idle(second.endpoint());
    reset_library_calls();
    ASSERT_TRUE(serve_until([] { return !library_calls.sends.empty(); }));
    EXPECT_EQ(library_calls.sends.size(), 3u);
    EXPECT_EQ(persistent_items(), (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(CommandServer, MalformedFrameDropsOnlyItsSender)
{
    LocalClient good;
    int raw = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, server_socket_path);
    ASSERT_EQ(connect(raw, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_TRUE(serve_until([] { return server_socket_clients.size() == 2; }));
    const char junk[64] = "KV4Q not a frame at all, just bytes";
    ASSERT_EQ(write(raw, junk, sizeof junk), static_cast<ssize_t>(sizeof junk));
    testing::internal::CaptureStderr();
    bool dropped = serve_until([] { return server_socket_clients.size() == 1; });
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "* disconnected client\n");
    close(raw);
    ASSERT_TRUE(dropped);
    EXPECT_EQ(server_socket_clients.count(good.index()), 1u);
    auto reply = good.ask({"register", {{"target", "x"}}});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, "OK");
    EXPECT_EQ(persistent_items(), std::vector<std::string>{"x"});
}

TEST_F(CommandServer, StartPersistentMediaStartsEveryItemInNameOrder)
{
    MediaItemService service;
    LocalClient client;
    client.ask({"register", {{"target", "b"}}});
    client.ask({"register", {{"target", "a"}}});
    start_persistent_media();
    EXPECT_EQ(service.requests(2), (std::vector<std::string>{"start a", "start b"}));
    EXPECT_EQ(persistent_items(), (std::vector<std::string>{"a", "b"}));
}

TEST_F(CommandServer, StartPersistentMediaWithoutItemsAsksNothing)
{
    MediaItemService service;
    start_persistent_media();
    start_persistent_media("probe", MediaItemPersistence());
    EXPECT_EQ(service.requests(1), std::vector<std::string>{"start probe"});
}

TEST_F(CommandServer, StartPersistentMediaWithoutServiceReportsNothing)
{
    media_persistence["x"];
    testing::internal::CaptureStderr();
    start_persistent_media();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(persistent_items(), std::vector<std::string>{"x"});
}

TEST_F(CommandServer, SingleItemOverloadStartsThatItem)
{
    MediaItemService service;
    media_persistence["other"];
    start_persistent_media("solo item", MediaItemPersistence());
    EXPECT_EQ(service.requests(1), std::vector<std::string>{"start solo item"});
}

TEST_F(CommandServer, ItemOfADisconnectedClientIsStartedOnEveryTrigger)
{
    MediaItemService service;
    LocalClient client;
    client.ask({"register", {{"target", "x"}}});
    client.disconnect();
    start_persistent_media();
    start_persistent_media();
    EXPECT_EQ(service.requests(2), (std::vector<std::string>{"start x", "start x"}));
}

}  // namespace
