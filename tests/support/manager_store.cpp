#include "manager_store.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <sstream>

namespace q9test {

namespace {

constexpr const char* notify_path = "/run/q9-manager-notify.socket";
// Descriptors one message may carry here; the daemon sends one at a time.
constexpr size_t most_fds_per_message = 16;

bool same_object(int a, int b)
{
    struct stat first {};
    struct stat second {};
    return fstat(a, &first) == 0 && fstat(b, &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

/// The value of the line "NAME=VALUE" of `text`, or "" without one.
std::string field(const std::string& text, const std::string& name)
{
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line))
        if (line.rfind(name + "=", 0) == 0)
            return line.substr(name.size() + 1);
    return "";
}

bool has_line(const std::string& text, const std::string& wanted)
{
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line))
        if (line == wanted)
            return true;
    return false;
}

}  // namespace

ManagerStore::ManagerStore(int capacity) : capacity_(capacity)
{
    unlink(notify_path);
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, notify_path);
    if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        pipe2(stop_pipe_, O_CLOEXEC) != 0) {
        close(fd_);
        fd_ = -1;
        return;
    }
    receiver_ = std::thread([this] { receive_loop(); });
}

ManagerStore::~ManagerStore()
{
    if (receiver_.joinable()) {
        close(stop_pipe_[1]);
        receiver_.join();
        close(stop_pipe_[0]);
    }
    for (const Kept& kept : kept_)
        close(kept.fd);
    if (fd_ >= 0) {
        close(fd_);
        unlink(notify_path);
    }
}

std::vector<std::string> ManagerStore::environment() const
{
    return {std::string("NOTIFY_SOCKET=") + notify_path, "FDSTORE=" + std::to_string(capacity_)};
}

std::vector<std::string> ManagerStore::names()
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> names;
    for (const Kept& kept : kept_)
        names.push_back(kept.name);
    return names;
}

bool ManagerStore::wait_for_names(const std::vector<std::string>& expected, std::chrono::milliseconds limit)
{
    return wait_until([&] { return names() == expected; }, limit);
}

std::vector<std::string> ManagerStore::messages()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return messages_;
}

void ManagerStore::add(int fd, const std::string& name)
{
    std::lock_guard<std::mutex> lock(mutex_);
    keep(fd, name);
}

Handover ManagerStore::handover(const ManagerSockets& sockets)
{
    std::lock_guard<std::mutex> lock(mutex_);
    receive_queued();
    Handover handover{sockets.fds(), environment()};
    std::vector<std::string> names = sockets.names();
    for (const Kept& kept : kept_) {
        handover.fds.push_back(kept.fd);
        names.push_back(kept.name);
    }
    handover.environment.push_back(listen_fdnames(names));
    return handover;
}

void ManagerStore::receive_loop()
{
    for (;;) {
        pollfd waited[2] = {{fd_, POLLIN, 0}, {stop_pipe_[0], POLLIN, 0}};
        if (poll(waited, 2, -1) < 0)
            continue;
        if (waited[1].revents != 0)
            return;
        std::lock_guard<std::mutex> lock(mutex_);
        receive_queued();
    }
}

// Called with the mutex held.
void ManagerStore::receive_queued()
{
    for (;;) {
        char text[4096];
        iovec data{text, sizeof(text)};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * most_fds_per_message)];
        msghdr message{};
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        ssize_t length = recvmsg(fd_, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
        if (length < 0)
            return;
        std::vector<int> fds;
        for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
             header = CMSG_NXTHDR(&message, header)) {
            if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS)
                continue;
            size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            for (size_t i = 0; i < count; ++i) {
                int fd = -1;
                memcpy(&fd, CMSG_DATA(header) + i * sizeof(int), sizeof(int));
                fds.push_back(fd);
            }
        }
        take(std::string(text, static_cast<size_t>(length)), std::move(fds));
    }
}

// As the manager does: descriptors of any other message are closed at once,
// and a store without FDNAME= names them "stored".
void ManagerStore::take(const std::string& text, std::vector<int> fds)
{
    messages_.push_back(text);
    if (has_line(text, "FDSTORE=1")) {
        std::string name = field(text, "FDNAME");
        for (int fd : fds)
            keep(fd, name.empty() ? "stored" : name);
        return;
    }
    for (int fd : fds)
        close(fd);
    if (has_line(text, "FDSTOREREMOVE=1"))
        remove(field(text, "FDNAME"));
}

// The same object is kept once; beyond the capacity nothing is kept.
void ManagerStore::keep(int fd, const std::string& name)
{
    bool known = std::any_of(kept_.begin(), kept_.end(), [&](const Kept& kept) { return same_object(kept.fd, fd); });
    if (known || kept_.size() >= static_cast<size_t>(capacity_)) {
        close(fd);
        return;
    }
    kept_.push_back({fd, name});
}

void ManagerStore::remove(const std::string& name)
{
    for (auto it = kept_.begin(); it != kept_.end();) {
        if (it->name == name) {
            close(it->fd);
            it = kept_.erase(it);
        } else {
            ++it;
        }
    }
}

}  // namespace q9test
