// What the daemon's single thread may still spend waiting for each local
// client in the current pass (client_send_timeout_ms), and which clients it
// disconnected for not taking their packets.
#pragma once

#include "comm_socket_v4.h"

#include <cstdint>
#include <vector>

/// What one local client cost the current pass in waits.
struct SendBudget {
    const comm_socket_v4_client* client;
    uint64_t spent_us;  ///< waited for it in this pass
    bool dropped;       ///< disconnected by the daemon for not taking a packet
};

/// Only clients that had to be waited for have an entry, so the table stays
/// as small as the number of slow clients; it keeps its capacity from pass
/// to pass.
extern std::vector<SendBudget> send_budgets;

/// Starts a pass: every client may again be waited for the whole timeout.
/// Clients the daemon disconnected stay marked until they are forgotten.
void open_send_budgets();
/// Microseconds `client` may still be waited for in this pass: the timeout
/// less what its waits took so far, 0 once that is spent.
uint64_t send_wait_left_us(const comm_socket_v4_client* client);
/// Adds `waited_us` to what `client` cost this pass.
void charge_send_wait(const comm_socket_v4_client* client, uint64_t waited_us);
/// Marks `client` as disconnected by the daemon: nothing more is sent to it.
void mark_client_dropped(const comm_socket_v4_client* client);
/// True when the daemon disconnected `client` and has not forgotten it.
bool client_dropped(const comm_socket_v4_client* client);
/// Forgets `client`, whose record the library is about to free: its
/// address may come back for another client.
void forget_send_budget(const comm_socket_v4_client* client);
/// Forgets every client, when the endpoint that served them is gone.
void forget_all_send_budgets();
