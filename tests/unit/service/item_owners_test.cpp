// Who may unregister a persistent media item under item_owners: the user
// that first registered it and root; with the setting off, anyone.
#include "config/daemon_settings.h"
#include "daemon/daemon_counters.h"
#include "daemon/process_state.h"
#include "service/command_server.h"
#include "service/item_owners.h"
#include "service_harness.h"

#include <gtest/gtest.h>

#include <unistd.h>

namespace {

class ItemOwners : public ServiceTest {
protected:
    void TearDown() override
    {
        daemon_settings = DaemonSettings();
        daemon_counters.refusals = RefusalCounters();
        ServiceTest::TearDown();
    }

    // may_unregister() with its stderr in `err`.
    bool may_unregister_noting(std::optional<uid_t> uid, const std::string& name)
    {
        testing::internal::CaptureStderr();
        bool allowed = may_unregister(uid, 3, name);
        err = testing::internal::GetCapturedStderr();
        return allowed;
    }

    std::string err;
};

TEST_F(ItemOwners, AnotherUidMayNotUnregisterAnOwnedItem)
{
    media_persistence["news"].owner = 1000;
    EXPECT_FALSE(may_unregister_noting(65534u, "news"));
    EXPECT_EQ(err, "* client 3 (uid 65534) may not unregister an item of uid 1000: news\n");
    EXPECT_EQ(daemon_counters.refusals.owner, 1u);
    EXPECT_EQ(media_persistence.count("news"), 1u);
}

TEST_F(ItemOwners, TheOwnerAndRootMayUnregisterIt)
{
    media_persistence["news"].owner = 1000;
    EXPECT_TRUE(may_unregister_noting(1000u, "news"));
    EXPECT_TRUE(may_unregister_noting(0u, "news"));
    EXPECT_EQ(err, "");
    EXPECT_EQ(daemon_counters.refusals.owner, 0u);
}

TEST_F(ItemOwners, AnItemWithoutOwnerOrNoItemAtAllRefusesNobody)
{
    media_persistence["classic"];
    EXPECT_TRUE(may_unregister_noting(65534u, "classic"));
    EXPECT_TRUE(may_unregister_noting(65534u, "absent"));
    EXPECT_EQ(err, "");
    EXPECT_EQ(daemon_counters.refusals.owner, 0u);
}

// sender_uid() gives none while item_owners is off: owners recorded
// earlier stay, but nobody is refused.
TEST_F(ItemOwners, AnUnknownUidIsNeverRefused)
{
    media_persistence["news"].owner = 1000;
    EXPECT_TRUE(may_unregister_noting(std::nullopt, "news"));
    EXPECT_EQ(err, "");
}

TEST_F(ItemOwners, ThePeersUidCountsOnlyWhileTheSettingIsOn)
{
    LocalClient client;
    comm_socket_v4_client* peer = server_socket->clients.at(client.index());
    EXPECT_EQ(sender_uid(peer), std::nullopt);
    daemon_settings.item_owners = true;
    EXPECT_EQ(sender_uid(peer), std::optional<uid_t>(getuid()));
}

TEST_F(ItemOwners, ARegisterRecordsTheRegistrantWhileTheSettingIsOn)
{
    LocalClient client;
    client.ask({"register", {{"target", "before"}}});
    daemon_settings.item_owners = true;
    auto reply = client.ask({"register", {{"target", "after"}}});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, "OK");
    EXPECT_EQ(reply->result, 0);
    EXPECT_EQ(media_persistence.at("before").owner, std::nullopt);
    EXPECT_EQ(media_persistence.at("after").owner, std::optional<uid_t>(getuid()));
}

TEST_F(ItemOwners, ARegisterOfAnItemPresentKeepsItsOwner)
{
    daemon_settings.item_owners = true;
    media_persistence["shared"].owner = 1000;
    media_persistence["classic"];
    LocalClient client;
    client.ask({"register", {{"target", "shared"}}});
    client.ask({"register", {{"target", "classic"}}});
    EXPECT_EQ(media_persistence.at("shared").owner, std::optional<uid_t>(1000));
    EXPECT_EQ(media_persistence.at("classic").owner, std::nullopt);
}

// The tests run as root, which may unregister any item.
TEST_F(ItemOwners, RootUnregistersAnItemOfAnotherUid)
{
    ASSERT_EQ(getuid(), 0u);
    daemon_settings.item_owners = true;
    media_persistence["news"].owner = 1000;
    LocalClient client;
    testing::internal::CaptureStderr();
    auto reply = client.ask({"unregister", {{"target", "news"}}});
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, "OK");
    EXPECT_EQ(reply->result, 0);
    EXPECT_TRUE(media_persistence.empty());
}

}  // namespace
