#include "trigger/tcp_trigger_client.h"

#include "trigger_test_support.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

using namespace trigger_test;
using Pairs = std::map<std::string, std::string>;

namespace {

class TCPTriggerClientTest : public testing::Test, protected PairedClient {
protected:
    std::string fd_text(const char* format) const
    {
        char text[200];
        snprintf(text, sizeof(text), format, fd);
        return text;
    }

    // Sends `text`, hangs up, and expects the client to report `report`
    // (with its descriptor for %d) and to close.
    void expect_hang_up_reported(const std::string& text, const char* report)
    {
        send_text(peer, text);
        close_peer();
        EXPECT_EQ(idle_once(), fd_text(report));
        EXPECT_EQ(result, -1);
        EXPECT_EQ(client.sock_fd, -1);
    }
};

TEST(TCPTriggerClientRecord, StartsClosedAndEmpty)
{
    TCPTriggerClient client;
    EXPECT_EQ(client.sock_fd, -1);
    EXPECT_EQ(std::string(client.line, sizeof(client.line)), std::string(sizeof(client.line), '\0'));
    EXPECT_EQ(client.line_pos, 0u);
    EXPECT_EQ(client.line_count, 0);
    EXPECT_EQ(client.command, "");
    EXPECT_TRUE(client.nv_pairs.empty());
    EXPECT_EQ(client.reserved, 0);
    EXPECT_EQ(client.idle(), -1);
}

TEST_F(TCPTriggerClientTest, CrLfMessageIsCollectedThenHandledAndAnsweredWithTwoLineFeeds)
{
    EXPECT_EQ(feed("TRIGGER\r\nchannel=2\r\n"), "");
    EXPECT_EQ(result, 0);
    EXPECT_EQ(client.command, "TRIGGER");
    EXPECT_EQ(client.nv_pairs, (Pairs{{"channel", "2"}}));
    EXPECT_EQ(client.line_count, 2);
    EXPECT_EQ(receive_available(peer), "");

    EXPECT_EQ(feed("\r\n"), "Message: command='TRIGGER'\n  'channel' = '2'\n");
    EXPECT_EQ(result, 0);
    EXPECT_EQ(receive_available(peer), "OK\n\n");
    EXPECT_EQ(client.command, "");
    EXPECT_TRUE(client.nv_pairs.empty());
    EXPECT_EQ(client.line_count, 0);
    EXPECT_EQ(client.line_pos, 0u);
}

TEST_F(TCPTriggerClientTest, OneLineTriggerIsAnsweredAtOnceWithOneLineFeed)
{
    EXPECT_EQ(feed("ONE LINE TRIGGER\n"), "Message: command='ONE LINE TRIGGER'\n");
    EXPECT_EQ(receive_available(peer), "OK\n");
    EXPECT_EQ(client.command, "");
    EXPECT_EQ(client.line_count, 0);
}

TEST_F(TCPTriggerClientTest, OneLineTriggerWithTrailingBlankWaitsForTheEmptyLine)
{
    EXPECT_EQ(feed("ONE LINE TRIGGER \n"), "");
    EXPECT_EQ(client.command, "ONE LINE TRIGGER ");
    EXPECT_EQ(client.line_count, 1);
    EXPECT_EQ(receive_available(peer), "");

    EXPECT_EQ(feed("\n"), "Message: command='ONE LINE TRIGGER '\n");
    EXPECT_EQ(receive_available(peer), "OK\n\n");
}

TEST_F(TCPTriggerClientTest, BlanksAndTabBeforeTheFirstLineAreDropped)
{
    feed("  \tTRIGGER\n");
    EXPECT_EQ(client.command, "TRIGGER");
    EXPECT_EQ(client.line_count, 1);
}

TEST_F(TCPTriggerClientTest, ControlBytesVanishInsideALineWhileHighBytesAndDelAreKept)
{
    // Before the first character even DEL and 8-bit bytes are dropped.
    static const char bytes[] = "\x80\x7f\xff\x01 A\tB\0 C\x7f\xe9 \r\n";
    feed(std::string(bytes, sizeof(bytes) - 1));
    EXPECT_EQ(client.command, "AB C\x7f\xe9 ");
}

TEST_F(TCPTriggerClientTest, FurtherLinesSplitAtTheFirstEqualsSignWithoutTrimming)
{
    feed("TRIGGER\na = b\n=only value\nonly name=\nx=y=z\n");
    EXPECT_EQ(client.nv_pairs,
              (Pairs{{"a ", " b"}, {"", "only value"}, {"only name", ""}, {"x", "y=z"}}));
    EXPECT_EQ(client.line_count, 5);
}

TEST_F(TCPTriggerClientTest, FirstLineIsNeverSplit)
{
    feed("name=value\n");
    EXPECT_EQ(client.command, "name=value");
    EXPECT_TRUE(client.nv_pairs.empty());
}

TEST_F(TCPTriggerClientTest, RepeatedNameGathersItsValuesLineByLine)
{
    feed("TRIGGER\nn=1\nn=2\ne=\ne=2\nf=1\nf=\nN=3\n");
    EXPECT_EQ(client.nv_pairs, (Pairs{{"N", "3"}, {"e", "2"}, {"f", "1\n"}, {"n", "1\n2"}}));
}

TEST_F(TCPTriggerClientTest, LineWithoutEqualsSignIsIgnoredButDoesNotEndTheMessage)
{
    EXPECT_EQ(feed("TRIGGER\nno pair here\n"), "");
    EXPECT_EQ(client.line_count, 2);
    EXPECT_TRUE(client.nv_pairs.empty());
    EXPECT_EQ(receive_available(peer), "");

    EXPECT_EQ(feed("\n"), "Message: command='TRIGGER'\n");
    EXPECT_EQ(receive_available(peer), "OK\n\n");
}

TEST_F(TCPTriggerClientTest, BareLineFeedsOnAFreshConnectionProduceNothing)
{
    EXPECT_EQ(feed("\n\n\n"), "");
    EXPECT_EQ(result, 0);
    EXPECT_EQ(feed(" \t\r\n"), "");
    EXPECT_EQ(client.line_count, 0);
    EXPECT_EQ(receive_available(peer), "");
}

TEST_F(TCPTriggerClientTest, TwoMessagesInOneSegmentAreHandledAndAnsweredInOrderInOneCall)
{
    EXPECT_EQ(feed("A\nk=v\n\nONE LINE TRIGGER\n"),
              "Message: command='A'\n  'k' = 'v'\nMessage: command='ONE LINE TRIGGER'\n");
    EXPECT_EQ(receive_available(peer), "OK\n\nOK\n");
    EXPECT_EQ(pending_bytes(fd), 0);
}

TEST_F(TCPTriggerClientTest, ThreeHundredBytesAreProcessedAsTwoHundredFiftySixThenTheRest)
{
    std::string value(288, 'b');
    std::string text = "TRIGGER\na=" + value + "\n\n";
    ASSERT_EQ(text.size(), 300u);
    EXPECT_EQ(feed(text), "");
    EXPECT_EQ(pending_bytes(fd), 44);
    EXPECT_EQ(client.line_pos, 248u);

    EXPECT_EQ(idle_once(), "Message: command='TRIGGER'\n  'a' = '" + value + "'\n");
    EXPECT_EQ(pending_bytes(fd), 0);
    EXPECT_EQ(receive_available(peer), "OK\n\n");
}

TEST_F(TCPTriggerClientTest, LineOf1023CharactersIsProcessed)
{
    std::string command(1023, 'A');
    send_text(peer, command + "\n\n");
    for (int call = 0; call < 4; ++call)
        EXPECT_EQ(client.idle(), 0);
    EXPECT_EQ(client.command, command);

    EXPECT_EQ(idle_once(), "Message: command='" + command + "'\n");
    EXPECT_EQ(receive_available(peer), "OK\n\n");
}

TEST_F(TCPTriggerClientTest, LineOf1024CharactersStallsTheConnectionForGood)
{
    // 1032 bytes: the fifth call stops right after the 1024th character.
    send_text(peer, "TRIGGER\n" + std::string(1024, 'A') + "\n\n");
    for (int call = 0; call < 5; ++call)
        EXPECT_EQ(client.idle(), 0);
    EXPECT_EQ(client.line_pos, 1024u);
    EXPECT_EQ(pending_bytes(fd), 2);

    for (int call = 0; call < 20; ++call)
        EXPECT_EQ(idle_once(), "");
    EXPECT_EQ(result, 0);
    EXPECT_EQ(pending_bytes(fd), 2);
    EXPECT_EQ(client.sock_fd, fd);
    EXPECT_EQ(receive_available(peer), "");
}

TEST_F(TCPTriggerClientTest, PeerClosingAfterTheFirstLineLeavesTheMessageUnhandled)
{
    expect_hang_up_reported("TRIGGER\n",
                            "TCP client fd %d dropped connection without empty line, ignoring message\n");
}

TEST_F(TCPTriggerClientTest, PeerClosingInTheMiddleOfALineIsReported)
{
    expect_hang_up_reported(
        "TRIGGER\nchan", "TCP client fd %d dropped connection in the middle of a line, ignoring message\n");
}

TEST_F(TCPTriggerClientTest, PeerClosingBetweenMessagesIsAnsweredThenClosedSilently)
{
    send_text(peer, "A\n\n");
    shutdown(peer, SHUT_WR);
    EXPECT_EQ(idle_once(), "Message: command='A'\n");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(client.sock_fd, -1);
    EXPECT_EQ(receive_available(peer), "OK\n\n");
}

TEST_F(TCPTriggerClientTest, MessageOfAVanishedPeerIsHandledAndTheReplyFailureCloses)
{
    send_text(peer, "TRIGGER\n\nmore");
    close_peer();
    EXPECT_EQ(idle_once(), "Message: command='TRIGGER'\nProblem sending reply, dropping connection\n");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(client.sock_fd, -1);
    EXPECT_EQ(client.line_pos, 0u);
    EXPECT_EQ(client.command, "");
}

TEST_F(TCPTriggerClientTest, NothingToReadLeavesTheConnectionOpenAndQuiet)
{
    EXPECT_EQ(idle_once(), "");
    EXPECT_EQ(result, 0);
    EXPECT_EQ(client.sock_fd, fd);
}

TEST_F(TCPTriggerClientTest, ReplyIsOneLineFeedOnlyForTheOneLineForm)
{
    client.send_reply(1);
    client.send_reply(0);
    client.send_reply(2);
    EXPECT_EQ(receive_available(peer), "OK\nOK\n\nOK\n\n");
}

TEST_F(TCPTriggerClientTest, ReplyToAPeerThatDoesNotReadRunsOutOfPatienceAfterTenTries)
{
    std::string filler(1024, 'x');
    while (send(fd, filler.data(), filler.size(), MSG_DONTWAIT) > 0) {
    }
    while (send(fd, "x", 1, MSG_DONTWAIT) > 0) {
    }
    auto start = std::chrono::steady_clock::now();
    testing::internal::CaptureStderr();
    client.send_reply(0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Ran out of patience trying to send reply, dropping connection\n");
    // Nine pauses of 10 ms at least.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(90));
    EXPECT_EQ(client.sock_fd, -1);
}

TEST(TCPTriggerClientErrors, ReceiveErrorClosesWithTheErrorText)
{
    int pipe_ends[2];
    ASSERT_EQ(pipe(pipe_ends), 0);
    TCPTriggerClient client;
    client.take_fd(pipe_ends[0]);
    testing::internal::CaptureStderr();
    EXPECT_EQ(client.idle(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "TCP client fd " + std::to_string(pipe_ends[0]) + " unexpected error Socket operation on non-socket\n");
    EXPECT_EQ(client.sock_fd, -1);
    close(pipe_ends[1]);
}

TEST(TCPTriggerClientErrors, DestructionClosesTheConnectionWithoutReply)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    {
        TCPTriggerClient client;
        client.take_fd(ends[0]);
        send_text(ends[1], "TRIGGER\n");
        client.idle();
        testing::internal::CaptureStderr();
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    char byte;
    EXPECT_EQ(recv(ends[1], &byte, 1, MSG_DONTWAIT), 0);
    close(ends[1]);
}

TEST_F(TCPTriggerClientTest, TakingASecondSocketAborts)
{
    EXPECT_DEATH(client.take_fd(peer), "void TCPTriggerClient::take_fd\\(int\\): Assertion `sock_fd < 0' failed");
}

}  // namespace
