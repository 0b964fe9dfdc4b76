#include "config/toml_nesting_guard.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TomlNesting scan(const std::string& text) { return toml_nesting_scan(text.data(), text.size()); }

std::string repeat(const std::string& piece, int times)
{
    std::string text;
    for (int i = 0; i < times; ++i)
        text += piece;
    return text;
}

std::string arrays(int depth) { return "x = " + repeat("[", depth) + repeat("]", depth) + "\n"; }
std::string inline_tables(int depth)
{
    return "x = " + repeat("{a=", depth) + "1" + repeat("}", depth) + "\n";
}
std::string header(int parts) { return "[a" + repeat(".a", parts - 1) + "]\n"; }
std::string dotted_key(int parts) { return "a" + repeat(".a", parts - 1) + " = 1\n"; }

TEST(TomlNestingScan, ArraysUpToTheLimitPass)
{
    TomlNesting found = scan(arrays(256));
    EXPECT_EQ(found.too_deep_line, 0u);
    EXPECT_EQ(found.rejected_line, 0u);
    EXPECT_EQ(found.deepest, 256);
}

TEST(TomlNestingScan, ArraysOneBeyondTheLimitAreRefused)
{
    EXPECT_EQ(scan("\n" + arrays(257)).too_deep_line, 2u);
}

TEST(TomlNestingScan, InlineTablesCountLikeArrays)
{
    EXPECT_EQ(scan(inline_tables(256)).too_deep_line, 0u);
    EXPECT_EQ(scan(inline_tables(256)).deepest, 256);
    EXPECT_EQ(scan(inline_tables(257)).too_deep_line, 1u);
}

TEST(TomlNestingScan, HeaderCountsOneLevelPerPart)
{
    EXPECT_EQ(scan(header(256)).deepest, 256);
    EXPECT_EQ(scan(header(256)).too_deep_line, 0u);
    EXPECT_EQ(scan(header(257)).too_deep_line, 1u);
    EXPECT_EQ(scan("[[a" + repeat(".a", 256) + "]]\n").too_deep_line, 1u);
}

TEST(TomlNestingScan, DottedKeyCountsEveryPartButTheLast)
{
    EXPECT_EQ(scan(dotted_key(257)).deepest, 256);
    EXPECT_EQ(scan(dotted_key(257)).too_deep_line, 0u);
    EXPECT_EQ(scan(dotted_key(258)).too_deep_line, 1u);
}

TEST(TomlNestingScan, HeaderKeyAndBracketsAddUp)
{
    EXPECT_EQ(scan("[a.b]\nc.d = [[1]]\n").deepest, 5);
    EXPECT_EQ(scan("x = { a.b = [ { c = 1 } ] }\n").deepest, 4);
    std::string key = header(200) + "k" + repeat(".k", 50) + " = ";
    EXPECT_EQ(scan(key + repeat("[", 6) + repeat("]", 6) + "\n").deepest, 256);
    EXPECT_EQ(scan(key + repeat("[", 7) + repeat("]", 7) + "\n").too_deep_line, 2u);
}

TEST(TomlNestingScan, LevelsEndWithTheirValueAndHeader)
{
    std::string text = header(200) + "[b]\n";
    for (int i = 0; i < 100; ++i)
        text += "k" + std::to_string(i) + " = " + repeat("[", 200) + repeat("]", 200) + "\n";
    TomlNesting found = scan(text);
    EXPECT_EQ(found.too_deep_line, 0u);
    EXPECT_EQ(found.deepest, 201);
}

TEST(TomlNestingScan, TwentyThousandLevelsAreRefusedAtOnce)
{
    TomlNesting found = scan("x = " + repeat("[", 20000) + "\n");
    EXPECT_EQ(found.too_deep_line, 1u);
    EXPECT_EQ(found.deepest, 257);
}

TEST(TomlNestingScan, ArraysSpanningLinesAreFollowed)
{
    TomlNesting found = scan("x = [\n" + repeat("[ # comment [\n", 256) + "]\n");
    EXPECT_EQ(found.too_deep_line, 257u);
}

TEST(TomlNestingScan, BracketsInStringsDoNotCount)
{
    std::string brackets = repeat("[{", 300);
    EXPECT_EQ(scan("a = \"" + brackets + "\"\nb = '" + brackets + "'\n").deepest, 0);
    EXPECT_EQ(scan("a = \"\\\"" + brackets + "\"\n").deepest, 0);
    EXPECT_EQ(scan("a = [\"" + brackets + "\", '" + brackets + "']\n").deepest, 1);
    EXPECT_EQ(scan("\"" + brackets + "\".'" + brackets + "' = 1\n").deepest, 1);
}

TEST(TomlNestingScan, BracketsInMultiLineStringsDoNotCount)
{
    std::string brackets = repeat("[", 300);
    // A backslash at the end of a line continues the string; an escaped
    // quote does not end it.
    std::string basic = "a = \"\"\"\n" + brackets + "\\\n  \" \\\"\"\" " + brackets + "\n\"\"\"\n";
    std::string literal = "b = '''" + brackets + "\n" + brackets + "'''\n";
    TomlNesting found = scan(basic + literal);
    EXPECT_EQ(found.deepest, 0);
    EXPECT_EQ(found.rejected_line, 0u);
}

TEST(TomlNestingScan, BracketsInCommentsDoNotCount)
{
    std::string brackets = repeat("[", 300);
    EXPECT_EQ(scan("# " + brackets + "\na = 1 # " + brackets + "\n[t] # " + brackets + "\n").deepest, 1);
}

TEST(TomlNestingScan, QuoteInsideABareKeyStartsNoString)
{
    EXPECT_NE(scan("a\"b = " + repeat("[", 257) + "\n").too_deep_line, 0u);
    EXPECT_NE(scan("x = {a,\"b = " + repeat("[", 257) + "\n").too_deep_line, 0u);
}

TEST(TomlNestingScan, CharacterEndingAPlainArrayClosesIt)
{
    // The parser closes [1 at the quote and reads on: b holds the arrays.
    EXPECT_NE(scan("x = {a = [1 \", b = " + repeat("[", 257) + "\n").too_deep_line, 0u);
    EXPECT_EQ(scan("x = {a = [1 \", b = [[2]]}\n").deepest, 3);
}

TEST(TomlNestingScan, StopsWhereTheParserGivesUp)
{
    TomlNesting found = scan("[channel1\nx = " + repeat("[", 300) + "\n");
    EXPECT_EQ(found.rejected_line, 1u);
    EXPECT_EQ(found.too_deep_line, 0u);
    EXPECT_EQ(scan("x = [1,\n").rejected_line, 2u);
    EXPECT_EQ(scan("s = \"\"\"\nopen\n").rejected_line, 3u);
}

TEST(TomlNestingScan, ValidDocumentIsFollowedToTheEnd)
{
    TomlNesting found = scan("t = 1979-05-27T07:32:00Z\r\nd = 1979-05-27 07:32:00\nh = 07:32:00.5\n"
                             "n = [0x1F, 0o17, 0b1, 1_000, +inf, -1.5e-3]\nb = [true, false]\n"
                             "[[list]]\nk = { \"q.k\" = [ [ 1 ], [ 2 ] ] }");
    EXPECT_EQ(found.rejected_line, 0u);
    EXPECT_EQ(found.deepest, 4);
}

TEST(TomlNestingScan, EmptyTextIsFlat)
{
    TomlNesting found = toml_nesting_scan(nullptr, 0);
    EXPECT_EQ(found.deepest, 0);
    EXPECT_EQ(found.too_deep_line, 0u);
    EXPECT_EQ(found.rejected_line, 0u);
}

}  // namespace
