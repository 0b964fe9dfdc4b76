#include "common/printable.h"

#include <cstdio>

std::string printable_byte(unsigned char c)
{
    if (c >= 0x20 && c != 0x7f)
        return std::string(1, static_cast<char>(c));
    char hex[5];
    snprintf(hex, sizeof hex, "\\x%02x", c);
    return hex;
}

std::string printable(const std::string& text)
{
    std::string shown;
    for (unsigned char c : text)
        shown += printable_byte(c);
    return shown;
}
