// The floor under a trigger's round trip on this machine: a trivial server,
// in a process of its own, that answers "OK\n" to every line it reads over
// the loopback and does nothing else.  What a round trip to it costs is the
// kernel's and the machine's share, measured beside the daemon's.
#pragma once

#include "no_copy.h"

#include <sys/types.h>

namespace q9bench {

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

}  // namespace q9bench
