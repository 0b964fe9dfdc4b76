// item_owners seen from outside: a local program of another user cannot
// unregister an item, its owner and root can, and an item registered while
// the setting was off belongs to nobody.  The tests run as root; the other
// user's program is a child process that gave up root before connecting.

#include "daemon.h"
#include "files.h"
#include "other_user.h"
#include "packet_peers.h"
#include "packets.h"
#include "q9mi.h"
#include "tcp.h"
#include "text.h"
#include "waiting.h"

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <sys/stat.h>

using namespace q9test;

namespace {

const std::string owners_on = "item_owners = true\n";
const std::string refused_reply = "unregister / Registered by another user / 103";

// The reply to one request that a local program of `uid` sends.
std::string ask_as(uid_t uid, const std::string& command, const Pairs& pairs)
{
    return as_user(uid, [&] {
        PacketClient client;
        return reply_summary(ask(client, command, pairs));
    });
}

Pairs listed_items(PacketClient& client)
{
    return ask(client, "list-pmi").pairs;
}

class ItemOwners : public testing::Test {
protected:
    void SetUp() override
    {
        if (!uid_is_mapped(other_uid))
            GTEST_SKIP() << "the sandbox's user namespace has no uid " << other_uid
                         << ": run the tests as root";
    }

    void start(const std::string& keys)
    {
        write_config(config_with_daemon_keys(keys));
        daemon = std::make_unique<Daemon>();
        ASSERT_TRUE(daemon->wait_until_running());
    }

    std::unique_ptr<Daemon> daemon;
};

TEST_F(ItemOwners, AnotherUserCannotUnregisterAnItemWhichStillStartsOnATrigger)
{
    start(owners_on);
    PacketClient root;
    ASSERT_EQ(reply_summary(ask(root, "register", {{"target", "news"}})), "register / OK / 0");
    EXPECT_EQ(ask_as(other_uid, "unregister", {{"target", "news"}}), refused_reply);
    EXPECT_TRUE(daemon->wait_for_stderr("* client 1 (uid 65534) may not unregister an item of uid 0: news\n"));
    EXPECT_EQ(listed_items(root), (Pairs{{"item", "news"}}));
    EXPECT_EQ(status_value(root, "items.0.owner"), "0");
    EXPECT_EQ(status_value(root, "refusals.owner"), "1");

    ToolProcess simulator(Q9_SIM_BINARY, {"mediaitem"});
    ASSERT_TRUE(wait_until([] { return q9mi_start_item("probe") == 0; }));
    TcpPeer peer;
    ASSERT_TRUE(peer.send("TRIGGER\n\n"));
    EXPECT_EQ(peer.receive(4), "OK\n\n");
    EXPECT_TRUE(simulator.wait_for_stdout("start news\n"));
}

// The other user's program registers for triggers in the same request: a
// refused request applies none of it.
TEST_F(ItemOwners, ARefusedUnregisterAppliesNeitherItsTargetNorItsTriggers)
{
    start(owners_on);
    PacketClient root;
    ASSERT_EQ(reply_summary(ask(root, "register", {{"target", "news"}})), "register / OK / 0");
    std::string seen = as_user(other_uid, [] {
        PacketClient client;
        std::string replies = reply_summary(ask(client, "register", {{"target", "mine"}, {"triggers", "*"}})) + "\n";
        replies += reply_summary(ask(client, "unregister", {{"target", "news"}, {"triggers", "*"}})) + "\n";
        replies += status_value(client, "clients.1.target") + " ";
        return replies + status_value(client, "clients.1.listening");
    });
    EXPECT_EQ(seen, "register / OK / 0\n" + refused_reply + "\nmine true");
}

TEST_F(ItemOwners, TheOwnerAndRootMayUnregisterTheirItems)
{
    start(owners_on);
    PacketClient root;
    std::string own = as_user(other_uid, [] {
        PacketClient client;
        std::string replies = reply_summary(ask(client, "register", {{"target", "own"}})) + "\n";
        replies += reply_summary(ask(client, "register", {{"target", "theirs"}})) + "\n";
        return replies + reply_summary(ask(client, "unregister", {{"target", "own"}}));
    });
    EXPECT_EQ(own, "register / OK / 0\nregister / OK / 0\nunregister / OK / 0");
    EXPECT_EQ(status_value(root, "items.0.owner"), "65534");
    EXPECT_EQ(reply_summary(ask(root, "unregister", {{"target", "theirs"}})), "unregister / OK / 0");
    EXPECT_TRUE(listed_items(root).empty());
    EXPECT_EQ(status_value(root, "refusals.owner"), "0");
    EXPECT_EQ(daemon->stderr_text().find("may not unregister"), std::string::npos);
}

TEST_F(ItemOwners, AnItemRegisteredWhileTheSettingWasOffBelongsToNobody)
{
    start("item_owners = false\n");
    PacketClient root;
    ASSERT_EQ(reply_summary(ask(root, "register", {{"target", "classic"}})), "register / OK / 0");
    EXPECT_EQ(status_value(root, "items.0.owner"), "");
    write_config(config_with_daemon_keys(owners_on));
    ASSERT_TRUE(daemon->deliver(SIGHUP));
    ASSERT_TRUE(daemon->wait_for_stderr("Reloading config, SIGHUP\n"));
    ASSERT_EQ(status_value(root, "daemon.item_owners"), "true");
    EXPECT_EQ(reply_summary(ask(root, "register", {{"target", "classic"}})), "register / OK / 0");
    EXPECT_EQ(status_value(root, "items.0.owner"), "") << "a second register takes no ownership";
    EXPECT_EQ(ask_as(other_uid, "unregister", {{"target", "classic"}}), "unregister / OK / 0");
    EXPECT_TRUE(listed_items(root).empty());
}

// With the setting off again, owners recorded earlier refuse nobody, as in
// the classic daemon.
TEST_F(ItemOwners, WithTheSettingOffAnyoneMayUnregisterAnyItem)
{
    start(owners_on);
    PacketClient root;
    ASSERT_EQ(reply_summary(ask(root, "register", {{"target", "news"}})), "register / OK / 0");
    write_config(config_with_daemon_keys("item_owners = false\n"));
    ASSERT_TRUE(daemon->deliver(SIGHUP));
    ASSERT_TRUE(daemon->wait_for_stderr("Reloading config, SIGHUP\n"));
    ASSERT_EQ(status_value(root, "daemon.item_owners"), "false");
    EXPECT_EQ(ask_as(other_uid, "unregister", {{"target", "news"}}), "unregister / OK / 0");
    EXPECT_TRUE(listed_items(root).empty());
}

TEST_F(ItemOwners, TheClassicDaemonLetsAnyoneUnregisterAndRecordsNoOwner)
{
    write_config(minimal_config());
    daemon = std::make_unique<Daemon>();
    ASSERT_TRUE(daemon->wait_until_running());
    PacketClient root;
    ASSERT_EQ(reply_summary(ask(root, "register", {{"target", "news"}})), "register / OK / 0");
    EXPECT_EQ(status_value(root, "items.0.owner"), "");
    EXPECT_EQ(ask_as(other_uid, "unregister", {{"target", "news"}}), "unregister / OK / 0");
    EXPECT_TRUE(listed_items(root).empty());
}

TEST_F(ItemOwners, OwnersOutliveARestartInTheStateFile)
{
    mkdir("/run/q9-state", 0755);
    std::string keys = owners_on + "state_file = \"/run/q9-state/items\"\n";
    start(keys);
    EXPECT_EQ(ask_as(other_uid, "register", {{"target", "theirs"}}), "register / OK / 0");
    {
        PacketClient root;
        ASSERT_EQ(reply_summary(ask(root, "register", {{"target", "root's"}})), "register / OK / 0");
    }
    EXPECT_EQ(read_file("/run/q9-state/items"),
              "q9_korvane_xml_events_d state 2\nitem 0 root's\nitem 65534 theirs\n");
    ASSERT_EQ(daemon->stop(), 0);
    start(keys);
    EXPECT_EQ(ask_as(other_uid, "unregister", {{"target", "root's"}}), refused_reply);
    PacketClient root;
    EXPECT_EQ(status_value(root, "items.0.owner"), "0");
    EXPECT_EQ(status_value(root, "items.1.owner"), "65534");
}

}  // namespace
