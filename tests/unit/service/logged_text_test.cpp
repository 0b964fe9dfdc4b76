#include "service/logged_text.h"

#include "config/daemon_settings.h"

#include <gtest/gtest.h>

#include <string>

namespace {

class LoggedText : public ::testing::Test {
protected:
    void TearDown() override { daemon_settings = DaemonSettings(); }
};

TEST_F(LoggedText, ClassicPrintsThePeersBytesAsTheyAre)
{
    std::string spelled = "untouched";
    std::string text = "one\nMessage: command='FAKE'\x1b[2J\\";
    EXPECT_EQ(logged_text(text, spelled), text.c_str());
    EXPECT_EQ(spelled, "untouched");
}

TEST_F(LoggedText, EscapingSpellsOutEveryByteThatCouldEndOrHideALine)
{
    daemon_settings.escape_logged_text = true;
    std::string spelled;
    std::string text = "one\nMessage: command='FAKE'\r\t\x1b\x7f\xc3\xa9\\";
    EXPECT_STREQ(logged_text(text, spelled), "one\\nMessage: command='FAKE'\\r\\t\\x1b\\x7f\\xc3\\xa9\\\\");
    std::string with_nul("a\0b", 3);
    EXPECT_STREQ(logged_text(with_nul, spelled), "a\\x00b");
}

}  // namespace
