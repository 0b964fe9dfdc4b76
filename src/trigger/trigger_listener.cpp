// Placeholder until the trigger listener lands: it opens nothing.
#include "trigger/trigger_listener.h"

int tcp_trigger_open() { return 0; }
void tcp_trigger_close() {}
void service_all_tcp_clients() {}
void drop_all_tcp_clients() {}
