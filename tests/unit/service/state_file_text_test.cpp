#include "service/state_file_text.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

using Items = std::vector<SavedItem>;

const std::string version_line = "q9_korvane_xml_events_d state 2\n";
const std::string version_1_line = "q9_korvane_xml_events_d state 1\n";

// The names of `items` without owners.
Items unowned(const std::vector<std::string>& names)
{
    Items items;
    for (const std::string& name : names)
        items.push_back(SavedItem{name, std::nullopt});
    return items;
}

TEST(StateFileText, AVersionLineThenOneLinePerItemWithItsOwner)
{
    EXPECT_EQ(format_state_file({{"Evening news", 1000}, {"promo\nloop", std::nullopt}, {"back\\slash", 0}}),
              version_line +
              "item 1000 Evening news\n"
              "item - promo\\nloop\n"
              "item 0 back\\\\slash\n");
}

TEST(StateFileText, NoItemsIsTheVersionLineAlone)
{
    EXPECT_EQ(format_state_file({}), version_line);
    StateFileContents contents = parse_state_file(version_line);
    EXPECT_EQ(contents.items, Items());
    EXPECT_EQ(contents.first_bad_line, 0u);
}

TEST(StateFileText, AnEmptyNameAndNamesWithSpacesAtTheirEndsReadBack)
{
    Items items = {{"", std::nullopt}, {" leading", 7}, {"trailing ", std::nullopt}, {"  ", 4294967295u}};
    StateFileContents contents = parse_state_file(format_state_file(items));
    EXPECT_EQ(contents.items, items);
    EXPECT_EQ(contents.first_bad_line, 0u);
}

// Any set of names, any bytes but NUL (packets carry names as NUL-terminated
// strings), with any owner or none, reads back as it was written.
TEST(StateFileText, AnySetOfItemsReadsBackIdentical)
{
    std::mt19937 random(20261125);
    std::uniform_int_distribution<int> byte(1, 255);
    std::uniform_int_distribution<int> length(0, 40);
    std::uniform_int_distribution<int> count(0, 30);
    std::uniform_int_distribution<uint32_t> uid;
    std::bernoulli_distribution owned(0.5);
    for (int round = 0; round < 3000; ++round) {
        std::set<std::string> unique;
        for (int n = count(random); n > 0; --n) {
            std::string name;
            for (int l = length(random); l > 0; --l)
                name += static_cast<char>(byte(random));
            unique.insert(name);
        }
        Items items;
        for (const std::string& name : unique)
            items.push_back(SavedItem{name, owned(random) ? std::optional<uid_t>(uid(random)) : std::nullopt});
        StateFileContents contents = parse_state_file(format_state_file(items));
        ASSERT_EQ(contents.items, items) << "round " << round;
        ASSERT_EQ(contents.first_bad_line, 0u) << "round " << round;
    }
}

TEST(StateFileText, AVersion1FileHoldsItemsWithoutOwner)
{
    StateFileContents contents =
        parse_state_file(version_1_line + "item Evening news\nitem promo\\nloop\nitem - 5 x\n");
    EXPECT_EQ(contents.items, unowned({"Evening news", "promo\nloop", "- 5 x"}));
    EXPECT_EQ(contents.first_bad_line, 0u);
}

TEST(StateFileText, ALastLineWithoutItsLineFeedCounts)
{
    StateFileContents contents = parse_state_file(version_line + "item 12 a");
    EXPECT_EQ(contents.items, (Items{{"a", 12}}));
    EXPECT_EQ(contents.first_bad_line, 0u);
}

TEST(StateFileText, AnEmptyFileIsMalformedAtItsFirstLine)
{
    StateFileContents contents = parse_state_file("");
    EXPECT_EQ(contents.items, Items());
    EXPECT_EQ(contents.first_bad_line, 1u);
}

TEST(StateFileText, WithoutTheVersionLineTheItemLinesStillCount)
{
    StateFileContents contents = parse_state_file("item - a\nitem 7 b\n");
    EXPECT_EQ(contents.items, (Items{{"a", std::nullopt}, {"b", 7}}));
    EXPECT_EQ(contents.first_bad_line, 1u);
}

TEST(StateFileText, AnotherVersionIsMalformed)
{
    StateFileContents contents = parse_state_file("q9_korvane_xml_events_d state 3\nitem - a\n");
    EXPECT_EQ(contents.items, unowned({"a"}));
    EXPECT_EQ(contents.first_bad_line, 1u);
}

TEST(StateFileText, TheFirstBadLineIsReportedAndTheWellFormedOnesAroundItCount)
{
    StateFileContents contents = parse_state_file(version_line +
                                                  "item - a\n"
                                                  "item -b\n"
                                                  "item 3 c\n"
                                                  "garbage\n"
                                                  "item - d\n");
    EXPECT_EQ(contents.items, (Items{{"a", std::nullopt}, {"c", 3}, {"d", std::nullopt}}));
    EXPECT_EQ(contents.first_bad_line, 3u);
}

TEST(StateFileText, NamesSpelledAsTheDaemonNeverWritesThemAreMalformed)
{
    const char* const bad_lines[] = {
        "item - a\\x00b",       // a NUL, which no name holds
        "item - tab\there",     // a raw control byte
        "item - caf\xc3\xa9",   // raw bytes above 0x7f
        "item - \\x41",         // hex for a byte that stands as itself
        "item - ends in \\",    // a lone backslash
        "item - a\r",           // a carriage return before the line feed
        "ITEM - a",
        "",
    };
    for (const char* line : bad_lines) {
        StateFileContents contents = parse_state_file(version_line + line + "\nitem - ok\n");
        EXPECT_EQ(contents.items, unowned({"ok"})) << line;
        EXPECT_EQ(contents.first_bad_line, 2u) << line;
    }
}

TEST(StateFileText, OwnersSpelledAsTheDaemonNeverWritesThemAreMalformed)
{
    const char* const bad_lines[] = {
        "item a",              // no owner: a version 1 line
        "item 12",             // no name after the owner
        "item 007 a",          // leading zeros
        "item +7 a",           // a sign
        "item -1 a",           //
        "item 4294967296 a",   // beyond a uid
        "item 99999999999 a",  //
        "item 1\xc2\xa0" "a",  // no blank after the owner
        "item  a",             // an empty owner
        "item -- a",           //
    };
    for (const char* line : bad_lines) {
        StateFileContents contents = parse_state_file(version_line + line + "\nitem - ok\n");
        EXPECT_EQ(contents.items, unowned({"ok"})) << line;
        EXPECT_EQ(contents.first_bad_line, 2u) << line;
    }
}

TEST(StateFileText, ASecondVersionLineIsMalformed)
{
    StateFileContents contents = parse_state_file(version_line + version_line + "item - a\n");
    EXPECT_EQ(contents.items, unowned({"a"}));
    EXPECT_EQ(contents.first_bad_line, 2u);
}

}  // namespace
