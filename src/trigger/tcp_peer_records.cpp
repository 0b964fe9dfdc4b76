#include "trigger/tcp_peer_records.h"

void note_tcp_peer(int fd, const sockaddr_in& peer)
{
    tcp_peer_records[fd] = TcpPeerRecord{peer, 0};
}

void forget_tcp_peer(int fd)
{
    tcp_peer_records.erase(fd);
}

void count_tcp_message(int fd)
{
    auto record = tcp_peer_records.find(fd);
    if (record != tcp_peer_records.end())
        ++record->second.messages;
}

const char* tcp_client_state(const TCPTriggerClient& client)
{
    if (client.sock_fd < 0)
        return "closed";
    if (client.stalled())
        return "stalled";
    if (client.line_pos > 0 || client.line_count > 0)
        return "reading";
    return "idle";
}
