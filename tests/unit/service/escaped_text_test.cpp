#include "service/escaped_text.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

// How each byte value is written, one row per byte: the four with names,
// the printable ASCII bytes but the backslash as themselves, "\xNN" for the
// rest.
std::string expected_spelling(int byte)
{
    switch (byte) {
    case '\n': return "\\n";
    case '\r': return "\\r";
    case '\t': return "\\t";
    case '\\': return "\\\\";
    }
    if (byte >= 0x20 && byte <= 0x7e)
        return std::string(1, static_cast<char>(byte));
    char hex[5];
    snprintf(hex, sizeof hex, "\\x%02x", byte);
    return hex;
}

TEST(EscapedText, EveryByteValueHasItsOneSpelling)
{
    for (int byte = 0; byte < 256; ++byte) {
        std::string one(1, static_cast<char>(byte));
        EXPECT_EQ(escape_text(one), expected_spelling(byte)) << "byte " << byte;
    }
}

TEST(EscapedText, EveryByteValueReadsBack)
{
    for (int byte = 0; byte < 256; ++byte) {
        std::string one(1, static_cast<char>(byte));
        EXPECT_EQ(unescape_text(escape_text(one)), one) << "byte " << byte;
    }
}

TEST(EscapedText, EscapedTextHoldsNoControlByteNoLineBreakAndNoHighByte)
{
    std::string all;
    for (int byte = 0; byte < 256; ++byte)
        all += static_cast<char>(byte);
    for (char c : escape_text(all)) {
        unsigned char byte = static_cast<unsigned char>(c);
        EXPECT_TRUE(byte >= 0x20 && byte < 0x7f) << "byte " << int(byte);
    }
}

TEST(EscapedText, AForgedLogLineStaysInsideItsLine)
{
    EXPECT_EQ(escape_text("one\nMessage: command='FAKE'"), "one\\nMessage: command='FAKE'");
}

TEST(EscapedText, PlainTextIsLeftAsItIs)
{
    EXPECT_EQ(escape_text("Evening news 20:00"), "Evening news 20:00");
    EXPECT_EQ(escape_text(""), "");
}

TEST(EscapedText, SpellingsThatAreNeverWrittenAreRefused)
{
    EXPECT_FALSE(unescape_text("\\x0A"));    // upper-case hex
    EXPECT_FALSE(unescape_text("\\x0a"));    // a byte with a named escape
    EXPECT_FALSE(unescape_text("\\x5c"));    // the backslash
    EXPECT_FALSE(unescape_text("\\x41"));    // a byte that stands as itself
    EXPECT_FALSE(unescape_text("\\x8"));     // one hex digit
    EXPECT_FALSE(unescape_text("\\q"));      // no such escape
    EXPECT_FALSE(unescape_text("end\\"));    // a lone backslash at the end
    EXPECT_FALSE(unescape_text("a\nb"));     // a raw line feed
    EXPECT_FALSE(unescape_text("\x7f"));     // a raw DEL
    EXPECT_FALSE(unescape_text("caf\xc3\xa9")); // raw bytes above 0x7f
}

TEST(EscapedText, EscapesInsideTextReadBack)
{
    EXPECT_EQ(unescape_text("a\\tb\\\\c\\x00d\\xffe"), std::string("a\tb\\c\0d\xff" "e", 9));
}

}  // namespace
