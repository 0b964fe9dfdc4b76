// A record of the calls made into the packet-socket library for sending to
// a peer, waiting for a peer and releasing packets.  The calls still reach
// the library; the record only watches them.
#pragma once

#include "comm_socket_v4.h"

#include <cstdint>
#include <functional>
#include <map>
#include <utility>
#include <vector>

struct LibraryCalls {
    /// Every comm_socket_v4_packet_send_to_client, in call order, with its result.
    struct Send {
        comm_socket_v4_client* client;
        comm_socket_v4_packet* packet;
        int result;
    };
    std::vector<Send> sends;
    /// Number of comm_socket_v4_wait_for_server_to_client_writeable calls.
    int waits = 0;
    /// For each wait, how far its deadline lay ahead of monotonic_clock_us() at the call.
    std::vector<int64_t> wait_lead_us;
    /// Number of comm_socket_v4_packet_release calls per packet (null
    /// included).  A freed address may come back for a later packet.
    std::map<const comm_socket_v4_packet*, int> releases;
    /// Every send ('s') and release ('r') in call order, with its packet.
    std::vector<std::pair<char, const comm_socket_v4_packet*>> packet_calls;
    /// Runs before each wait reaches the library, with the wait's number from 1.
    std::function<void(int)> before_wait;
};

/// The record; tests clear it with reset_library_calls() before the step they watch.
extern LibraryCalls library_calls;

/// Forgets every recorded call and the wait hook.
void reset_library_calls();
