// The service manager's descriptor store: descriptors handed to the manager
// with "FDSTORE=1" stay open while the daemon restarts and come back to the
// next daemon with the sockets of LISTEN_FDS, under the names given here.
// The store is used only when NOTIFY_SOCKET is set and FDSTORE names how
// many descriptors the manager keeps (the unit's FileDescriptorStoreMax=);
// otherwise every call returns at once, sending nothing.
#pragma once

#include <string>

/// Reads NOTIFY_SOCKET and FDSTORE once, at start-up, before anything is
/// stored; whether the store is used from now on.
bool descriptor_store_open();

/// Whether descriptor_store_open() found a store to use.
bool descriptor_store_in_use();

/// Hands a copy of `fd` to the store under `name` ("FDSTORE=1",
/// "FDNAME="); the caller keeps its own.  False, with a line naming
/// `name`, when the message could not be sent; false, silently, when no
/// store is used.
bool store_descriptor(int fd, const std::string& name);

/// Makes a memory file called `name` holding `bytes` and hands it to the
/// store: its descriptor, for the caller to use and close, or -1, with
/// the line of store_descriptor() when it could not be made or sent and
/// silently when no store is used.
int store_memory_file(const std::string& name, const std::string& bytes);

/// Asks the store to close its copies named `name` ("FDSTOREREMOVE=1").
void remove_stored_descriptor(const std::string& name);
