// Placeholder until trigger dispatch lands.
#include "trigger/trigger_dispatch.h"

void TCPTriggerClient::handle_message() {}
void do_trigger(const TCPTriggerClient&) {}
