// Render managers served inside the test process: a channel directory under
// the channel root and a real server endpoint of the packet-socket library
// at the channel's socket path.  Header only, since the test program is made
// of the *_test.cpp files alone.
#pragma once

#include "no_copy.h"
#include "appliance_util.h"
#include "comm_socket_v4.h"
#include "proc.h"
#include "fixed_paths.h"
#include "rendermgr/channels.h"
#include "waiting.h"

#include <algorithm>
#include <dirent.h>
#include <functional>
#include <string>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

/// "/mnt/main/tv/rendermgr/channelN".
inline std::string channel_dir(int channel)
{
    return RENDERMGR_ROOT + std::string("/channel") + std::to_string(channel);
}

/// The socket path the daemon connects to for `channel`.
inline std::string channel_socket(int channel)
{
    return channel_dir(channel) + RENDERMGR_SOCKET_SUFFIX;
}

/// Removes the channel's socket file and its directory.
inline void remove_channel_dir(int channel)
{
    unlink(channel_socket(channel).c_str());
    rmdir(channel_dir(channel).c_str());
}

/// Leaves the channel root present and empty of directories, files and
/// socket files.
inline void clear_channel_root()
{
    mkdir(rendermgr_root, 0755);
    DIR* dir = opendir(rendermgr_root);
    if (dir == nullptr)
        return;
    while (const dirent* entry = readdir(dir)) {
        std::string name = entry->d_name;
        if (name == "." || name == "..")
            continue;
        std::string path = std::string(rendermgr_root) + "/" + name;
        unlink((path + RENDERMGR_SOCKET_SUFFIX).c_str());
        if (rmdir(path.c_str()) != 0)
            unlink(path.c_str());
    }
    closedir(dir);
}

/// Puts every global of the channel module back to its initial state and
/// empties the channel root, so that tests also pass in one process.
inline void reset_channels()
{
    free_all();
    known_channels.clear();
    sel_channels.clear();
    clear_channel_root();
}

using q9test::open_descriptor_count;
using q9test::wait_until;

/// Bytes that have arrived on socket `fd` and were not read yet.
inline int unread_bytes(int fd)
{
    int bytes = -1;
    ioctl(fd, FIONREAD, &bytes);
    return bytes;
}

/// One render manager: creates its directory and listens at its socket.
class ChannelServer : q9test::NoCopy {
public:
    explicit ChannelServer(int channel) : channel(channel)
    {
        mkdir(channel_dir(channel).c_str(), 0755);
        sock = comm_socket_v4_create();
        if (sock != nullptr && comm_socket_v4_create_server(sock, channel_socket(channel).c_str()) != 0)
            sock = comm_socket_v4_destroy(sock);
    }
    ~ChannelServer()
    {
        stop();
        for (comm_socket_v4_packet* packet : received)
            comm_socket_v4_packet_release(packet);
    }

    /// True when the server endpoint listens.
    bool listening() const { return sock != nullptr; }

    /// One pass: accepts peers, frees departed ones, collects requests.
    void serve()
    {
        if (sock == nullptr || comm_socket_v4_idle(sock) != 0)
            return;
        while (comm_socket_v4_client* peer = comm_socket_v4_accept_connection(sock))
            peers.push_back(peer);
        while (comm_socket_v4_client* peer = comm_socket_v4_get_disconnected_client(sock)) {
            peers.erase(std::remove(peers.begin(), peers.end(), peer), peers.end());
            comm_socket_v4_free_client(peer);
            ++departed;
        }
        comm_socket_v4_client* sender = nullptr;
        while (comm_socket_v4_packet* packet = comm_socket_v4_server_get_packet(sock, &sender))
            received.push_back(packet);
    }

    /// Sends one "notice" packet, no reply wanted, to every live peer.
    void send_to_peers()
    {
        comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
        packet->flags = COMM_SOCKET_V4_MODE_BIT;
        comm_socket_v4_packet_begin_writing(packet, 0, "notice", "OK");
        comm_socket_v4_packet_write_argv_end(packet);
        comm_socket_v4_packet_write_end(packet);
        for (comm_socket_v4_client* peer : peers)
            comm_socket_v4_packet_send_to_client(peer, packet);
        comm_socket_v4_packet_release(packet);
    }

    /// Ends the server endpoint and its peers; the directory stays.
    void stop()
    {
        if (sock != nullptr)
            sock = comm_socket_v4_destroy(sock);
        peers.clear();
    }

    int channel;
    comm_socket_v4* sock = nullptr;
    std::vector<comm_socket_v4_client*> peers;     ///< accepted and not yet departed
    int departed = 0;                              ///< peers reported as gone
    std::vector<comm_socket_v4_packet*> received;  ///< requests, in arrival order
};
