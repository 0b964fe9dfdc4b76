#include "service/state_file_text.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

using Names = std::vector<std::string>;

TEST(StateFileText, AVersionLineThenOneLinePerItem)
{
    EXPECT_EQ(format_state_file({"Evening news", "promo\nloop", "back\\slash"}),
              "q9_korvane_xml_events_d state 1\n"
              "item Evening news\n"
              "item promo\\nloop\n"
              "item back\\\\slash\n");
}

TEST(StateFileText, NoItemsIsTheVersionLineAlone)
{
    EXPECT_EQ(format_state_file({}), "q9_korvane_xml_events_d state 1\n");
    StateFileContents contents = parse_state_file("q9_korvane_xml_events_d state 1\n");
    EXPECT_EQ(contents.item_names, Names());
    EXPECT_EQ(contents.first_bad_line, 0u);
}

TEST(StateFileText, AnEmptyNameAndNamesWithSpacesAtTheirEndsReadBack)
{
    Names names = {"", " leading", "trailing ", "  "};
    StateFileContents contents = parse_state_file(format_state_file(names));
    EXPECT_EQ(contents.item_names, names);
    EXPECT_EQ(contents.first_bad_line, 0u);
}

// Any set of names, any bytes but NUL (packets carry names as NUL-terminated
// strings), reads back as it was written.
TEST(StateFileText, AnySetOfNamesReadsBackIdentical)
{
    std::mt19937 random(20261125);
    std::uniform_int_distribution<int> byte(1, 255);
    std::uniform_int_distribution<int> length(0, 40);
    std::uniform_int_distribution<int> count(0, 30);
    for (int round = 0; round < 3000; ++round) {
        std::set<std::string> unique;
        for (int n = count(random); n > 0; --n) {
            std::string name;
            for (int l = length(random); l > 0; --l)
                name += static_cast<char>(byte(random));
            unique.insert(name);
        }
        Names names(unique.begin(), unique.end());
        StateFileContents contents = parse_state_file(format_state_file(names));
        ASSERT_EQ(contents.item_names, names) << "round " << round;
        ASSERT_EQ(contents.first_bad_line, 0u) << "round " << round;
    }
}

TEST(StateFileText, ALastLineWithoutItsLineFeedCounts)
{
    StateFileContents contents = parse_state_file("q9_korvane_xml_events_d state 1\nitem a");
    EXPECT_EQ(contents.item_names, Names{"a"});
    EXPECT_EQ(contents.first_bad_line, 0u);
}

TEST(StateFileText, AnEmptyFileIsMalformedAtItsFirstLine)
{
    StateFileContents contents = parse_state_file("");
    EXPECT_EQ(contents.item_names, Names());
    EXPECT_EQ(contents.first_bad_line, 1u);
}

TEST(StateFileText, WithoutTheVersionLineTheItemLinesStillCount)
{
    StateFileContents contents = parse_state_file("item a\nitem b\n");
    EXPECT_EQ(contents.item_names, (Names{"a", "b"}));
    EXPECT_EQ(contents.first_bad_line, 1u);
}

TEST(StateFileText, AnotherVersionIsMalformed)
{
    StateFileContents contents = parse_state_file("q9_korvane_xml_events_d state 2\nitem a\n");
    EXPECT_EQ(contents.item_names, Names{"a"});
    EXPECT_EQ(contents.first_bad_line, 1u);
}

TEST(StateFileText, TheFirstBadLineIsReportedAndTheWellFormedOnesAroundItCount)
{
    StateFileContents contents = parse_state_file("q9_korvane_xml_events_d state 1\n"
                                                  "item a\n"
                                                  "itemb\n"
                                                  "item c\n"
                                                  "garbage\n"
                                                  "item d\n");
    EXPECT_EQ(contents.item_names, (Names{"a", "c", "d"}));
    EXPECT_EQ(contents.first_bad_line, 3u);
}

TEST(StateFileText, NamesSpelledAsTheDaemonNeverWritesThemAreMalformed)
{
    const char* const bad_lines[] = {
        "item a\\x00b",       // a NUL, which no name holds
        "item tab\there",     // a raw control byte
        "item caf\xc3\xa9",   // raw bytes above 0x7f
        "item \\x41",         // hex for a byte that stands as itself
        "item ends in \\",    // a lone backslash
        "item a\r",           // a carriage return before the line feed
        "ITEM a",
        "",
    };
    for (const char* line : bad_lines) {
        StateFileContents contents =
            parse_state_file(std::string("q9_korvane_xml_events_d state 1\n") + line + "\nitem ok\n");
        EXPECT_EQ(contents.item_names, Names{"ok"}) << line;
        EXPECT_EQ(contents.first_bad_line, 2u) << line;
    }
}

TEST(StateFileText, ASecondVersionLineIsMalformed)
{
    StateFileContents contents = parse_state_file(
        "q9_korvane_xml_events_d state 1\nq9_korvane_xml_events_d state 1\nitem a\n");
    EXPECT_EQ(contents.item_names, Names{"a"});
    EXPECT_EQ(contents.first_bad_line, 2u);
}

}  // namespace
