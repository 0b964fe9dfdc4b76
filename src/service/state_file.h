// The state file: persistent media items that outlive the process.  With
// `state_file` set in the [daemon] table, the items are loaded from it at
// start-up and the file is rewritten after every change of the items, before
// the change is acknowledged, so a restart, a crash or a power cut forgets
// no item that a client was told is registered.  Without it nothing here
// touches a file.
#pragma once

#include <cstdint>
#include <string>

/// Where the persistent media items are saved, and how far the file is
/// behind them.
struct StateFileRecord {
    std::string path;                ///< the file the items go to; "": none
    uint64_t unsaved_since_us = 0;   ///< first change not in the file; 0: all saved
    bool bad_file_in_place = false;  ///< a bad file that could not be moved aside yet
    uint64_t failed_writes = 0;      ///< writes that failed since start, retries included
};

/// The state file in use.
extern StateFileRecord state_file;

/// Adds the items kept in the state file that the settings name, with their
/// owners, to media_persistence; an item there already stays as it is.  A
/// missing file holds no items and says nothing.  A file that cannot be
/// read or holds a malformed line is reported in one line naming it (and
/// its first bad line) and moved aside in its directory, never
/// overwritten; the items of its well-formed lines are kept.
void load_state_file();

/// Writes media_persistence to the state file after a change of the items:
/// a temporary file in the same directory, synced, renamed over the old one,
/// and the directory synced.  True when the items are saved or no state file
/// is set.  False when the write failed: the items stay in memory as they
/// are, the record says since when, and every later call
/// tries again.
bool save_state_file();

/// Writes the items again when an earlier write failed; nothing otherwise.
void retry_state_file();

/// After a configuration load: a state file named anew gets the items in
/// memory.  The items in memory are never replaced by a reload.
void follow_state_file_setting();
