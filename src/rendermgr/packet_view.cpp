// Placeholder until the packet reader lands.
#include "rendermgr/packet_view.h"

const char* packet_command_word(const comm_socket_v4_packet*) { return ""; }
const char* packet_status_word(const comm_socket_v4_packet*) { return ""; }
size_t packet_argument_count(const comm_socket_v4_packet*) { return 0; }
const char* packet_argument(const comm_socket_v4_packet*, size_t) { return ""; }
size_t packet_nv_pair_count(const comm_socket_v4_packet*) { return 0; }
const char* packet_nv_name(const comm_socket_v4_packet*, size_t) { return ""; }
const char* packet_nv_value(const comm_socket_v4_packet*, size_t) { return ""; }
