#include "service/escaped_text.h"

namespace {

const char hex_digits[] = "0123456789abcdef";

bool stands_as_it_is(unsigned char byte)
{
    return byte >= 0x20 && byte < 0x7f && byte != '\\';
}

/// The byte that "\`letter`" stands for, or -1 when the letter is none of
/// the named escapes.
int named_escape(char letter)
{
    switch (letter) {
    case 'n': return '\n';
    case 'r': return '\r';
    case 't': return '\t';
    case '\\': return '\\';
    default: return -1;
    }
}

bool has_named_escape(unsigned char byte)
{
    return byte == '\n' || byte == '\r' || byte == '\t' || byte == '\\';
}

int hex_value(char digit)
{
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    if (digit >= 'a' && digit <= 'f')
        return digit - 'a' + 10;
    return -1;
}

void append_escaped(std::string& out, unsigned char byte)
{
    switch (byte) {
    case '\n': out += "\\n"; return;
    case '\r': out += "\\r"; return;
    case '\t': out += "\\t"; return;
    case '\\': out += "\\\\"; return;
    default:
        out += "\\x";
        out += hex_digits[byte >> 4];
        out += hex_digits[byte & 0x0f];
    }
}

/// The byte of the "\xNN" at `at` (the position of its 'x'), or -1.  A byte
/// that has a named escape is never written in hex, so such a spelling is
/// refused: every byte has exactly one spelling.
int hex_escape(std::string_view escaped, size_t at)
{
    if (at + 2 >= escaped.size())
        return -1;
    int high = hex_value(escaped[at + 1]);
    int low = hex_value(escaped[at + 2]);
    if (high < 0 || low < 0)
        return -1;
    int byte = high * 16 + low;
    if (stands_as_it_is(static_cast<unsigned char>(byte)) || has_named_escape(static_cast<unsigned char>(byte)))
        return -1;
    return byte;
}

}  // namespace

std::string escape_text(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        unsigned char byte = static_cast<unsigned char>(c);
        if (stands_as_it_is(byte))
            out += c;
        else
            append_escaped(out, byte);
    }
    return out;
}

std::optional<std::string> unescape_text(std::string_view escaped)
{
    std::string out;
    out.reserve(escaped.size());
    for (size_t at = 0; at < escaped.size(); ++at) {
        unsigned char byte = static_cast<unsigned char>(escaped[at]);
        if (stands_as_it_is(byte)) {
            out += escaped[at];
            continue;
        }
        if (byte != '\\' || at + 1 == escaped.size())
            return std::nullopt;
        ++at;
        int value = escaped[at] == 'x' ? hex_escape(escaped, at) : named_escape(escaped[at]);
        if (value < 0)
            return std::nullopt;
        if (escaped[at] == 'x')
            at += 2;
        out += static_cast<char>(value);
    }
    return out;
}
