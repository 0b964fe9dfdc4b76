// The local command service: client records, persistent media items.
#pragma once

#include <cstdint>
#include <map>
#include <string>

/// The daemon's record of one connected local client.
class CommSocketClient {
public:
    bool all_triggers = false;  ///< wants a "notify" packet for every trigger
    std::string target;         ///< media item named by its last "register"
};

/// One persistent media item, started on every trigger.
class MediaItemPersistence {
public:
    bool flag = false;  ///< kept for the record layout; nothing uses it
};

/// Connected local clients by the library's client index.
extern std::map<uint64_t, CommSocketClient> server_socket_clients;
/// Persistent media items by name; shared by all clients, owned by none.
extern std::map<std::string, MediaItemPersistence> media_persistence;

/// Does all pending work of the command server once: new connections,
/// disconnections, every queued request.  -1 when there is no usable
/// endpoint or its idle step fails, else 0.
int handle_server_socket();
/// True when the last handle_server_socket() accepted a client, dropped
/// one or served a request.
bool server_round_found_work();
/// Starts every persistent media item, in name order.
void start_persistent_media();
/// Starts the one media item `name`; `item` is not used.
void start_persistent_media(const std::string& name, const MediaItemPersistence& item);
