// Replacing a file that another program reads at any moment, such as the
// node exporter's textfile collector: the reader sees the old content or
// the new, never a part.
#pragma once

#include <string>

/// Writes `content` to a temporary file beside `path` (a hidden name that
/// does not end like `path`, so a reader matching names never takes it),
/// makes it readable by every user (mode 0644) and renames it over `path`.
/// False, with `error` set and nothing left behind, when any step fails.
bool replace_file(const std::string& path, const std::string& content, std::string* error);
