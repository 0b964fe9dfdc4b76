// Signals in numbers: a storm of reloads while the configuration file is
// rewritten under the daemon's feet, reloads and a stop in the middle of a
// stream of triggers.
#include "load_support.h"
#include "daemon.h"
#include "files.h"
#include "sandbox_syslog.h"
#include "tcp.h"
#include "text.h"
#include "waiting.h"

#include <signal.h>
#include <unistd.h>

using namespace q9test;
using namespace q9load;

namespace {

constexpr int storm_signals = 1000;

std::string section(const std::string& header, int channel)
{
    return header + "\n\"watch path\" = \"/w\"\n\"asset path\" = \"/a\"\n\"target channel\" = " +
           std::to_string(channel) + "\n";
}

// Four kinds of file in turn: one section, three sections, an array of
// tables, and a file that does not parse.
std::string storm_config(int i)
{
    switch (i % 4) {
    case 0:
        return section("[channel1]", 1);
    case 1:
        return section("[channel-a]", 1) + section("[channel-b]", 2) + section("[channel-c]", 3);
    case 2:
        return section("[[channel]]", 1) + section("[[channel]]", 2);
    default:
        return section("[channel1", 1);
    }
}

// "ONE LINE TRIGGER" lines, 17 bytes each.
std::string one_line_triggers(int count)
{
    std::string text;
    for (int i = 0; i < count; ++i)
        text += "ONE LINE TRIGGER\n";
    return text;
}

class SignalLoad : public LoadTest {};

TEST_F(SignalLoad, ThousandReloadsWithTheFileRewrittenInPlaceEndOnTheLastFile)
{
    // Bounds: 1,000 SIGHUPs, each sent once the daemon has taken the one
    // before (a signal cuts the pass's sleep short, so this takes seconds);
    // each wait 15 s at most.
    for (int i = 0; i < storm_signals; ++i) {
        write_config(storm_config(i));
        ASSERT_TRUE(daemon->deliver(SIGHUP)) << i;
    }
    write_config(section("[channel-final]", 7));
    int reloads_before = count_of(daemon->stderr_text(), "Reloading config, SIGHUP\n");
    ASSERT_TRUE(daemon->deliver(SIGHUP));
    // A reload reported after the count above started after the last write.
    std::string last_reload = "Reloading config, SIGHUP\nAdded section 'channel-final'\nEntry 'channel-final'\n"
                              "  Watch:      '/w'\n  Assets:     '/a'\n  Channel:    7\n";
    ASSERT_TRUE(wait_until([&] {
        std::string err = daemon->stderr_text();
        size_t last = err.rfind("Reloading config, SIGHUP\n");
        return count_of(err, "Reloading config, SIGHUP\n") > reloads_before && err.substr(last) == last_reload;
    })) << daemon->stderr_text().substr(daemon->stderr_text().size() - 400);
    int reloads = count_of(daemon->stderr_text(), "Reloading config, SIGHUP\n");
    RecordProperty("reloads", reloads);
    EXPECT_LE(reloads, storm_signals + 1);
    EXPECT_TRUE(trigger_acknowledged());
    expect_footprint_kept();
}

TEST_F(SignalLoad, ReloadsDuringAStreamOfTriggersLoseNoMessage)
{
    // Bounds: 2,000 one-line triggers (34 KB, about 14 passes) and 200
    // SIGHUPs sent while they are read; 60 s for all replies.
    TcpPeer peer;
    ASSERT_TRUE(peer.send(one_line_triggers(2000)));
    for (int i = 0; i < 200; ++i)
        ASSERT_TRUE(daemon->deliver(SIGHUP)) << i;
    std::string replies = peer.receive(2000 * 3, std::chrono::milliseconds(60000));
    EXPECT_EQ(count_of(replies, "OK\n"), 2000);
    EXPECT_EQ(count_of(daemon->stderr_text(), "Message: command='ONE LINE TRIGGER'\n"), 2000);
    EXPECT_TRUE(wait_until([] { return syslog_count("Command received, command 'ONE LINE TRIGGER'") == 2000; }));
    EXPECT_TRUE(daemon->running());
    peer.close();
    ASSERT_TRUE(daemon->wait_for_stderr("Dropping TCP client fd ", 2));
    expect_footprint_kept();
}

TEST_F(SignalLoad, StopSignalInTheMiddleOfAStreamOfTriggersEndsInOrder)
{
    // Bounds: 2,000 one-line triggers queued; the stop comes within a pass.
    TcpPeer peer;
    ASSERT_TRUE(peer.send(one_line_triggers(2000)));
    ASSERT_TRUE(daemon->wait_for_stderr("Message: command='ONE LINE TRIGGER'\n"));
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->wait_exit(), 0);
    EXPECT_NE(access(pid_path, F_OK), 0);
    EXPECT_TRUE(wait_until([] { return syslog_count("Shutting down") == 1; }));
    // No message is answered that was not handled.  Not every answer sent
    // arrives: the daemon closes a connection with unread input, which
    // resets it, and a reset throws away what the peer had not read yet.
    std::string replies = peer.receive(2000 * 3, std::chrono::milliseconds(2000));
    EXPECT_LE(count_of(replies, "OK\n"), count_of(daemon->stderr_text(), "Message: command='ONE LINE TRIGGER'\n"));
    EXPECT_TRUE(peer.wait_closed());
}

TEST_F(SignalLoad, UserAndAlarmSignalsEndTheDaemonWithoutTheStopSequence)
{
    // The daemon puts these back to their default action at start-up and
    // does not handle them: each ends it at once, leaving the PID file.
    for (int signo : {SIGUSR1, SIGUSR2, SIGALRM}) {
        daemon->signal(signo);
        EXPECT_EQ(daemon->wait_exit(), 128 + signo);
        EXPECT_EQ(read_file(pid_path), std::to_string(daemon->pid()) + "\n");
        remove(pid_path);
        start_daemon();
    }
    EXPECT_EQ(syslog_count("Shutting down"), 0);
}

}  // namespace
