// The local command service: client records, persistent media items.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
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
    bool flag = false;           ///< kept for the record layout; nothing uses it
    std::optional<uid_t> owner;  ///< uid of its first registrant under item_owners; none without
};

/// Connected local clients by the library's client index.
extern std::map<uint64_t, CommSocketClient> server_socket_clients;
/// Persistent media items by name; shared by all clients, owned by none.
extern std::map<std::string, MediaItemPersistence> media_persistence;

/// What the command server has done since start.
struct CommandServerTotals {
    uint64_t accepted = 0;  ///< clients accepted
    uint64_t dropped = 0;   ///< clients reported disconnected and freed
    uint64_t requests = 0;  ///< requests taken from the queue
};
/// Kept by handle_server_socket().
extern CommandServerTotals command_server_totals;

/// What one round of the command server did.
struct ServerRound {
    int result;       ///< -1 when there was no usable endpoint or its idle step failed, else 0
    bool found_work;  ///< a client was accepted or dropped, or a request served
};

/// Does all pending work of the command server once: new connections,
/// disconnections, every queued request.  -1 when there is no usable
/// endpoint or its idle step fails, else 0.
int handle_server_socket();
/// handle_server_socket(), telling also whether the round found work.
ServerRound serve_command_server();
/// Starts every persistent media item, in name order.
void start_persistent_media();
/// Starts the one media item `name`; `item` is not used.
void start_persistent_media(const std::string& name, const MediaItemPersistence& item);
