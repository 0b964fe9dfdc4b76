// Whole files read and written at once.
#pragma once

#include <string>

namespace q9test {

/// Contents of a file, or "" when it cannot be read.
std::string read_file(const std::string& path);
/// Writes `content` to `path`, replacing it.
void write_file(const std::string& path, const std::string& content);
/// True when something exists at `path` (a socket file, for instance).
bool path_exists(const std::string& path);

}  // namespace q9test
