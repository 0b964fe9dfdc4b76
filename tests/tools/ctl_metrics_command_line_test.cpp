// The command line of "metrics".
#include "ctl/command_line.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

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
    const std::pair<std::vector<std::string>, const char*> mistakes[] = {
        {{"metrics", "--json"}, "unknown option '--json'"},
        {{"metrics", "--output"}, "option --output needs a value"},
        {{"metrics", "--output="}, "--output must not be empty"},
        {{"metrics", "file.prom"}, "unexpected argument 'file.prom'"},
    };
    for (const auto& [args, message] : mistakes) {
        CtlInvocation invocation;
        std::string text;
        EXPECT_EQ(ParseOutcome::UsageError, parse_command_line(args, &invocation, &text)) << message;
        EXPECT_EQ(std::string("q9_korvane_xml_events_ctl: metrics: ") + message +
                      "\nTry 'q9_korvane_xml_events_ctl metrics --help'.\n",
                  text);
    }
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
