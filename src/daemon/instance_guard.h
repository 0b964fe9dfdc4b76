// Refusing to run twice: an exclusive lock on the daemon's own executable.
#pragma once

/// True when another process holds the lock.  The first call takes the lock
/// and keeps it (and its descriptor) until the process ends.
bool AmIRunning();
