// Floors: programs that do the least the daemon must do and nothing else,
// each in a process of its own, measured beside the daemon in the same run.
// What they cost is the kernel's and the machine's share.
#pragma once

#include "no_copy.h"

#include <sys/types.h>

namespace q9bench {

/// A trivial server that answers "OK\n" to every line it reads over the
/// loopback: the floor under a trigger's round trip.
class FloorServer : q9test::NoCopy {
public:
    /// Listens on a free loopback port and serves it from a child process,
    /// kept on CPU `cpu` when that is 0 or more.
    explicit FloorServer(int cpu = -1);
    /// Ends and reaps the child.
    ~FloorServer();

    bool listening() const { return pid_ > 0; }
    int port() const { return port_; }

private:
    int port_ = -1;
    pid_t pid_ = -1;
};

/// A bare loop that accepts every connection on a free loopback port and
/// closes it at once: the floor under a refused connection.
class RefusingFloor : q9test::NoCopy {
public:
    RefusingFloor();
    /// Ends and reaps the child.
    ~RefusingFloor();

    bool listening() const { return pid_ > 0; }
    int port() const { return port_; }
    pid_t pid() const { return pid_; }

private:
    int port_ = -1;
    pid_t pid_ = -1;
};

/// A bare loop that sleeps as the daemon does when idle and does nothing
/// else: usleep(250000) over and over as the classic pass does, or a ppoll()
/// of two idle sockets with a 5 s timeout, as the waking daemon waits for
/// the next channel refresh.
class IdleFloor : q9test::NoCopy {
public:
    explicit IdleFloor(bool waking);
    /// Ends and reaps the child.
    ~IdleFloor();

    pid_t pid() const { return pid_; }

private:
    pid_t pid_ = -1;
};

}  // namespace q9bench
