// Start-up of the daemon as an operator or an init script sees it: texts on
// stderr, exit statuses, the PID file and syslog.

#include "daemon.h"
#include "files.h"
#include "sandbox_syslog.h"
#include "text.h"
#include "waiting.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace q9test;

namespace {

const std::string usage = "q9_korvane_xml_events_d [options]\n"
                          " -h --help                   Show this help\n";

TEST(DaemonStartup, HelpPrintsUsageAndExitsOne)
{
    for (const char* help : {"-h", "--help", "---h", "-help", "---help"}) {
        auto [status, err] = run_daemon_to_end({help});
        EXPECT_EQ(status, 1) << help;
        EXPECT_EQ(err, usage) << help;
    }
}

TEST(DaemonStartup, UnknownSwitchIsRefused)
{
    auto [status, err] = run_daemon_to_end({"-x"});
    EXPECT_EQ(status, 1);
    EXPECT_EQ(err, "Unknown switch -x please use --help to see options.\n");
}

TEST(DaemonStartup, LoneDashIsAnUnknownSwitchWithEmptyName)
{
    auto [status, err] = run_daemon_to_end({"-"});
    EXPECT_EQ(status, 1);
    EXPECT_EQ(err, "Unknown switch - please use --help to see options.\n");
}

TEST(DaemonStartup, WordWithoutDashIsRefused)
{
    auto [status, err] = run_daemon_to_end({"start"});
    EXPECT_EQ(status, 1);
    EXPECT_EQ(err, "all argv[] must be switches.\n");
}

TEST(DaemonStartup, WordAfterForceSwitchIsRefused)
{
    auto [status, err] = run_daemon_to_end({"-f", "now"});
    EXPECT_EQ(status, 1);
    EXPECT_EQ(err, "all argv[] must be switches.\n");
}

TEST(DaemonStartup, HelpAfterForceSwitchStillPrintsUsage)
{
    auto [status, err] = run_daemon_to_end({"-f", "--help"});
    EXPECT_EQ(status, 1);
    EXPECT_EQ(err, usage);
}

TEST(DaemonStartup, MissingConfigurationEndsWithStatusZero)
{
    auto [status, err] = run_daemon_to_end();
    EXPECT_EQ(status, 0);
    EXPECT_EQ(err, "No configuration path, exiting\n");
}

TEST(DaemonStartup, SymbolicLinkToConfigurationIsRefused)
{
    write_file("/etc/q9-real.toml", minimal_config());
    ASSERT_EQ(symlink("/etc/q9-real.toml", config_path), 0);
    auto [status, err] = run_daemon_to_end();
    EXPECT_EQ(status, 0);
    EXPECT_EQ(err, "No configuration path, exiting\n");
}

TEST(DaemonStartup, DirectoryAtConfigurationPathIsRefused)
{
    ASSERT_EQ(mkdir(config_path, 0755), 0);
    auto [status, err] = run_daemon_to_end();
    EXPECT_EQ(status, 0);
    EXPECT_EQ(err, "No configuration path, exiting\n");
}

TEST(DaemonStartup, EmptyConfigurationHasNothingToWatch)
{
    write_config("");
    auto [status, err] = run_daemon_to_end();
    EXPECT_EQ(status, 1);
    EXPECT_EQ(err, "Nothing to watch.\n");
}

TEST(DaemonStartup, MalformedConfigurationFailsToLoad)
{
    write_config("[channel1\n");
    auto [status, err] = run_daemon_to_end();
    EXPECT_EQ(status, 1);
    EXPECT_EQ(err.rfind("/etc/q9_korvane_xml_events_d.toml: TOML parse error: ", 0), 0u) << err;
    EXPECT_EQ(count_of(err, "\n"), 2) << err;
    EXPECT_NE(err.find("\nFailed to load configuration.\n"), std::string::npos) << err;
}

TEST(DaemonStartup, ExampleConfigurationIsReportedSectionBySection)
{
    write_config("station = \"north\"\n"
                 "\n"
                 "[channel-news]\n"
                 "\"watch path\" = \"/srv/events/news\"\n"
                 "\"asset path\" = \"/srv/assets/news\"\n"
                 "\"target channel\" = 1\n"
                 "\n"
                 "[[channel]]\n"
                 "\"watch path\" = \"/srv/events/sport\"\n"
                 "\"asset path\" = \"/srv/assets/sport\"\n"
                 "\"target channel\" = 2\n");
    Daemon daemon;
    ASSERT_TRUE(daemon.wait_until_running());
    std::string news = "Added section 'channel-news'\n"
                       "Entry 'channel-news'\n"
                       "  Watch:      '/srv/events/news'\n"
                       "  Assets:     '/srv/assets/news'\n"
                       "  Channel:    1\n";
    std::string sport = "table array\n"
                        "Added section 'channelitem0'\n"
                        "Entry 'channelitem0'\n"
                        "  Watch:      '/srv/events/sport'\n"
                        "  Assets:     '/srv/assets/sport'\n"
                        "  Channel:    2\n";
    std::string err = daemon.stderr_text();
    EXPECT_NE(err.find(news), std::string::npos) << err;
    EXPECT_NE(err.find(sport), std::string::npos) << err;
    EXPECT_EQ(count_of(err, "Added section"), 2) << err;
}

TEST(DaemonStartup, ForceRunsWithoutConfigurationFile)
{
    Daemon daemon({"-f"});
    ASSERT_TRUE(daemon.wait_until_running());
    EXPECT_EQ(daemon.stderr_text().rfind("/etc/q9_korvane_xml_events_d.toml: No such file or directory\n", 0), 0u)
        << daemon.stderr_text();
}

TEST(DaemonStartup, ForceTwiceIsAccepted)
{
    Daemon daemon({"-f", "--f"});
    EXPECT_TRUE(daemon.wait_until_running());
}

TEST(DaemonStartup, ForceRunsWithEmptyConfiguration)
{
    write_config("");
    Daemon daemon({"-f"});
    EXPECT_TRUE(daemon.wait_until_running());
}

TEST(DaemonStartup, SecondInstanceIsRefusedAndLeavesPidFileAlone)
{
    write_config(minimal_config());
    Daemon first;
    ASSERT_TRUE(first.wait_until_running());
    std::string pid_before = read_file(pid_path);
    struct stat before {};
    ASSERT_EQ(stat(pid_path, &before), 0);

    auto [status, err] = run_daemon_to_end();
    EXPECT_EQ(status, 1);
    EXPECT_EQ(err, "This service is already running.\n");
    struct stat after {};
    ASSERT_EQ(stat(pid_path, &after), 0);
    EXPECT_EQ(read_file(pid_path), pid_before);
    EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_TRUE(first.running());
}

// Runs the daemon to its end and expects it to fail with status 1,
// reporting `report` on stderr.
void expect_start_fails_reporting(const std::string& report)
{
    auto [status, err] = run_daemon_to_end();
    EXPECT_EQ(status, 1);
    EXPECT_NE(err.find(report), std::string::npos) << err;
}

TEST(DaemonStartup, ServiceSocketPathTakenByDirectoryFails)
{
    write_config(minimal_config());
    ASSERT_EQ(mkdir(service_path, 0755), 0);
    expect_start_fails_reporting(
        "Failed to create server socket at /var/run/q9_korvane_xml_events_d.service\n");
    // "Starting up" is logged before the server listens; no stop record follows.
    EXPECT_TRUE(wait_until([] { return syslog_count("q9_korvane_xml_events_d: Starting up") == 1; }));
    EXPECT_EQ(syslog_count("Shutting down"), 0);
}

TEST(DaemonStartup, UnwritablePidFileFails)
{
    write_config(minimal_config());
    ASSERT_EQ(mkdir(pid_path, 0755), 0);
    expect_start_fails_reporting("Unable to write PID file /var/run/q9_korvane_xml_events_d.pid\n");
}

TEST(DaemonStartup, TakenTriggerPortFails)
{
    write_config(minimal_config());
    int blocker = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(9876);
    ASSERT_EQ(bind(blocker, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(blocker, 1), 0);
    expect_start_fails_reporting("Cannot bind socket, Address already in use\nUnable to open TCP socket\n");
    close(blocker);
}

}  // namespace
