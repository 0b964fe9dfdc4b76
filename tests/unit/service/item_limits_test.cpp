// max_item_name_bytes and max_items: a register beyond them is refused with
// its result and status word, one line and a count, and changes nothing.
#include "config/daemon_settings.h"
#include "daemon/daemon_counters.h"
#include "service/command_server.h"
#include "service_harness.h"

#include <gtest/gtest.h>

namespace {

class ItemLimits : public ServiceTest {
protected:
    void TearDown() override
    {
        daemon_settings = DaemonSettings();
        daemon_counters.refusals = RefusalCounters();
        ServiceTest::TearDown();
    }

    // The reply to `request` from `client`, its stderr in `err`.
    std::optional<q9test::Packet> ask_noting(LocalClient& client, const Request& request)
    {
        testing::internal::CaptureStderr();
        auto reply = client.ask(request);
        err = testing::internal::GetCapturedStderr();
        return reply;
    }

    std::vector<std::string> items() const
    {
        std::vector<std::string> names;
        for (const auto& item : media_persistence)
            names.push_back(item.first);
        return names;
    }

    std::string err;
};

TEST_F(ItemLimits, ANameLongerThanTheLimitIsRefusedAndChangesNothing)
{
    daemon_settings.max_item_name_bytes = 4;
    LocalClient client;
    auto reply = ask_noting(client, {"register", {{"target", "12345"}, {"triggers", "*"}}});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->command, "register");
    EXPECT_EQ(reply->status, "Item name too long");
    EXPECT_EQ(reply->result, 105);
    EXPECT_TRUE(reply->pairs.empty());
    EXPECT_EQ(err, "* client " + std::to_string(client.index()) +
                       " may not register a name of 5 bytes, max_item_name_bytes is 4\n");
    EXPECT_EQ(daemon_counters.refusals.item_name_bytes, 1u);
    EXPECT_TRUE(media_persistence.empty());
    EXPECT_EQ(server_socket_clients.at(client.index()).target, "");
    EXPECT_FALSE(server_socket_clients.at(client.index()).all_triggers);
}

TEST_F(ItemLimits, ANameOfTheLimitIsRegistered)
{
    daemon_settings.max_item_name_bytes = 4;
    LocalClient client;
    auto reply = ask_noting(client, {"register", {{"target", "1234"}}});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, "OK");
    EXPECT_EQ(reply->result, 0);
    EXPECT_EQ(err, "");
    EXPECT_EQ(items(), std::vector<std::string>{"1234"});
}

TEST_F(ItemLimits, AnItemBeyondTheLimitIsRefusedAndChangesNothing)
{
    daemon_settings.max_items = 2;
    LocalClient client;
    client.ask({"register", {{"target", "a"}}});
    client.ask({"register", {{"target", "b"}, {"triggers", "*"}}});
    auto reply = ask_noting(client, {"register", {{"target", "c"}, {"triggers", ""}}});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->command, "register");
    EXPECT_EQ(reply->status, "Too many items");
    EXPECT_EQ(reply->result, 104);
    EXPECT_EQ(err, "* client " + std::to_string(client.index()) + " may not register another item, max_items is 2: c\n");
    EXPECT_EQ(daemon_counters.refusals.items, 1u);
    EXPECT_EQ(items(), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(server_socket_clients.at(client.index()).target, "b");
    EXPECT_TRUE(server_socket_clients.at(client.index()).all_triggers);
}

TEST_F(ItemLimits, AnItemPresentAddsNothingAndIsNotRefused)
{
    daemon_settings.max_items = 1;
    LocalClient client;
    client.ask({"register", {{"target", "a"}}});
    auto reply = ask_noting(client, {"register", {{"target", "a"}}});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, "OK");
    EXPECT_EQ(reply->result, 0);
    EXPECT_EQ(err, "");
    EXPECT_EQ(daemon_counters.refusals.items, 0u);
}

TEST_F(ItemLimits, ARegisterWithoutTargetIsNeverRefused)
{
    daemon_settings.max_items = 1;
    daemon_settings.max_item_name_bytes = 1;
    media_persistence["kept"];
    LocalClient client;
    auto reply = ask_noting(client, {"register", {{"triggers", "*"}}});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, "OK");
    EXPECT_EQ(reply->result, 0);
    EXPECT_EQ(err, "");
    EXPECT_TRUE(server_socket_clients.at(client.index()).all_triggers);
}

// Peer text in the line is escaped when the operator asks for it.
TEST_F(ItemLimits, TheRefusedNameIsWrittenAsTheLogShowsPeerText)
{
    daemon_settings.max_items = 1;
    daemon_settings.escape_logged_text = true;
    media_persistence["kept"];
    LocalClient client;
    ask_noting(client, {"register", {{"target", "two\nlines"}}});
    EXPECT_EQ(err, "* client " + std::to_string(client.index()) +
                       " may not register another item, max_items is 1: two\\nlines\n");
}

TEST_F(ItemLimits, WithoutLimitsEveryRegisterIsServed)
{
    LocalClient client;
    for (const char* name : {"a", "b", "c"})
        ask_noting(client, {"register", {{"target", name}}});
    ask_noting(client, {"register", {{"target", std::string(100000, 'n')}}});
    EXPECT_EQ(err, "");
    EXPECT_EQ(media_persistence.size(), 4u);
    EXPECT_EQ(daemon_counters.refusals.items + daemon_counters.refusals.item_name_bytes, 0u);
}

}  // namespace
