// max_item_name_bytes and max_items: how long a persistent media item's
// name may be and how many items the local clients may register.  0 is no
// limit, as in the classic daemon.
#pragma once

#include <string>

/// Whether a register by the client at `index` naming `name` keeps within
/// max_item_name_bytes.  A refusal is written as one line and counted.
bool name_within_limit(unsigned long index, const std::string& name);

/// Whether a register by the client at `index` naming `name` keeps within
/// max_items; one naming an item that is registered already adds nothing
/// and always does.  A refusal is written as one line and counted.
bool room_for_item(unsigned long index, const std::string& name);
