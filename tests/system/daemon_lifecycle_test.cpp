// The running daemon: PID file, syslog, reload on SIGHUP, orderly stop and
// the abort on the tenth stop signal.
#include "daemon.h"
#include "daemon_test.h"
#include "files.h"
#include "packet_peers.h"
#include "sandbox_syslog.h"
#include "text.h"
#include "waiting.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

using namespace q9test;

namespace {

// Connects to the command service and writes "test" requests that want a
// reply until the daemon stops taking them for two seconds, without ever
// reading a reply.  The connected socket, or -1.
int flood_with_requests_never_reading()
{
    std::string frame = request_frame(reply_wanted_flags, "test");
    int fd = connect_unix(service_path);
    if (fd < 0)
        return -1;
    size_t written = 0;
    auto last_progress = Clock::now();
    while (Clock::now() - last_progress < std::chrono::seconds(2)) {
        ssize_t sent = send(fd, frame.data() + written % frame.size(), frame.size() - written % frame.size(),
                            MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent > 0) {
            written += static_cast<size_t>(sent);
            last_progress = Clock::now();
        } else {
            usleep(10000);
        }
    }
    return fd;
}

using RunningDaemon = DaemonTest;

TEST_F(RunningDaemon, PidFileHoldsProcessIdAndNewline)
{
    EXPECT_EQ(read_file(pid_path), std::to_string(daemon->pid()) + "\n");
}

TEST_F(RunningDaemon, SigtermStopsWithStatusZeroAndRemovesPidFile)
{
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->wait_exit(), 0);
    EXPECT_NE(access(pid_path, F_OK), 0);
}

TEST_F(RunningDaemon, SigintAndSigquitStopInOrderToo)
{
    daemon->signal(SIGINT);
    EXPECT_EQ(daemon->wait_exit(), 0);
    daemon = std::make_unique<Daemon>();
    ASSERT_TRUE(daemon->wait_until_running());
    daemon->signal(SIGQUIT);
    EXPECT_EQ(daemon->wait_exit(), 0);
}

TEST_F(RunningDaemon, StartAndStopAreLogged)
{
    EXPECT_TRUE(wait_until([] { return syslog_count("q9_korvane_xml_events_d: Starting up") == 1; }));
    daemon->signal(SIGTERM);
    ASSERT_EQ(daemon->wait_exit(), 0);
    // The sink may still be writing the last record when the daemon is gone.
    EXPECT_TRUE(wait_until([] { return syslog_count("q9_korvane_xml_events_d: Shutting down") == 1; }));
    // Facility daemon, level info: priority 3 * 8 + 6.
    EXPECT_EQ(syslog_count("<30>"), 2) << syslog_text();
}

TEST_F(RunningDaemon, StopDumpsOpenDescriptors)
{
    daemon->signal(SIGTERM);
    ASSERT_EQ(daemon->wait_exit(), 0);
    // The command server and the listener are gone before the dump.
    EXPECT_TRUE(stop_dump_keeps_only_lock_and_syslog(daemon->stderr_text())) << daemon->stderr_text();
}

TEST_F(RunningDaemon, ReloadReadsChangedFileAndKeepsRunning)
{
    write_config(minimal_config() + "[channel2]\n\"watch path\" = \"/w\"\n\"asset path\" = \"/a\"\n"
                                    "\"target channel\" = 2\n");
    daemon->signal(SIGHUP);
    ASSERT_TRUE(daemon->wait_for_stderr("Reloading config, SIGHUP\n"));
    EXPECT_TRUE(daemon->wait_for_stderr("Added section 'channel2'\n"));
    EXPECT_TRUE(daemon->wait_for_stderr("Added section 'channel1'\n", 2));
    EXPECT_TRUE(daemon->running());
}

TEST_F(RunningDaemon, FailedReloadWarnsAndKeepsRunning)
{
    write_config("[channel1\n");
    daemon->signal(SIGHUP);
    ASSERT_TRUE(daemon->wait_for_stderr("Warning: Configuration load failure\n"));
    EXPECT_NE(daemon->stderr_text().find("Reloading config, SIGHUP\n/etc/q9_korvane_xml_events_d.toml: TOML parse error: "),
              std::string::npos);
    EXPECT_TRUE(daemon->running());
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->wait_exit(), 0);
}

TEST_F(RunningDaemon, ReloadOfEmptyFileDoesNotStopTheDaemon)
{
    write_config("");
    daemon->signal(SIGHUP);
    ASSERT_TRUE(daemon->wait_for_stderr("Reloading config, SIGHUP\n"));
    usleep(600000);
    EXPECT_TRUE(daemon->running());
    EXPECT_EQ(daemon->stderr_text().find("Nothing to watch"), std::string::npos);
}

TEST_F(RunningDaemon, SeveralHangupsWithinOnePassReloadOnce)
{
    // Hold one pass with a local program that does not read its replies,
    // so that all three signals are taken within that pass.
    int greedy = flood_with_requests_never_reading();
    ASSERT_GE(greedy, 0);
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(daemon->deliver(SIGHUP));
    // Reading the replies lets the pass end; the reload follows.
    ASSERT_TRUE(wait_until([&] {
        char buffer[65536];
        while (recv(greedy, buffer, sizeof(buffer), MSG_DONTWAIT) > 0) {
        }
        return count_of(daemon->stderr_text(), "Reloading config, SIGHUP\n") > 0;
    }));
    // Two more passes give a stray second reload every chance to show up.
    usleep(600000);
    EXPECT_EQ(count_of(daemon->stderr_text(), "Reloading config, SIGHUP\n"), 1);
    close(greedy);
}

TEST_F(RunningDaemon, StuckPassEndsOnlyAtTheTenthStopSignal)
{
    // A local program that asks and asks but never reads its replies: once
    // its socket is full, the daemon waits for it without end.
    int greedy = flood_with_requests_never_reading();
    ASSERT_GE(greedy, 0);
    ASSERT_TRUE(daemon->deliver(SIGTERM));
    usleep(1000000);
    ASSERT_TRUE(daemon->running()) << "the pass was not stuck";
    for (int i = 0; i < 8; ++i)
        ASSERT_TRUE(daemon->deliver(i % 2 ? SIGQUIT : SIGTERM));
    usleep(500000);
    EXPECT_TRUE(daemon->running());
    daemon->signal(SIGINT);
    EXPECT_EQ(daemon->wait_exit(), 128 + SIGABRT);
    EXPECT_EQ(read_file(pid_path), std::to_string(daemon->pid()) + "\n");
    EXPECT_EQ(syslog_count("Shutting down"), 0);
    close(greedy);
}

}  // namespace
