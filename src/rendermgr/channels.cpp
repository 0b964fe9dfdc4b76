#include "rendermgr/channels.h"

#include "appliance_util.h"

#include <algorithm>
#include <cassert>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <new>

namespace {

// One record of the kernel's directory listing (getdents64).
struct linux_dirent64 {
    uint64_t d_ino;
    int64_t d_off;
    unsigned short d_reclen;
    unsigned char d_type;
    char d_name[];
};

constexpr unsigned long connect_timeout_us = 5000000;
constexpr unsigned long connect_retry_us = 10000;

bool contains(const std::vector<int>& channels, int channel)
{
    return std::find(channels.begin(), channels.end(), channel) != channels.end();
}

// The number of a directory entry "channelN", or 0 for any other name.
// Whatever follows the digits is ignored and the entry's type is not looked
// at, so "channel3x" and a plain file "channel01" both count.
int channel_of_entry(const char* name)
{
    if (name[0] == '.' || strncmp(name, "channel", 7) != 0)
        return 0;
    if (name[7] < '0' || name[7] > '9')
        return 0;
    // Only the low 32 bits of the number count; an overflowing one ends up
    // below 1 or as some other channel, as it always has.
    return static_cast<int>(strtol(name + 7, nullptr, 10));
}

// Starts a connection attempt on a record without an endpoint.  A failed
// attempt keeps its endpoint: the next poll ends it, so that the next
// refresh, not this one, tries again.
void start_connection(RenderManagerConnection* connection)
{
    connection->sock = comm_socket_v4_create();
    if (connection->sock == nullptr)
        return;
    comm_socket_v4_set_connect_timeout(connection->sock, connect_timeout_us);
    comm_socket_v4_set_connect_timeout_routine(connection->sock, connect_retry_us);
    if (comm_socket_v4_connect_to(connection->sock, connection->socket_path.c_str()) < 0) {
        fprintf(stderr, "Channel %d: failed to connect to %s\n", connection->channel,
                connection->socket_path.c_str());
        return;
    }
    // No line end: the poll that sees the connection come up completes the
    // line with "connection open".
    fprintf(stderr, "Channel %d: opening connection", connection->channel);
}

}  // namespace

void known_channels_update()
{
    known_channels_last_update = monotonic_clock_us();
    known_channels.clear();
    // The listing is read straight from the kernel into a buffer of our own:
    // opendir() would take a fresh heap block at every refresh, for months.
    int dir = open(rendermgr_root, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0)
        return;
    alignas(8) static char listing[8192];
    for (;;) {
        long length = syscall(SYS_getdents64, dir, listing, sizeof(listing));
        if (length <= 0)
            break;
        for (long at = 0; at < length;) {
            const auto* entry = reinterpret_cast<const linux_dirent64*>(listing + at);
            int channel = channel_of_entry(entry->d_name);
            if (channel >= 1)
                known_channels.push_back(channel);
            at += entry->d_reclen;
        }
    }
    close(dir);
}

void connect_manage()
{
    rendermgr_drop_unknown_channels();
    for (int channel : known_channels) {
        if (!sel_channels.empty() && !contains(sel_channels, channel)) {
            rendermgr_drop_channel(channel);
            continue;
        }
        RenderManagerConnection* connection = rendermgr_get_or_create_channel(channel);
        if (connection == nullptr || connection->sock != nullptr || connection->socket_path.empty())
            continue;
        start_connection(connection);
    }
}

void connect_idle()
{
    for (auto i = rendermgr_conn.begin(); i != rendermgr_conn.end(); ++i) {
        assert(i->second != __null);
        i->second->idle();
    }
}

void connect_wait_descriptors(std::vector<pollfd>& fds, uint64_t& wake_at)
{
    for (const auto& entry : rendermgr_conn)
        entry.second->wait_descriptors(fds, wake_at);
}

RenderManagerConnection* rendermgr_get_channel(int channel)
{
    if (channel < 1)
        return nullptr;
    auto i = rendermgr_conn.find(channel);
    return i == rendermgr_conn.end() ? nullptr : i->second;
}

RenderManagerConnection* rendermgr_get_or_create_channel(int channel)
{
    if (RenderManagerConnection* connection = rendermgr_get_channel(channel))
        return connection;
    auto* connection = new (std::nothrow) RenderManagerConnection(channel);
    if (connection == nullptr)
        return nullptr;
    rendermgr_conn[channel] = connection;
    return connection;
}

void rendermgr_drop_channel(int channel)
{
    auto i = rendermgr_conn.find(channel);
    if (i == rendermgr_conn.end())
        return;
    delete i->second;
    rendermgr_conn.erase(i);
}

void rendermgr_drop_unknown_channels()
{
    // Each step looks the position up afresh after the channel, since the
    // drop may have removed the entry the walk stood on.
    for (auto i = rendermgr_conn.begin(); i != rendermgr_conn.end();) {
        int channel = i->first;
        if (!contains(known_channels, channel)) {
            fprintf(stderr, "Rendermgr channel %d is no longer known\n", channel);
            rendermgr_drop_channel(channel);
        }
        i = rendermgr_conn.upper_bound(channel);
    }
}

void free_all()
{
    while (!rendermgr_conn.empty()) {
        auto first = rendermgr_conn.begin();
        delete first->second;
        rendermgr_conn.erase(first);
    }
}
