// Placeholder until the packet-socket library lands: every endpoint fails.
#include "comm_socket_v4.h"

comm_socket_v4* comm_socket_v4_create() { return nullptr; }
comm_socket_v4* comm_socket_v4_destroy(comm_socket_v4*) { return nullptr; }
void comm_socket_v4_close(comm_socket_v4*) {}
void comm_socket_v4_set_connect_timeout(comm_socket_v4*, unsigned long) {}
void comm_socket_v4_set_connect_timeout_routine(comm_socket_v4*, unsigned long) {}
int comm_socket_v4_connect_to(comm_socket_v4*, const char*) { return -1; }
int comm_socket_v4_idle(comm_socket_v4*) { return -1; }
int comm_socket_v4_create_server(comm_socket_v4*, const char*) { return -1; }
comm_socket_v4_packet* comm_socket_v4_client_get_packet_from_server(comm_socket_v4*) { return nullptr; }
int comm_socket_v4_packet_send_to_server(comm_socket_v4*, comm_socket_v4_packet*) { return -1; }
comm_socket_v4_client* comm_socket_v4_accept_connection(comm_socket_v4*) { return nullptr; }
comm_socket_v4_client* comm_socket_v4_get_disconnected_client(comm_socket_v4*) { return nullptr; }
void comm_socket_v4_free_client(comm_socket_v4_client*) {}
unsigned long comm_socket_v4_client_ptr2index(comm_socket_v4_client*) { return ~0ul; }
comm_socket_v4_packet* comm_socket_v4_server_get_packet(comm_socket_v4*, comm_socket_v4_client**) { return nullptr; }
int comm_socket_v4_wait_for_server_to_client_writeable(comm_socket_v4_client*, unsigned long) { return -1; }
int comm_socket_v4_packet_send_to_client(comm_socket_v4_client*, comm_socket_v4_packet*) { return -1; }
comm_socket_v4_packet* comm_socket_v4_packet_create() { return nullptr; }
void comm_socket_v4_packet_release(comm_socket_v4_packet*) {}
void comm_socket_v4_packet_begin_writing(comm_socket_v4_packet*, unsigned long, const char*, const char*) {}
void comm_socket_v4_packet_write_argv(comm_socket_v4_packet*, const char*) {}
void comm_socket_v4_packet_write_argv_end(comm_socket_v4_packet*) {}
void comm_socket_v4_packet_write_nv_pair(comm_socket_v4_packet*, const char*, const char*) {}
void comm_socket_v4_packet_write_end(comm_socket_v4_packet*) {}
