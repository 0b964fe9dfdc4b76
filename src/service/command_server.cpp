// Placeholder until the command server lands.
#include "service/command_server.h"

int handle_server_socket() { return -1; }
void start_persistent_media() {}
void start_persistent_media(const std::string&, const MediaItemPersistence&) {}
