#include "ctl/command_line.h"
#include "ctl/trigger_client.h"

#include <gtest/gtest.h>

namespace {

struct Parsed {
    ParseOutcome outcome;
    CtlInvocation invocation;
    std::string text;
};

Parsed parse(const std::vector<std::string>& args)
{
    Parsed parsed;
    parsed.outcome = parse_command_line(args, &parsed.invocation, &parsed.text);
    return parsed;
}

// Expects `args` to be refused as a usage error with exactly `text`.
void expect_usage_error(const std::vector<std::string>& args, const std::string& text)
{
    Parsed parsed = parse(args);
    EXPECT_EQ(ParseOutcome::UsageError, parsed.outcome);
    EXPECT_EQ(text, parsed.text);
}

TEST(CtlCommandLine, NoCommandIsAUsageError)
{
    expect_usage_error({},
                       "q9_korvane_xml_events_ctl: no command given\n"
                       "Try 'q9_korvane_xml_events_ctl --help'.\n");
}

TEST(CtlCommandLine, UnknownCommandIsNamed)
{
    expect_usage_error({"start"},
                       "q9_korvane_xml_events_ctl: unknown command 'start'\n"
                       "Try 'q9_korvane_xml_events_ctl --help'.\n");
}

TEST(CtlCommandLine, HelpIsOfferedOnEveryLevel)
{
    for (const char* help : {"--help", "-h", "help"})
        EXPECT_EQ(ParseOutcome::Help, parse({help}).outcome) << help;
    for (const char* command : {"test", "list-pmi", "register", "unregister", "listen", "trigger"}) {
        Parsed parsed = parse({command, "--help"});
        EXPECT_EQ(ParseOutcome::Help, parsed.outcome) << command;
        EXPECT_EQ(0u, parsed.text.find(std::string("Usage: q9_korvane_xml_events_ctl ") + command))
            << parsed.text;
    }
}

TEST(CtlCommandLine, PlainRequestsTakeNoArguments)
{
    expect_usage_error({"test", "now"},
                       "q9_korvane_xml_events_ctl: test: takes no arguments, got 'now'\n"
                       "Try 'q9_korvane_xml_events_ctl test --help'.\n");
    EXPECT_EQ(ParseOutcome::Run, parse({"list-pmi"}).outcome);
    EXPECT_EQ(CtlAction::ListPmi, parse({"list-pmi"}).invocation.action);
}

TEST(CtlCommandLine, RegisterTakesTargetAndTriggersInBothForms)
{
    Parsed parsed = parse({"register", "--target", "clip", "--triggers=*"});
    ASSERT_EQ(ParseOutcome::Run, parsed.outcome);
    EXPECT_EQ(CtlAction::Register, parsed.invocation.action);
    EXPECT_EQ(NameValueList({{"target", "clip"}, {"triggers", "*"}}),
              registration_pairs(parsed.invocation));
    EXPECT_STREQ("register", service_command_word(parsed.invocation.action));
}

TEST(CtlCommandLine, EmptyValuesAreSentAsGiven)
{
    Parsed parsed = parse({"unregister", "--triggers", "", "--target="});
    ASSERT_EQ(ParseOutcome::Run, parsed.outcome);
    EXPECT_EQ(NameValueList({{"target", ""}, {"triggers", ""}}),
              registration_pairs(parsed.invocation));
}

TEST(CtlCommandLine, RegisterWithoutOptionsSendsNoPairs)
{
    Parsed parsed = parse({"register"});
    ASSERT_EQ(ParseOutcome::Run, parsed.outcome);
    EXPECT_TRUE(registration_pairs(parsed.invocation).empty());
}

TEST(CtlCommandLine, TriggersTakeOnlyStarOrEmpty)
{
    expect_usage_error({"register", "--triggers", "abc"},
                       "q9_korvane_xml_events_ctl: register: --triggers takes '*' or '', not 'abc'\n"
                       "Try 'q9_korvane_xml_events_ctl register --help'.\n");
}

TEST(CtlCommandLine, OptionWithoutValueIsAUsageError)
{
    expect_usage_error({"unregister", "--target"},
                       "q9_korvane_xml_events_ctl: unregister: option --target needs a value\n"
                       "Try 'q9_korvane_xml_events_ctl unregister --help'.\n");
}

TEST(CtlCommandLine, UnknownOptionIsNamed)
{
    expect_usage_error({"listen", "--xml"},
                       "q9_korvane_xml_events_ctl: listen: unknown option '--xml'\n"
                       "Try 'q9_korvane_xml_events_ctl listen --help'.\n");
    EXPECT_TRUE(parse({"listen", "--json"}).invocation.json);
}

TEST(CtlCommandLine, TriggerDefaultsToTheLocalDaemonAndTrigger)
{
    Parsed parsed = parse({"trigger"});
    ASSERT_EQ(ParseOutcome::Run, parsed.outcome);
    EXPECT_EQ("127.0.0.1", parsed.invocation.host);
    EXPECT_EQ("9876", parsed.invocation.port);
    EXPECT_EQ("TRIGGER\n\n", trigger_message(parsed.invocation));
    EXPECT_EQ("OK\n\n", trigger_acknowledgement(parsed.invocation));
}

TEST(CtlCommandLine, TriggerSendsCommandAndPairsAsLines)
{
    Parsed parsed = parse({"trigger", "--host=h", "--port", "1234", "CUE", "a=1", "b = x=y", "=e"});
    ASSERT_EQ(ParseOutcome::Run, parsed.outcome);
    EXPECT_EQ("h", parsed.invocation.host);
    EXPECT_EQ("1234", parsed.invocation.port);
    EXPECT_EQ(NameValueList({{"a", "1"}, {"b ", " x=y"}, {"", "e"}}), parsed.invocation.pairs);
    EXPECT_EQ("CUE\na=1\nb = x=y\n=e\n\n", trigger_message(parsed.invocation));
}

TEST(CtlCommandLine, TriggerPairNeedsAnEqualsSign)
{
    expect_usage_error({"trigger", "TRIGGER", "channel"},
                       "q9_korvane_xml_events_ctl: trigger: expected NAME=VALUE, got 'channel'\n"
                       "Try 'q9_korvane_xml_events_ctl trigger --help'.\n");
}

TEST(CtlCommandLine, OneLineFormIsAskedForEitherWay)
{
    Parsed by_option = parse({"trigger", "--one-line"});
    Parsed by_command = parse({"trigger", "ONE LINE TRIGGER"});
    for (const Parsed& parsed : {by_option, by_command}) {
        ASSERT_EQ(ParseOutcome::Run, parsed.outcome);
        EXPECT_EQ("ONE LINE TRIGGER\n", trigger_message(parsed.invocation));
        EXPECT_EQ("OK\n", trigger_acknowledgement(parsed.invocation));
    }
}

TEST(CtlCommandLine, OneLineFormTakesNothingElse)
{
    EXPECT_EQ("q9_korvane_xml_events_ctl: trigger: --one-line takes no COMMAND and no NAME=VALUE\n"
              "Try 'q9_korvane_xml_events_ctl trigger --help'.\n",
              parse({"trigger", "--one-line", "TRIGGER"}).text);
    EXPECT_EQ("q9_korvane_xml_events_ctl: trigger: ONE LINE TRIGGER takes no NAME=VALUE\n"
              "Try 'q9_korvane_xml_events_ctl trigger --help'.\n",
              parse({"trigger", "ONE LINE TRIGGER", "a=1"}).text);
}

TEST(CtlCommandLine, TriggerRefusesLinesTheDaemonWouldAlter)
{
    EXPECT_EQ(ParseOutcome::UsageError, parse({"trigger", " TRIGGER"}).outcome);
    EXPECT_EQ(ParseOutcome::UsageError, parse({"trigger", "TRIG\rGER"}).outcome);
    EXPECT_EQ(ParseOutcome::UsageError, parse({"trigger", "TRIGGER", " a=1"}).outcome);
    EXPECT_EQ(ParseOutcome::UsageError, parse({"trigger", "TRIGGER", "a=1\n"}).outcome);
    EXPECT_EQ(ParseOutcome::UsageError, parse({"trigger", ""}).outcome);
    EXPECT_EQ("q9_korvane_xml_events_ctl: trigger: COMMAND must begin with a visible character, "
              "got ' TRIGGER'\nTry 'q9_korvane_xml_events_ctl trigger --help'.\n",
              parse({"trigger", " TRIGGER"}).text);
}

TEST(CtlCommandLine, TriggerLineMayHold1023CharactersAndNoMore)
{
    EXPECT_EQ(ParseOutcome::Run, parse({"trigger", std::string(1023, 'T')}).outcome);
    expect_usage_error({"trigger", "TRIGGER", "a=" + std::string(1022, 'v')},
                       "q9_korvane_xml_events_ctl: trigger: NAME=VALUE is longer than 1023 characters\n"
                       "Try 'q9_korvane_xml_events_ctl trigger --help'.\n");
}

TEST(CtlCommandLine, TriggerPortMustBeAPortNumber)
{
    for (const char* port : {"0", "65536", "http", "", "-1", "123456"})
        EXPECT_EQ(ParseOutcome::UsageError, parse({"trigger", "--port", port}).outcome) << port;
    EXPECT_EQ(ParseOutcome::Run, parse({"trigger", "--port", "65535"}).outcome);
    EXPECT_EQ("q9_korvane_xml_events_ctl: trigger: --port takes a number from 1 to 65535, not '0'\n"
              "Try 'q9_korvane_xml_events_ctl trigger --help'.\n",
              parse({"trigger", "--port=0"}).text);
}

TEST(CtlCommandLine, DoubleDashLetsACommandBeginWithADash)
{
    Parsed parsed = parse({"trigger", "--", "-CUE", "--help=1"});
    ASSERT_EQ(ParseOutcome::Run, parsed.outcome);
    EXPECT_EQ("-CUE\n--help=1\n\n", trigger_message(parsed.invocation));
}

}  // namespace
