// promtool, from Debian's prometheus package, as a judge of metrics texts.
#pragma once

#include <optional>
#include <string>

namespace q9test {

/// What `promtool check metrics` says of `text`: "" when it finds no
/// problem, else its exit status and output; nothing when promtool is not
/// installed.
std::optional<std::string> promtool_problems(const std::string& text);

}  // namespace q9test
