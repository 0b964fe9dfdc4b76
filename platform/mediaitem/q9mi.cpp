// Placeholder until the media-item library lands.
#include "q9mi.h"

int q9mi_start_item(const char*) { return -1; }
void q9mi_default_unknown_command_error_response(comm_socket_v4_packet*, comm_socket_v4_packet*) {}
