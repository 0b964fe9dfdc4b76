// Reading the wire form of a received packet (its `data` frame).
//
// The packet-socket library checked the frame whole before handing it over,
// so every offset read here lies inside the frame and every string is
// terminated.  The reader sits beside the library and reads the same wire
// form; the daemon, the tools, the tests and the benchmarks read packets
// only through it.
#pragma once

#include "comm_socket_v4.h"

#include <cstddef>
#include <cstdint>

/// The command word of a received packet.
const char* packet_command_word(const comm_socket_v4_packet* packet);
/// The status word of a received packet.
const char* packet_status_word(const comm_socket_v4_packet* packet);
/// The number its sender gave to comm_socket_v4_packet_begin_writing().
uint64_t packet_number(const comm_socket_v4_packet* packet);
/// Number of arguments of a received packet.
size_t packet_argument_count(const comm_socket_v4_packet* packet);
/// Argument `index` (below packet_argument_count()).
const char* packet_argument(const comm_socket_v4_packet* packet, size_t index);
/// Number of name/value pairs of a received packet.
size_t packet_nv_pair_count(const comm_socket_v4_packet* packet);
/// Name of pair `index` (below packet_nv_pair_count()).
const char* packet_nv_name(const comm_socket_v4_packet* packet, size_t index);
/// Value of pair `index` (below packet_nv_pair_count()).
const char* packet_nv_value(const comm_socket_v4_packet* packet, size_t index);
