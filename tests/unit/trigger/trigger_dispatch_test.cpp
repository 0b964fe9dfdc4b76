#include "trigger/trigger_dispatch.h"

#include "library_calls.h"
#include "service_harness.h"
#include "trigger_test_support.h"

#include "service/command_server.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

using namespace trigger_test;

/// One start of a media item, with the notifications sent to local
/// programs before it.
struct StartCall {
    std::string name;
    size_t notifications_before;
};
/// Every start of a media item since the fixture began, in call order.
std::vector<StartCall> start_calls;

// The linker puts this in front of the media-item library's start call
// (see CMakeLists.txt); the request still goes to the real service.
int real_start_item(const char* name) asm("__real__Z15q9mi_start_itemPKc");
int watched_start_item(const char* name) asm("__wrap__Z15q9mi_start_itemPKc");

int watched_start_item(const char* name)
{
    start_calls.push_back({name, library_calls.sends.size()});
    return real_start_item(name);
}

namespace {

using Strings = std::vector<std::string>;

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

// "NAME after N notifications" for every start so far.
Strings starts()
{
    Strings seen;
    for (const auto& call : start_calls)
        seen.push_back(call.name + " after " + std::to_string(call.notifications_before) + " notifications");
    return seen;
}

// A trigger client fed by the test, the daemon's command server, and the
// local programs and media-item service that each test sets up.
class TriggerActionsTest : public ServiceTest {
protected:
    void SetUp() override
    {
        ServiceTest::SetUp();
        start_calls.clear();
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        client.take_fd(ends[0]);
        peer = ends[1];
    }
    void TearDown() override
    {
        close(peer);
        start_calls.clear();
        ServiceTest::TearDown();
    }

    // Sends `text` from the peer, lets the client read once and returns
    // the replies.  Only the trigger's own sends are watched from here on.
    std::string feed(const std::string& text)
    {
        reset_library_calls();
        send_text(peer, text);
        client.idle();
        return receive_available(peer);
    }
    static void listen_to_all(LocalClient& listener)
    {
        ASSERT_TRUE(listener.ask({"register", {{"triggers", "*"}}}));
    }
    static void add_items(std::initializer_list<const char*> names)
    {
        for (const char* name : names)
            media_persistence[name];
    }

    TCPTriggerClient client;
    int peer = -1;
};

TEST_F(TriggerActionsTest, TriggerWithoutPairsStartsEveryItemAndNotifiesWithoutPairs)
{
    MediaItemService media;
    LocalClient listener;
    listen_to_all(listener);
    add_items({"b", "a"});
    EXPECT_EQ(feed("TRIGGER\n\n"), "OK\n\n");
    EXPECT_EQ(media.requests(2), (Strings{"start a", "start b"}));
    auto notification = listener.receive();
    ASSERT_TRUE(notification);
    EXPECT_EQ(notification->command, "notify");
    EXPECT_EQ(notification->arguments, Strings{"TRIGGER"});
    EXPECT_TRUE(notification->pairs.empty());
}

TEST_F(TriggerActionsTest, ItemsStartBeforeAnyLocalProgramHearsOfTheTrigger)
{
    LocalClient first;
    LocalClient second;
    listen_to_all(first);
    listen_to_all(second);
    add_items({"a", "b"});
    EXPECT_EQ(feed("ONE LINE TRIGGER\n"), "OK\n");
    EXPECT_EQ(starts(), (Strings{"a after 0 notifications", "b after 0 notifications"}));
    EXPECT_EQ(library_calls.sends.size(), 2u);
}

TEST_F(TriggerActionsTest, OneLineTriggerNotifiesWithItsLineAsCommand)
{
    LocalClient listener;
    listen_to_all(listener);
    feed("ONE LINE TRIGGER\n");
    auto notification = listener.receive();
    ASSERT_TRUE(notification);
    EXPECT_EQ(notification->arguments, Strings{"ONE LINE TRIGGER"});
    EXPECT_TRUE(notification->pairs.empty());
}

TEST_F(TriggerActionsTest, PairsTravelOnInNameOrder)
{
    LocalClient listener;
    listen_to_all(listener);
    feed("TRIGGER\nz=1\na=2\na=3\n\n");
    auto notification = listener.receive();
    ASSERT_TRUE(notification);
    EXPECT_EQ(notification->pairs, (Pairs{{"a", "2\n3"}, {"z", "1"}}));
}

TEST_F(TriggerActionsTest, CommandInOtherCaseOrWithTrailingBlanksStartsAndNotifiesNothing)
{
    MediaItemService media;
    LocalClient listener;
    listen_to_all(listener);
    add_items({"a"});
    EXPECT_EQ(feed("trigger\n\nTRIGGER \n\nTRIGGER\n\n"), "OK\n\nOK\n\nOK\n\n");
    // Only the last message acts: one start, one notification.
    EXPECT_EQ(starts(), Strings{"a after 0 notifications"});
    EXPECT_EQ(media.requests(1), Strings{"start a"});
    auto notification = listener.receive();
    ASSERT_TRUE(notification);
    EXPECT_EQ(notification->arguments, Strings{"TRIGGER"});
}

TEST_F(TriggerActionsTest, WithoutItemsATriggerStartsNothingAndStillNotifies)
{
    LocalClient listener;
    listen_to_all(listener);
    EXPECT_EQ(feed("TRIGGER\n\n"), "OK\n\n");
    EXPECT_TRUE(starts().empty());
    auto notification = listener.receive();
    ASSERT_TRUE(notification);
    EXPECT_EQ(notification->arguments, Strings{"TRIGGER"});
}

TEST_F(TriggerActionsTest, WithoutLocalProgramsATriggerStillStartsTheItems)
{
    MediaItemService media;
    add_items({"a"});
    EXPECT_EQ(feed("TRIGGER\n\n"), "OK\n\n");
    EXPECT_EQ(media.requests(1), Strings{"start a"});
    EXPECT_TRUE(library_calls.sends.empty());
}

TEST_F(TriggerActionsTest, ItemsThatCannotStartKeepNothingElseFromHappening)
{
    // No media-item service is listening: every start fails.
    LocalClient listener;
    listen_to_all(listener);
    add_items({"a", "b"});
    EXPECT_EQ(feed("TRIGGER\n\n"), "OK\n\n");
    EXPECT_EQ(starts(), (Strings{"a after 0 notifications", "b after 0 notifications"}));
    EXPECT_TRUE(listener.receive());
}

TEST_F(TriggerActionsTest, DoTriggerStartsThenNotifiesAndLeavesTheMessageAsItIs)
{
    SyslogWatch syslog_watch;
    MediaItemService media;
    LocalClient listener;
    listen_to_all(listener);
    add_items({"b", "a"});
    client.command = "TRIGGER";
    client.nv_pairs = {{"k", "v"}};
    reset_library_calls();
    testing::internal::CaptureStderr();
    do_trigger(client);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(starts(), (Strings{"a after 0 notifications", "b after 0 notifications"}));
    EXPECT_EQ(media.requests(2), (Strings{"start a", "start b"}));
    auto notification = listener.receive();
    ASSERT_TRUE(notification);
    EXPECT_EQ(notification->arguments, Strings{"TRIGGER"});
    EXPECT_EQ(notification->pairs, (Pairs{{"k", "v"}}));
    EXPECT_EQ(client.command, "TRIGGER");
    EXPECT_EQ(client.nv_pairs.size(), 1u);
    // Nothing was logged: the test's own record is the first one.
    syslog(LOG_DAEMON | LOG_INFO, "after do_trigger");
    Strings records = syslog_watch.wait_for(1);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(SyslogWatch::daemon_info_text(records[0]), "q9_korvane_xml_events_d: after do_trigger");
}

}  // namespace
