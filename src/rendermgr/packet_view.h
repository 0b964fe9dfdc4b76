// Reading the wire form of a received packet (its `data` frame).
//
// The library checked the frame whole before handing it over, so every
// offset read here lies inside the frame and every string is terminated.
#pragma once

#include "comm_socket_v4.h"

#include <cstddef>

/// The command word of a received packet.
const char* packet_command_word(const comm_socket_v4_packet* packet);
/// The status word of a received packet.
const char* packet_status_word(const comm_socket_v4_packet* packet);
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
