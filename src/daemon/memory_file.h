// Memory files (memfd): what the daemon hands to the service manager's
// descriptor store besides its connections.  They live in memory only and
// go with the last descriptor of them.  A stored file shares its offset with
// the store's copy, so both calls here work at fixed offsets and never move
// it.
#pragma once

#include <cstddef>
#include <string>

/// A new memory file called `name` (shown in /proc/PID/fd), close-on-exec,
/// holding `bytes`: its descriptor, or -1 with errno set.
int memory_file_holding(const char* name, const std::string& bytes);

/// The whole content of `fd` into `bytes`.  False when `fd` is no regular
/// file, holds more than `limit` bytes or cannot be read.
bool read_whole_file(int fd, std::string& bytes, size_t limit);
