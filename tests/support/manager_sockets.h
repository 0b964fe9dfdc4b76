// Sockets made the way a service manager makes them for a socket unit, to
// be handed over to the daemon (LISTEN_FDS) and kept by the test across the
// daemons it starts on them.
#pragma once

#include "no_copy.h"

#include <string>
#include <vector>

namespace q9test {

/// What a service manager hands to a process it starts: descriptors 3 and
/// up (LISTEN_FDS, LISTEN_PID) and settings of its environment
/// (LISTEN_FDNAMES among them).
struct Handover {
    std::vector<int> fds;
    std::vector<std::string> environment;
};

/// LISTEN_FDNAMES naming the handed descriptors in their order.
std::string listen_fdnames(const std::vector<std::string>& names);

/// The descriptors to hand over, in their order, each with its name; all
/// are closed with the holder.
class ManagerSockets : NoCopy {
public:
    ManagerSockets() = default;
    ~ManagerSockets();

    /// An IPv4 TCP socket listening on `address`:`port`, as ListenStream=
    /// makes it; its descriptor, or -1.
    int listen_tcp(const std::string& address, int port, const std::string& name);
    /// A Unix stream socket listening at `path`, mode 0666; its descriptor,
    /// or -1.
    int listen_unix(const std::string& path, const std::string& name);
    /// Any other descriptor, owned by the holder from now on.
    void add(int fd, const std::string& name);

    /// The descriptors, for spawn().
    const std::vector<int>& fds() const { return fds_; }
    /// Their names, in their order.
    const std::vector<std::string>& names() const { return names_; }
    /// The descriptors with LISTEN_FDNAMES.
    Handover handover() const;

private:
    std::vector<int> fds_;
    std::vector<std::string> names_;
};

}  // namespace q9test
