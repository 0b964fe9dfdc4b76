// Peer text in the log, seen from outside: the classic daemon prints a
// repeated name's values joined by a line feed as they came, so a peer can
// write a line of its own; with escape_logged_text every byte that could end
// or hide a line is spelled out in stderr and in syslog.

#include "daemon.h"
#include "sandbox_syslog.h"
#include "tcp.h"
#include "text.h"
#include "waiting.h"

#include <gtest/gtest.h>

#include <memory>

using namespace q9test;

namespace {

const std::string forging_message = "CUE\ninj=one\ninj=Message: command='FAKE'\n\n";

class LoggedPeerText : public testing::Test {
protected:
    void start(const std::string& config)
    {
        write_config(config);
        daemon = std::make_unique<Daemon>();
        ASSERT_TRUE(daemon->wait_until_running());
    }

    // Sends `message` and waits for its acknowledgement: the daemon prints
    // a message before it replies.
    void send_answered(const std::string& message)
    {
        TcpPeer peer;
        ASSERT_TRUE(peer.send(message));
        ASSERT_EQ(peer.receive(4), "OK\n\n");
    }

    std::unique_ptr<Daemon> daemon;
};

TEST_F(LoggedPeerText, ClassicDaemonPrintsARepeatedNamesLineFeedAsItCame)
{
    start(minimal_config());
    send_answered(forging_message);
    EXPECT_NE(daemon->stderr_text().find("Message: command='CUE'\n  'inj' = 'one\nMessage: command='FAKE''\n"),
              std::string::npos)
        << daemon->stderr_text();
}

TEST_F(LoggedPeerText, EscapingKeepsEveryPeerTextOnItsOwnLine)
{
    start(config_with_daemon_keys("escape_logged_text = true\n"));
    send_answered(forging_message);
    EXPECT_NE(daemon->stderr_text().find("Message: command='CUE'\n  'inj' = 'one\\nMessage: command='FAKE''\n"),
              std::string::npos)
        << daemon->stderr_text();
    EXPECT_EQ(count_of(daemon->stderr_text(), "\nMessage: command="), 1);
}

// The line reader already drops the control bytes of a line; what reaches
// the print is the backslash, DEL and bytes above 0x7f.
TEST_F(LoggedPeerText, EscapingSpellsOutBackslashDelAndHighBytesInNamesValuesAndCommand)
{
    start(config_with_daemon_keys("escape_logged_text = true\n"));
    send_answered("CUE\x1b[2J\\\nna\tme\r=caf\xc3\xa9\x7f\n\n");
    EXPECT_NE(daemon->stderr_text().find("Message: command='CUE[2J\\\\'\n  'name' = 'caf\\xc3\\xa9\\x7f'\n"),
              std::string::npos)
        << daemon->stderr_text();
    std::string record = "Command received, command 'CUE[2J\\\\'\n";
    EXPECT_TRUE(wait_until([&] { return syslog_count(record) == 1; })) << syslog_text();
}

}  // namespace
