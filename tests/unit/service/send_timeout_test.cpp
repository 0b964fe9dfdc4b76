// client_send_timeout_ms: a local client that does not take its reply or
// its "notify" within the timeout is disconnected, and the daemon goes on
// with the others.  Without the setting it is waited for without end
// (patient_send_test.cpp, client_notification_test.cpp).
#include "config/daemon_settings.h"
#include "daemon/process_state.h"
#include "library_calls.h"
#include "service/client_notification.h"
#include "service/command_server.h"
#include "service/send_budget.h"
#include "service_harness.h"

#include <gtest/gtest.h>

namespace {

class SendTimeout : public ServiceTest {
protected:
    void SetUp() override
    {
        ServiceTest::SetUp();
        daemon_settings.client_send_timeout_ms = 300;
        message.command = "TRIGGER";
        message.nv_pairs = {{"clip", "news"}};
    }
    void TearDown() override
    {
        ServiceTest::TearDown();
        forget_all_send_budgets();
        daemon_settings = DaemonSettings();
    }

    static void listen_to_all(LocalClient& client)
    {
        auto reply = client.ask({"register", {{"triggers", "*"}}});
        ASSERT_TRUE(reply);
        ASSERT_EQ(reply->result, 0);
    }
    static std::string dropped_line(const LocalClient& client)
    {
        return "* client " + std::to_string(client.index()) + " took no packet for 300 ms, disconnecting\n";
    }
    /// Serves the command server once; what it printed.
    static std::string serve_once()
    {
        testing::internal::CaptureStderr();
        handle_server_socket();
        return testing::internal::GetCapturedStderr();
    }
    /// notify_clients() for the message; what it printed.
    std::string notify_all()
    {
        testing::internal::CaptureStderr();
        notify_clients(message);
        return testing::internal::GetCapturedStderr();
    }
    /// Lets `client` read everything at the daemon's first wait for it.
    static void drain_at_first_wait(LocalClient& client)
    {
        library_calls.before_wait = [&client](int wait) {
            if (wait == 1)
                drain(client);
        };
    }
    /// `client` listening, its socket full, and `spent_us` of its send
    /// time already spent in this pass.
    void full_listener_with_time_spent(LocalClient& client, uint64_t spent_us)
    {
        listen_to_all(client);
        fill_peer(client.index());
        charge_send_wait(server_socket->clients.at(client.index()), spent_us);
    }
    static size_t sends_to(unsigned long index)
    {
        size_t count = 0;
        for (const auto& send : library_calls.sends)
            count += comm_socket_v4_client_ptr2index(send.client) == index ? 1 : 0;
        return count;
    }

    TCPTriggerClient message;
};

TEST_F(SendTimeout, StuckListenerIsDroppedAndTheOthersGetEveryNotify)
{
    LocalClient before;
    LocalClient stuck;
    LocalClient after;
    listen_to_all(before);
    listen_to_all(stuck);
    listen_to_all(after);
    ASSERT_GT(fill_peer(stuck.index()), 0);
    reset_library_calls();
    testing::internal::CaptureStderr();
    notify_clients(message);
    notify_clients(message);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), dropped_line(stuck));
    EXPECT_EQ(sends_to(before.index()), 2u);
    EXPECT_EQ(sends_to(after.index()), 2u);
    EXPECT_GE(library_calls.waits, 1);
    for (int64_t lead : library_calls.wait_lead_us)
        EXPECT_LE(lead, 300000);
    for (LocalClient* listener : {&before, &after})
        for (int i = 0; i < 2; ++i) {
            auto packet = listener->receive();
            ASSERT_TRUE(packet);
            EXPECT_EQ(packet->command, "notify");
            EXPECT_EQ(packet->arguments, std::vector<std::string>{"TRIGGER"});
        }
}

TEST_F(SendTimeout, DroppedListenerLosesItsRecordButItsItemStays)
{
    LocalClient stuck;
    ASSERT_TRUE(stuck.ask({"register", {{"target", "news-open"}, {"triggers", "*"}}}));
    fill_peer(stuck.index());
    notify_all();
    EXPECT_EQ(serve_once(), "* disconnected client\n");
    EXPECT_EQ(server_socket_clients.count(stuck.index()), 0u);
    EXPECT_EQ(media_persistence.count("news-open"), 1u);
}

TEST_F(SendTimeout, ClientNotTakingItsReplyIsDroppedWithItsQueuedRequests)
{
    LocalClient stuck;
    LocalClient other;
    fill_peer(stuck.index());
    stuck.send({"test"});
    stuck.send({"register", {{"target", "never"}}});
    other.send({"register", {{"target", "kept"}}});
    std::string printed = serve_once();
    EXPECT_EQ(printed, dropped_line(stuck));
    EXPECT_EQ(media_persistence.count("never"), 0u);
    EXPECT_EQ(serve_once(), "* disconnected client\n");
    auto reply = other.receive();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->command, "register");
    EXPECT_EQ(media_persistence.count("kept"), 1u);
}

TEST_F(SendTimeout, ClientThatTakesItsPacketInTimeIsKept)
{
    LocalClient slow;
    listen_to_all(slow);
    fill_peer(slow.index());
    drain_at_first_wait(slow);
    EXPECT_EQ(notify_all(), "");
    library_calls.before_wait = nullptr;
    EXPECT_FALSE(client_dropped(server_socket->clients.at(slow.index())));
    EXPECT_EQ(serve_once(), "");
    EXPECT_EQ(server_socket_clients.count(slow.index()), 1u);
}

TEST_F(SendTimeout, WaitsOfOnePassAddUpToTheTimeout)
{
    LocalClient stuck;
    full_listener_with_time_spent(stuck, 250000);
    reset_library_calls();
    EXPECT_EQ(notify_all(), dropped_line(stuck));
    ASSERT_FALSE(library_calls.wait_lead_us.empty());
    for (int64_t lead : library_calls.wait_lead_us)
        EXPECT_LE(lead, 50000);
}

TEST_F(SendTimeout, ANewPassGivesTheWholeTimeoutAgain)
{
    LocalClient slow;
    full_listener_with_time_spent(slow, 300000);
    open_send_budgets();
    reset_library_calls();
    drain_at_first_wait(slow);
    EXPECT_EQ(notify_all(), "");
    ASSERT_FALSE(library_calls.wait_lead_us.empty());
    EXPECT_GT(library_calls.wait_lead_us[0], 250000);
}

}  // namespace
