// The trigger stream that the booted-container test and the restart
// benchmark rely on, against the real daemon in the sandbox: its counts and
// its restart windows must say what happened to every trigger.
#include "daemon.h"
#include "sandbox_syslog.h"
#include "text.h"

#include <gtest/gtest.h>

#include <csignal>
#include <memory>

namespace q9test {
namespace {

const std::string stream_binary = Q9_TRIGGER_STREAM_BINARY;

// The value of the summary line "NAME=VALUE" in `out`, -1 when missing.
long summary_value(const std::string& out, const std::string& name)
{
    size_t at = out.find(name + "=");
    if (at != 0 && at != std::string::npos)
        at = out.find("\n" + name + "=");
    if (at == std::string::npos)
        return -1;
    return std::stol(out.substr(out.find('=', at) + 1));
}

class TriggerStreamTest : public testing::Test {
protected:
    // A daemon that answers at once, as a stream every 10 ms needs.
    void start_daemon()
    {
        write_config(minimal_config() + "\n[daemon]\nwake_on_input = true\n");
        daemon = std::make_unique<Daemon>();
        ASSERT_TRUE(daemon->wait_until_running());
    }

    std::unique_ptr<Daemon> daemon;
};

TEST_F(TriggerStreamTest, EveryTriggerOnItsOwnConnectionIsAnswered)
{
    start_daemon();
    ToolResult result = run_tool(stream_binary, {"--every-ms", "10", "--seconds", "1"});
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    long triggers = summary_value(result.out, "triggers");
    EXPECT_GT(triggers, 0);
    EXPECT_EQ(summary_value(result.out, "answered"), triggers);
    EXPECT_EQ(summary_value(result.out, "refused"), 0);
    EXPECT_EQ(summary_value(result.out, "lost"), 0);
    EXPECT_EQ(summary_value(result.out, "after_last_restart"), triggers);
    EXPECT_EQ(count_of(daemon->stderr_text(), "Accepted TCP client fd"), triggers);
}

TEST_F(TriggerStreamTest, KeptConnectionCarriesEveryTrigger)
{
    start_daemon();
    ToolResult result = run_tool(stream_binary, {"--kept", "--seconds", "1"});
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_GT(summary_value(result.out, "triggers"), 0);
    EXPECT_EQ(summary_value(result.out, "answered"), summary_value(result.out, "triggers"));
    EXPECT_EQ(summary_value(result.out, "connections_closed"), 0);
    EXPECT_EQ(count_of(daemon->stderr_text(), "Accepted TCP client fd"), 1);
}

TEST_F(TriggerStreamTest, NoDaemonRefusesEveryTrigger)
{
    ToolResult result = run_tool(stream_binary, {"--seconds", "0.2"});
    EXPECT_EQ(result.status, 1);
    long triggers = summary_value(result.out, "triggers");
    EXPECT_GT(triggers, 0);
    EXPECT_EQ(summary_value(result.out, "refused"), triggers);
    EXPECT_EQ(summary_value(result.out, "answered"), 0);
    EXPECT_EQ(summary_value(result.out, "lost"), 0);
}

TEST_F(TriggerStreamTest, RestartWindowSeparatesTheTriggersOutsideIt)
{
    start_daemon();
    ToolProcess stream(stream_binary, {"--kept"});
    ASSERT_TRUE(wait_until([&] { return count_of(daemon->stderr_text(), "Accepted TCP client fd") == 1; }));
    stream.signal(SIGUSR1);
    ASSERT_EQ(daemon->stop(), 0);
    daemon = std::make_unique<Daemon>();
    ASSERT_TRUE(daemon->wait_until_running());
    ASSERT_TRUE(wait_until([&] { return count_of(daemon->stderr_text(), "Accepted TCP client fd") == 1; }));
    stream.signal(SIGUSR2);
    int handled = syslog_count("Command received");
    ASSERT_TRUE(wait_until([&] { return syslog_count("Command received") >= handled + 5; }));
    stream.signal(SIGTERM);
    ASSERT_NE(stream.wait_exit(), -1);
    std::string out = stream.stdout_text();
    EXPECT_EQ(summary_value(out, "connections_closed"), 1) << out;
    EXPECT_GT(summary_value(out, "outside_restarts"), 0) << out;
    EXPECT_EQ(summary_value(out, "outside_unanswered"), 0) << out;
    EXPECT_EQ(summary_value(out, "after_last_unanswered"), 0) << out;
}

TEST(TriggerStreamCommandLine, ZeroIntervalIsAUsageError)
{
    ToolResult result = run_tool(stream_binary, {"--every-ms", "0"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err,
              "q9_trigger_stream: --every-ms needs a positive number, not '0'\n"
              "Try 'q9_trigger_stream --help'.\n");
}

TEST(TriggerStreamCommandLine, HelpNamesEverySummaryLine)
{
    ToolResult result = run_tool(stream_binary, {"--help"});
    EXPECT_EQ(result.status, 0);
    for (const char* name : {"triggers", "answered", "refused", "lost", "connections_closed", "longest_wait_ms",
                             "outside_restarts", "outside_unanswered", "after_last_restart",
                             "after_last_unanswered"})
        EXPECT_NE(result.out.find("  " + std::string(name) + " "), std::string::npos) << name;
}

}  // namespace
}  // namespace q9test
