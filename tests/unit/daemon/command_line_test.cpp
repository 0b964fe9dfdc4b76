#include "daemon/command_line.h"
#include "daemon/process_state.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace {

class CommandLine : public ::testing::Test {
protected:
    void SetUp() override { force_run = false; }
    void TearDown() override { force_run = false; }

    // Runs parse_argv on the daemon name followed by `args`; keeps stderr.
    bool parse(std::initializer_list<const char*> args)
    {
        std::vector<std::string> words{"q9_korvane_xml_events_d"};
        words.insert(words.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (std::string& word : words)
            argv.push_back(&word[0]);
        argv.push_back(nullptr);
        testing::internal::CaptureStderr();
        bool result = parse_argv(static_cast<int>(words.size()), argv.data());
        err = testing::internal::GetCapturedStderr();
        return result;
    }

    std::string err;
};

const char* const usage = "q9_korvane_xml_events_d [options]\n"
                          " -h --help                   Show this help\n";

TEST_F(CommandLine, NoArgumentsStartNormally)
{
    EXPECT_TRUE(parse({}));
    EXPECT_FALSE(force_run);
    EXPECT_EQ(err, "");
}

TEST_F(CommandLine, HelpWithOneTwoOrThreeDashesPrintsUsage)
{
    for (const char* help : {"-h", "--h", "---h", "-help", "--help", "---help"}) {
        EXPECT_FALSE(parse({help})) << help;
        EXPECT_EQ(err, usage) << help;
    }
}

TEST_F(CommandLine, ArgumentsAfterHelpAreNotExamined)
{
    EXPECT_FALSE(parse({"-h", "word"}));
    EXPECT_EQ(err, usage);
}

TEST_F(CommandLine, ForceWithOneOrTwoDashes)
{
    EXPECT_TRUE(parse({"-f"}));
    EXPECT_TRUE(force_run);
    force_run = false;
    EXPECT_TRUE(parse({"--f"}));
    EXPECT_TRUE(force_run);
}

TEST_F(CommandLine, ForceTwiceIsAccepted)
{
    EXPECT_TRUE(parse({"-f", "-f"}));
    EXPECT_TRUE(force_run);
    EXPECT_EQ(err, "");
}

TEST_F(CommandLine, ForceTakesEffectBeforeLaterArgumentsFail)
{
    EXPECT_FALSE(parse({"-f", "-h"}));
    EXPECT_TRUE(force_run);
    EXPECT_EQ(err, usage);
}

TEST_F(CommandLine, UnknownSwitchesAreNamed)
{
    const std::pair<const char*, const char*> cases[] = {
        {"-F", "F"}, {"-fh", "fh"}, {"-f=1", "f=1"}, {"--force", "force"}, {"-x", "x"}, {"-", ""}, {"---", ""}};
    for (const auto& [arg, name] : cases) {
        EXPECT_FALSE(parse({arg})) << arg;
        EXPECT_EQ(err, std::string("Unknown switch -") + name + " please use --help to see options.\n") << arg;
    }
}

TEST_F(CommandLine, WordWithoutDashIsRefused)
{
    EXPECT_FALSE(parse({"start"}));
    EXPECT_EQ(err, "all argv[] must be switches.\n");
}

TEST_F(CommandLine, WordAfterForceIsRefused)
{
    EXPECT_FALSE(parse({"-f", "start"}));
    EXPECT_TRUE(force_run);
    EXPECT_EQ(err, "all argv[] must be switches.\n");
}

TEST(CommandLineDeath, NullArgumentAborts)
{
    char name[] = "q9_korvane_xml_events_d";
    char* argv[] = {name, nullptr, nullptr};
    EXPECT_DEATH(parse_argv(2, argv), "bool parse_argv\\(int, char\\*\\*\\): Assertion `a != __null' failed");
}

}  // namespace
