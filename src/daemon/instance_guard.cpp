#include "daemon/instance_guard.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>

namespace {
int self_exe_fd = -1;
bool self_exe_lock = false;
}  // namespace

bool AmIRunning()
{
    if (self_exe_fd < 0) {
        self_exe_fd = open("/proc/self/exe", O_RDONLY);
        // Without our own executable there is nothing to lock: let the
        // start go on rather than refuse a daemon that may be the only one.
        if (self_exe_fd < 0)
            return false;
    }
    if (self_exe_lock)
        return false;
    if (flock(self_exe_fd, LOCK_EX | LOCK_NB) == 0) {
        // The descriptor stays open, so the lock is held until exit.
        self_exe_lock = true;
        return false;
    }
    return errno == EWOULDBLOCK;
}
