// The TCP trigger service seen from outside: real TCP peers on port 9876,
// the exact bytes they get back, and what the daemon reports on stderr and
// syslog about them.

#include "daemon.h"
#include "daemon_test.h"
#include "sandbox_syslog.h"
#include "tcp.h"
#include "text.h"
#include "waiting.h"

#include <gtest/gtest.h>

#include <memory>

using namespace q9test;

namespace {

// The daemon's descriptor of the `nth` (from 1) connection it accepted, read
// from its "Accepted TCP client fd N" line; -1 when there is no such line.
int accepted_fd(const Daemon& daemon, int nth)
{
    const std::string marker = "Accepted TCP client fd ";
    if (!daemon.wait_for_stderr(marker, nth))
        return -1;
    std::string err = daemon.stderr_text();
    size_t at = std::string::npos;
    for (int i = 0; i < nth; ++i)
        at = err.find(marker, at == std::string::npos ? 0 : at + 1);
    return std::stoi(err.substr(at + marker.size()));
}

// Sends `bytes` and returns what comes back, `count` bytes at most.
std::string reply_to(TcpPeer& peer, const std::string& bytes, size_t count)
{
    return peer.send(bytes) ? peer.receive(count) : std::string("(send failed)");
}

// True when a further message gets exactly its own reply: any stray byte
// sent earlier on this connection would arrive before that reply.
bool answers_next_message_alone(TcpPeer& peer)
{
    return reply_to(peer, "PING\n\n", 4) == "OK\n\n" && peer.available().empty();
}

// Makes the daemon go through at least `steps` further service steps.
// Connections are read in ascending descriptor order, so a message on the
// lower one is read in a later step than the reply just sent on the higher.
void run_steps(TcpPeer& lower, TcpPeer& higher, int steps)
{
    for (int i = 0; i < steps; ++i) {
        ASSERT_EQ(reply_to(higher, "ONE LINE TRIGGER\n", 3), "OK\n");
        ASSERT_EQ(reply_to(lower, "ONE LINE TRIGGER\n", 3), "OK\n");
    }
}

class TriggerService : public DaemonTest {
protected:
    // The daemon reports a message on stderr before it replies, so the
    // listing is complete once the reply has arrived.
    bool listed(const std::string& text) const
    {
        return daemon->stderr_text().find(text) != std::string::npos;
    }

    // Sends `message` on a fresh connection: it must be answered with
    // `reply`, and a next message on that connection alone.
    void expect_answered(const std::string& message, const std::string& reply)
    {
        TcpPeer peer;
        EXPECT_EQ(reply_to(peer, message, reply.size()), reply);
        EXPECT_TRUE(answers_next_message_alone(peer));
    }

    // Sends `bytes` on a first connection and hangs up; the daemon must
    // report `report` for that connection, drop it and list no message.
    void expect_hang_up_reported(const std::string& bytes, const std::string& report)
    {
        TcpPeer peer;
        ASSERT_TRUE(peer.send(bytes));
        int fd = accepted_fd(*daemon, 1);
        peer.close();
        ASSERT_TRUE(daemon->wait_for_stderr("Dropping TCP client fd"));
        std::string fd_text = std::to_string(fd);
        EXPECT_TRUE(listed("TCP client fd " + fd_text + " " + report + "\n" +
                           "Dropping TCP client fd " + fd_text + "\n"))
            << daemon->stderr_text();
        EXPECT_FALSE(listed("Message:"));
    }
};

TEST_F(TriggerService, MessageEndedByEmptyLineIsAnsweredOkAndTwoLinefeeds)
{
    expect_answered("TRIGGER\n\n", "OK\n\n");
}

TEST_F(TriggerService, OneLineTriggerIsAnsweredOkAndOneLinefeedWithoutEmptyLine)
{
    expect_answered("ONE LINE TRIGGER\n", "OK\n");
    EXPECT_TRUE(listed("Message: command='ONE LINE TRIGGER'\n"));
}

TEST_F(TriggerService, OneLineTriggerAfterLeadingBlanksAndBeforeCarriageReturnIsStillOneLine)
{
    expect_answered(" \t ONE LINE TRIGGER\r\n", "OK\n");
}

TEST_F(TriggerService, OneLineTriggerWithTrailingBlankWaitsForTheEmptyLine)
{
    TcpPeer peer;
    ASSERT_TRUE(peer.send("ONE LINE TRIGGER \n"));
    // Had the line been answered at once, the empty line would start no
    // message and the fourth byte would never come.
    EXPECT_EQ(reply_to(peer, "\n", 4), "OK\n\n");
    EXPECT_TRUE(listed("Message: command='ONE LINE TRIGGER '\n"));
    EXPECT_TRUE(answers_next_message_alone(peer));
}

TEST_F(TriggerService, CarriageReturnLinefeedFramingIsAccepted)
{
    expect_answered("TRIGGER\r\nchannel=2\r\n\r\n", "OK\n\n");
    EXPECT_TRUE(listed("Message: command='TRIGGER'\n  'channel' = '2'\n"));
}

TEST_F(TriggerService, BareLinefeedFramingIsAccepted)
{
    expect_answered("TRIGGER\nchannel=2\n\n", "OK\n\n");
    EXPECT_TRUE(listed("Message: command='TRIGGER'\n  'channel' = '2'\n"));
}

TEST_F(TriggerService, BlankLinesBetweenMessagesAreIgnored)
{
    TcpPeer peer;
    EXPECT_EQ(reply_to(peer, "\n\r\n \t\r\nFIRST\n\n\n\r\n  \nSECOND\r\n\r\n\n", 8), "OK\n\nOK\n\n");
    EXPECT_TRUE(answers_next_message_alone(peer));
    std::string err = daemon->stderr_text();
    EXPECT_EQ(count_of(err, "Message: command="), 3) << err;
    EXPECT_LT(err.find("command='FIRST'"), err.find("command='SECOND'"));
}

TEST_F(TriggerService, BareLinefeedsOnAFreshConnectionProduceNothing)
{
    TcpPeer peer;
    ASSERT_TRUE(peer.send("\n\n\n"));
    EXPECT_TRUE(answers_next_message_alone(peer));
    EXPECT_EQ(count_of(daemon->stderr_text(), "Message: command="), 1);
}

TEST_F(TriggerService, TwoMessagesInOneSegmentAreAnsweredInOrder)
{
    TcpPeer peer;
    EXPECT_EQ(reply_to(peer, "CUE\n\nONE LINE TRIGGER\n", 7), "OK\n\nOK\n");
    EXPECT_EQ(reply_to(peer, "ONE LINE TRIGGER\nCUE\n\n", 7), "OK\nOK\n\n");
    EXPECT_TRUE(answers_next_message_alone(peer));
    std::string err = daemon->stderr_text();
    EXPECT_LT(err.find("command='CUE'"), err.find("command='ONE LINE TRIGGER'"));
}

TEST_F(TriggerService, ThreeHundredBytesOfMessagesAtOnceAreAllAnswered)
{
    std::string messages;
    for (int i = 0; i < 100; ++i)
        messages += "M\n\n";
    ASSERT_EQ(messages.size(), 300u);
    TcpPeer peer;
    std::string replies = reply_to(peer, messages, 400);
    EXPECT_EQ(replies.size(), 400u);
    EXPECT_EQ(count_of(replies, "OK\n\n"), 100);
    EXPECT_TRUE(answers_next_message_alone(peer));
    EXPECT_EQ(count_of(daemon->stderr_text(), "Message: command='M'\n"), 100);
}

TEST_F(TriggerService, MessageOfThreeHundredBytesInOneSendIsHandledWhole)
{
    std::string message = "CUE\n";
    std::string listing = "Message: command='CUE'\n";
    for (char name = 'a'; message.size() < 270; ++name) {
        message += std::string(1, name) + "=" + std::string(20, name) + "\n";
        listing += std::string("  '") + name + "' = '" + std::string(20, name) + "'\n";
    }
    std::string last_value(300 - message.size() - 4, 'z');
    message += "z=" + last_value + "\n\n";
    listing += "  'z' = '" + last_value + "'\n";
    ASSERT_EQ(message.size(), 300u);
    TcpPeer peer;
    EXPECT_EQ(reply_to(peer, message, 4), "OK\n\n");
    EXPECT_TRUE(listed(listing)) << daemon->stderr_text();
    EXPECT_TRUE(answers_next_message_alone(peer));
}

TEST_F(TriggerService, LineOf1023CharactersIsProcessed)
{
    TcpPeer peer;
    std::string command(1023, 'Y');
    EXPECT_EQ(reply_to(peer, command + "\n\n", 4), "OK\n\n");
    EXPECT_TRUE(listed("Message: command='" + command + "'\n"));
    EXPECT_TRUE(answers_next_message_alone(peer));
}

TEST_F(TriggerService, MessageIsListedWithItsPairsInNameOrder)
{
    TcpPeer peer;
    EXPECT_EQ(reply_to(peer, "TRIGGER\nzeta=1\nalpha=2\nmid=3\n\n", 4), "OK\n\n");
    EXPECT_TRUE(listed("Message: command='TRIGGER'\n"
                       "  'alpha' = '2'\n"
                       "  'mid' = '3'\n"
                       "  'zeta' = '1'\n"))
        << daemon->stderr_text();
}

TEST_F(TriggerService, RepeatedNamesBlanksAndLinesWithoutEqualsAreListedAsReceived)
{
    TcpPeer peer;
    EXPECT_EQ(reply_to(peer, "CUE\nclip=a\nclip=b\na = b\nno equals here\n=empty name\nempty value=\n\n", 4),
              "OK\n\n");
    EXPECT_TRUE(listed("Message: command='CUE'\n"
                       "  '' = 'empty name'\n"
                       "  'a ' = ' b'\n"
                       "  'clip' = 'a\nb'\n"
                       "  'empty value' = ''\n"))
        << daemon->stderr_text();
}

TEST_F(TriggerService, EveryMessageIsLoggedToSyslogOnce)
{
    TcpPeer peer;
    ASSERT_EQ(reply_to(peer, "TRIGGER\n\nCUE\nx=1\n\nONE LINE TRIGGER\n", 11), "OK\n\nOK\n\nOK\n");
    const std::string ident = "q9_korvane_xml_events_d: ";
    for (const char* command : {"TRIGGER", "CUE", "ONE LINE TRIGGER"}) {
        std::string record = ident + "Command received, command '" + command + "'\n";
        EXPECT_TRUE(wait_until([&] { return syslog_count(record) == 1; })) << syslog_text();
    }
    EXPECT_EQ(syslog_count("Command received"), 3);
    // Facility daemon, level info: priority 3 * 8 + 6.
    EXPECT_EQ(syslog_count("<30>"), 4) << syslog_text();
}

TEST_F(TriggerService, PeerClosingInTheMiddleOfALineIsReportedAndDropped)
{
    expect_hang_up_reported("TRIGGER\nname=va",
                            "dropped connection in the middle of a line, ignoring message");
}

TEST_F(TriggerService, PeerClosingBeforeTheEmptyLineIsReportedAndDropped)
{
    expect_hang_up_reported("TRIGGER\nname=value\n",
                            "dropped connection without empty line, ignoring message");
}

TEST_F(TriggerService, PeerClosingBetweenMessagesIsOnlyDropped)
{
    TcpPeer peer;
    ASSERT_EQ(reply_to(peer, "TRIGGER\n\n\n \r\n", 4), "OK\n\n");
    int fd = accepted_fd(*daemon, 1);
    peer.close();
    ASSERT_TRUE(daemon->wait_for_stderr("Dropping TCP client fd"));
    std::string err = daemon->stderr_text();
    EXPECT_EQ(err.substr(err.find("Dropping")), "Dropping TCP client fd " + std::to_string(fd) + "\n");
    EXPECT_FALSE(listed("dropped connection"));
}

TEST_F(TriggerService, FifthPeerWaitsUntilOneOfFourCloses)
{
    std::vector<std::unique_ptr<TcpPeer>> four;
    for (int i = 0; i < 4; ++i) {
        four.push_back(std::make_unique<TcpPeer>());
        ASSERT_EQ(reply_to(*four.back(), "ONE LINE TRIGGER\n", 3), "OK\n");
    }
    TcpPeer fifth;
    ASSERT_TRUE(fifth.connected());
    ASSERT_TRUE(fifth.send("ONE LINE TRIGGER\n"));
    run_steps(*four.front(), *four.back(), 3);
    EXPECT_EQ(count_of(daemon->stderr_text(), "Accepted TCP client fd"), 4);
    EXPECT_TRUE(fifth.available().empty());

    int second_fd = accepted_fd(*daemon, 2);
    four[1]->close();
    EXPECT_EQ(fifth.receive(3), "OK\n");
    // The place freed by the sweep is refilled in the same step.
    std::string fd_text = std::to_string(second_fd);
    EXPECT_TRUE(listed("Dropping TCP client fd " + fd_text + "\nAccepted TCP client fd " + fd_text + "\n"))
        << daemon->stderr_text();
}

TEST_F(TriggerService, StalledLongLineIsNeverAnsweredWhileOthersGoOnWorking)
{
    TcpPeer stalled;
    TcpPeer lower;
    TcpPeer higher;
    ASSERT_TRUE(stalled.send(std::string(1024, 'x') + "\n\n"));
    // Enough steps to read every byte of the stalled peer several times over,
    // had the daemon gone on reading it.
    run_steps(lower, higher, 8);
    EXPECT_TRUE(stalled.available().empty());
    EXPECT_FALSE(listed("command='xxx"));
    EXPECT_FALSE(listed("protocol violation"));
}

TEST_F(TriggerService, StalledConnectionKeepsItsPlaceEvenAfterThePeerCloses)
{
    TcpPeer stalled;
    ASSERT_TRUE(stalled.send(std::string(1024, 'x')));
    TcpPeer lower;
    TcpPeer middle;
    TcpPeer higher;
    ASSERT_EQ(reply_to(higher, "ONE LINE TRIGGER\n", 3), "OK\n");
    TcpPeer fifth;
    ASSERT_TRUE(fifth.send("ONE LINE TRIGGER\n"));
    stalled.close();
    run_steps(lower, higher, 3);
    EXPECT_TRUE(fifth.available().empty());
    EXPECT_FALSE(listed("Dropping"));

    middle.close();
    EXPECT_EQ(fifth.receive(3), "OK\n");
    EXPECT_EQ(count_of(daemon->stderr_text(), "Dropping TCP client fd"), 1);
}

}  // namespace
