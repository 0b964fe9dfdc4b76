// The text of the state file: what an operator reads in it, and what the
// daemon reads back.  A version line, then one line per persistent media
// item:
//
//     q9_korvane_xml_events_d state 1
//     item Evening news
//     item promo\x0aloop
//
// A name stands after "item " to the end of its line, spelled by
// escape_text(), so every byte of it reads back as it was.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// What a state file's text holds.
struct StateFileContents {
    std::vector<std::string> item_names;  ///< the items of the well-formed lines, in file order
    size_t first_bad_line = 0;            ///< number (from 1) of the first malformed line; 0: none
};

/// The whole text of a state file holding the items `names`.
std::string format_state_file(const std::vector<std::string>& names);

/// Reads the text of a state file.  A malformed line (no version line first,
/// an unknown line, a name spelled as format_state_file() never spells one)
/// is skipped and the first is reported; every well-formed item line counts.
StateFileContents parse_state_file(std::string_view text);
