// The service manager's notification socket with the descriptor store it
// keeps for a unit with FileDescriptorStoreMax=: the daemon's "FDSTORE=1"
// messages leave their descriptors here under their FDNAME=, and
// "FDSTOREREMOVE=1" closes those of a name; the next daemon is handed what
// is kept, after the socket unit's sockets, as a service manager hands it.
// A thread of its own receives every message as it comes, as the manager
// does, so the daemon never waits for room in the socket's queue.
#pragma once

#include "manager_sockets.h"
#include "no_copy.h"
#include "waiting.h"

#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace q9test {

class ManagerStore : NoCopy {
public:
    /// Binds the notification socket and starts receiving; the store keeps
    /// at most `capacity` descriptors and closes those beyond.
    explicit ManagerStore(int capacity = 9);
    /// Stops receiving and closes every descriptor kept.
    ~ManagerStore();

    bool bound() const { return fd_ >= 0; }
    /// NOTIFY_SOCKET naming the socket and FDSTORE the capacity, as the
    /// manager sets them for the service.
    std::vector<std::string> environment() const;

    /// The names of the descriptors kept, in the order they came.
    std::vector<std::string> names();
    /// Waits until names() is `expected`.
    bool wait_for_names(const std::vector<std::string>& expected, std::chrono::milliseconds limit = default_wait);
    /// Every message received so far, in order.
    std::vector<std::string> messages();
    /// Keeps `fd` under `name`, as if a daemon had sent it; the store owns it.
    void add(int fd, const std::string& name);

    /// What the next daemon is handed: the descriptors of `sockets`, then
    /// those kept, with their names, NOTIFY_SOCKET and FDSTORE.  Every
    /// message that has arrived is taken in first, so a daemon that has
    /// ended has been heard out.
    Handover handover(const ManagerSockets& sockets);

private:
    struct Kept {
        int fd;
        std::string name;
    };

    void receive_loop();
    void receive_queued();
    void take(const std::string& text, std::vector<int> fds);
    void keep(int fd, const std::string& name);
    void remove(const std::string& name);

    int capacity_;
    int fd_ = -1;
    int stop_pipe_[2] = {-1, -1};
    std::mutex mutex_;
    std::vector<Kept> kept_;
    std::vector<std::string> messages_;
    std::thread receiver_;
};

}  // namespace q9test
