// The running daemon: PID file, syslog, reload on SIGHUP, orderly stop and
// the abort on the tenth stop signal.
#include "harness.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

using namespace q9test;

namespace {

class RunningDaemon : public ::testing::Test {
protected:
    void SetUp() override
    {
        write_config(minimal_config());
        daemon = std::make_unique<Daemon>();
        ASSERT_TRUE(daemon->wait_until_running());
    }

    std::unique_ptr<Daemon> daemon;
};

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
    EXPECT_EQ(syslog_count("q9_korvane_xml_events_d: Shutting down"), 1);
    // Facility daemon, level info: priority 3 * 8 + 6.
    EXPECT_EQ(syslog_count("<30>"), 2) << syslog_text();
}

TEST_F(RunningDaemon, StopDumpsOpenDescriptors)
{
    daemon->signal(SIGTERM);
    ASSERT_EQ(daemon->wait_exit(), 0);
    std::string err = daemon->stderr_text();
    EXPECT_NE(err.find("fd 0 -> /dev/null\n"), std::string::npos) << err;
    EXPECT_NE(err.find("fd 2 -> /run/q9-test/"), std::string::npos) << err;
    EXPECT_NE(err.find(" open file descriptors\n"), std::string::npos) << err;
    // The command server and the TCP listener are closed before the dump.
    EXPECT_EQ(err.find("TCP"), std::string::npos) << err;
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
    daemon->signal(SIGHUP);
    daemon->signal(SIGHUP);
    daemon->signal(SIGHUP);
    ASSERT_TRUE(daemon->wait_for_stderr("Reloading config, SIGHUP\n"));
    // Two more passes give a stray second reload every chance to show up.
    usleep(600000);
    EXPECT_EQ(count_of(daemon->stderr_text(), "Reloading config, SIGHUP\n"), 1);
}

TEST_F(RunningDaemon, TenStopSignalsInARowAbort)
{
    // Signals sent faster than a pass ends: the tenth arrives before the
    // orderly stop has finished and aborts the process.
    for (int i = 0; i < 10; ++i)
        daemon->signal(SIGTERM);
    int status = daemon->wait_exit();
    if (status == 0)
        GTEST_SKIP() << "the orderly stop finished before the tenth signal arrived";
    EXPECT_EQ(status, 128 + SIGABRT);
    EXPECT_EQ(read_file(pid_path), std::to_string(daemon->pid()) + "\n");
}

}  // namespace
