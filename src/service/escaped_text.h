// Text from peers written where a person reads it: every byte that could end
// a line or hide itself is spelled out, so what is written is one line and
// reads back byte for byte.
#pragma once

#include <optional>
#include <string>
#include <string_view>

/// `text` with the backslash, bytes below 0x20, 0x7f and bytes above 0x7f
/// spelled out: "\n", "\r", "\t" and "\\" for those four, "\xNN" (lower-case
/// hex) for the others.  Every other byte stands as it is.
std::string escape_text(std::string_view text);

/// The bytes that escape_text() spelled as `escaped`, or nothing when
/// `escaped` holds a byte or a sequence that escape_text() never writes.
std::optional<std::string> unescape_text(std::string_view escaped);
