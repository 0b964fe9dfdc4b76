#include "trigger/trigger_dispatch.h"

#include "trigger_test_support.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

using namespace trigger_test;

namespace {

const char* const record_of_trigger = "q9_korvane_xml_events_d: Command received, command 'TRIGGER'";

// A client whose peer is played by the test, and the syslog records made.
class TriggerDispatchTest : public testing::Test {
protected:
    void SetUp() override
    {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        client.take_fd(ends[0]);
        peer = ends[1];
    }
    void TearDown() override { close(peer); }

    // Sends `text` from the peer, lets the client read once and returns
    // what it printed on stderr.
    std::string feed(const std::string& text)
    {
        send_text(peer, text);
        testing::internal::CaptureStderr();
        client.idle();
        return testing::internal::GetCapturedStderr();
    }
    std::string handle()
    {
        testing::internal::CaptureStderr();
        client.handle_message();
        return testing::internal::GetCapturedStderr();
    }

    SyslogWatch syslog_watch;
    TCPTriggerClient client;
    int peer = -1;
};

TEST_F(TriggerDispatchTest, PairsAreListedInNameOrderNotInOrderOfArrival)
{
    EXPECT_EQ(feed("TRIGGER\nzeta=1\nalpha=2\nmid=3\n\n"),
              "Message: command='TRIGGER'\n  'alpha' = '2'\n  'mid' = '3'\n  'zeta' = '1'\n");
    EXPECT_EQ(receive_available(peer), "OK\n\n");
}

TEST_F(TriggerDispatchTest, GatheredValueIsListedWithItsLineFeed)
{
    EXPECT_EQ(feed("TRIGGER\nn=1\nn=2\n\n"), "Message: command='TRIGGER'\n  'n' = '1\n2'\n");
}

TEST_F(TriggerDispatchTest, EveryMessageWritesOneDaemonInfoRecord)
{
    feed("TRIGGER\nchannel=2\n\nONE LINE TRIGGER\n");
    std::vector<std::string> records = syslog_watch.wait_for(2);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(SyslogWatch::daemon_info_text(records[0]), record_of_trigger);
    EXPECT_EQ(SyslogWatch::daemon_info_text(records[1]),
              "q9_korvane_xml_events_d: Command received, command 'ONE LINE TRIGGER'");
}

TEST_F(TriggerDispatchTest, OtherCommandsAreLoggedAndAcknowledgedAlike)
{
    EXPECT_EQ(feed("trigger\n\nTRIGGER \n\n"), "Message: command='trigger'\nMessage: command='TRIGGER '\n");
    EXPECT_EQ(receive_available(peer), "OK\n\nOK\n\n");
    std::vector<std::string> records = syslog_watch.wait_for(2);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(SyslogWatch::daemon_info_text(records[0]),
              "q9_korvane_xml_events_d: Command received, command 'trigger'");
    EXPECT_EQ(SyslogWatch::daemon_info_text(records[1]),
              "q9_korvane_xml_events_d: Command received, command 'TRIGGER '");
}

TEST_F(TriggerDispatchTest, HandlingEmptiesTheMessage)
{
    client.command = "TRIGGER";
    client.nv_pairs = {{"a", "b"}};
    EXPECT_EQ(handle(), "Message: command='TRIGGER'\n  'a' = 'b'\n");
    EXPECT_EQ(client.command, "");
    EXPECT_TRUE(client.nv_pairs.empty());
}

TEST_F(TriggerDispatchTest, MessageWithoutCommandIsOnlyEmptied)
{
    client.nv_pairs = {{"a", "b"}};
    EXPECT_EQ(handle(), "");
    EXPECT_TRUE(client.nv_pairs.empty());
    // Records arrive in order: had the empty message logged one, it would
    // come before this one.
    client.command = "TRIGGER";
    handle();
    std::vector<std::string> records = syslog_watch.wait_for(1);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(SyslogWatch::daemon_info_text(records[0]), record_of_trigger);
}

}  // namespace
