// Nesting check of TOML text before the TOML parser sees it.  The parser
// descends recursively into arrays and inline tables, and a document's
// tables are freed recursively, so a small file nesting deep enough
// exhausts the stack; the check refuses such text first.
#pragma once

#include <cstddef>

/// Deepest nesting that a configuration file may use.
constexpr int toml_nesting_limit = 256;

/// What a scan of TOML text found.  Levels: a table header counts one per
/// dotted part of its name, a key one per part before its last, and every
/// array or inline table one more than the place where it is written.
struct TomlNesting {
    int deepest = 0;          ///< deepest level reached in the scanned part
    size_t too_deep_line = 0; ///< line (from 1) that first went beyond the limit, or 0
    size_t rejected_line = 0; ///< line at which the parser is certain to reject the
                              ///< text (nothing after it is scanned), or 0
};

/// Follows `size` bytes of TOML text exactly as the parser will read them,
/// so that brackets inside strings and comments count for nothing, and stops
/// at the first place that nests deeper than `limit`, or at the first place
/// where the parser is certain to give up.  Reads the text once and never
/// recurses.
TomlNesting toml_nesting_scan(const char* text, size_t size, int limit = toml_nesting_limit);
