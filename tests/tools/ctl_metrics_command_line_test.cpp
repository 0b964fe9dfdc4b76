// The command line of "metrics".
#include "ctl/command_line.h"

#include <gtest/gtest.h>

namespace {

TEST(CtlMetricsCommandLine, MetricsAsksForStatusAndTakesItsOptions)
{
    CtlInvocation invocation;
    std::string text;
    ASSERT_EQ(ParseOutcome::Run, parse_command_line({"metrics"}, &invocation, &text));
    EXPECT_EQ(CtlAction::Metrics, invocation.action);
    EXPECT_STREQ("status", service_command_word(invocation.action));
    EXPECT_FALSE(invocation.openmetrics);
    EXPECT_EQ("", invocation.output);
    ASSERT_EQ(ParseOutcome::Run,
              parse_command_line({"metrics", "--openmetrics", "--output", "/tmp/a.prom"}, &invocation, &text));
    EXPECT_TRUE(invocation.openmetrics);
    EXPECT_EQ("/tmp/a.prom", invocation.output);
    ASSERT_EQ(ParseOutcome::Run, parse_command_line({"metrics", "--output=b.prom"}, &invocation, &text));
    EXPECT_EQ("b.prom", invocation.output);
}

TEST(CtlMetricsCommandLine, MistakesAreUsageErrors)
{
    CtlInvocation invocation;
    std::string text;
    EXPECT_EQ(ParseOutcome::UsageError, parse_command_line({"metrics", "--json"}, &invocation, &text));
    EXPECT_EQ("q9_korvane_xml_events_ctl: metrics: unknown option '--json'\n"
              "Try 'q9_korvane_xml_events_ctl metrics --help'.\n",
              text);
    EXPECT_EQ(ParseOutcome::UsageError, parse_command_line({"metrics", "--output"}, &invocation, &text));
    EXPECT_EQ("q9_korvane_xml_events_ctl: metrics: option --output needs a value\n"
              "Try 'q9_korvane_xml_events_ctl metrics --help'.\n",
              text);
    EXPECT_EQ(ParseOutcome::UsageError, parse_command_line({"metrics", "--output="}, &invocation, &text));
    EXPECT_EQ("q9_korvane_xml_events_ctl: metrics: --output must not be empty\n"
              "Try 'q9_korvane_xml_events_ctl metrics --help'.\n",
              text);
    EXPECT_EQ(ParseOutcome::UsageError, parse_command_line({"metrics", "file.prom"}, &invocation, &text));
    EXPECT_EQ("q9_korvane_xml_events_ctl: metrics: unexpected argument 'file.prom'\n"
              "Try 'q9_korvane_xml_events_ctl metrics --help'.\n",
              text);
}

TEST(CtlMetricsCommandLine, HelpNamesTheOptions)
{
    CtlInvocation invocation;
    std::string text;
    EXPECT_EQ(ParseOutcome::Help, parse_command_line({"metrics", "--help"}, &invocation, &text));
    EXPECT_EQ(0u, text.find("Usage: q9_korvane_xml_events_ctl metrics [--openmetrics] [--output FILE]\n"));
    EXPECT_EQ(ParseOutcome::Help, parse_command_line({"--help"}, &invocation, &text));
    EXPECT_NE(std::string::npos, text.find("\n  metrics      the status figures as metrics for Prometheus\n"));
}

}  // namespace
