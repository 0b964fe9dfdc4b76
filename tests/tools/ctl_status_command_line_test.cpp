// The command line of "status" and "--version".
#include "ctl/command_line.h"

#include "q9_version.h"
#include "process.h"

#include <gtest/gtest.h>

namespace {

ParseOutcome parse(const std::vector<std::string>& args, CtlInvocation* invocation, std::string* text)
{
    return parse_command_line(args, invocation, text);
}

TEST(CtlStatusCommandLine, StatusAsksForStatusAndTakesJson)
{
    CtlInvocation invocation;
    std::string text;
    ASSERT_EQ(ParseOutcome::Run, parse({"status"}, &invocation, &text));
    EXPECT_EQ(CtlAction::Status, invocation.action);
    EXPECT_FALSE(invocation.json);
    EXPECT_STREQ("status", service_command_word(invocation.action));
    ASSERT_EQ(ParseOutcome::Run, parse({"status", "--json"}, &invocation, &text));
    EXPECT_TRUE(invocation.json);
}

TEST(CtlStatusCommandLine, StatusRefusesOtherArguments)
{
    CtlInvocation invocation;
    std::string text;
    EXPECT_EQ(ParseOutcome::UsageError, parse({"status", "--all"}, &invocation, &text));
    EXPECT_EQ("q9_korvane_xml_events_ctl: status: unknown option '--all'\n"
              "Try 'q9_korvane_xml_events_ctl status --help'.\n",
              text);
    EXPECT_EQ(ParseOutcome::Help, parse({"status", "--help"}, &invocation, &text));
    EXPECT_EQ(0u, text.find("Usage: q9_korvane_xml_events_ctl status [--json]\n"));
}

TEST(CtlStatusCommandLine, VersionIsTheProjectVersion)
{
    CtlInvocation invocation;
    std::string text;
    EXPECT_EQ(ParseOutcome::Help, parse({"--version"}, &invocation, &text));
    EXPECT_EQ(std::string("q9_korvane_xml_events_ctl ") + q9_version + "\n", text);
}

TEST(CtlStatusCommandLine, VersionIsPrintedOnStandardOutput)
{
    q9test::ToolResult result = q9test::run_tool(Q9_CTL_BINARY, {"--version"});
    EXPECT_EQ(0, result.status);
    EXPECT_EQ(std::string("q9_korvane_xml_events_ctl ") + q9_version + "\n", result.out);
    EXPECT_EQ("", result.err);
}

}  // namespace
