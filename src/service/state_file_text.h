// The text of the state file: what an operator reads in it, and what the
// daemon reads back.  A version line, then one line per persistent media
// item: its owner's uid, or "-" for an item without owner, and its name:
//
//     q9_korvane_xml_events_d state 2
//     item 1000 Evening news
//     item - promo\x0aloop
//
// A name stands after the owner and one blank to the end of its line,
// spelled by escape_text(), so every byte of it reads back as it was.  A
// file of version 1, written before items had owners, holds "item NAME"
// lines; its items have no owner.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// One persistent media item as the state file keeps it.
struct SavedItem {
    std::string name;
    std::optional<uid_t> owner;  ///< uid of its first registrant; none: no owner

    bool operator==(const SavedItem& other) const { return name == other.name && owner == other.owner; }
    bool operator!=(const SavedItem& other) const { return !(*this == other); }
};

/// What a state file's text holds.
struct StateFileContents {
    std::vector<SavedItem> items;  ///< the items of the well-formed lines, in file order
    size_t first_bad_line = 0;     ///< number (from 1) of the first malformed line; 0: none
};

/// The whole text of a state file holding `items`, in the current version.
std::string format_state_file(const std::vector<SavedItem>& items);

/// Reads the text of a state file of either version.  A malformed line (no
/// version line first, an unknown line, an owner or a name spelled as
/// format_state_file() never spells one) is skipped and the first is
/// reported; every well-formed item line counts.  Without a version line
/// the item lines are read as the current version writes them.
StateFileContents parse_state_file(std::string_view text);
