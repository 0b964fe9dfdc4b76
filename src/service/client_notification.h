// "notify" packets to the local clients registered for all triggers.
#pragma once

#include "service/command_server.h"
#include "trigger/tcp_trigger_client.h"

/// Sends one "notify" packet of the message to every client record that
/// asks for all triggers, in ascending index; the packet is written once,
/// only when there is such a client, and every client gets the same bytes.
void notify_clients(const TCPTriggerClient& message);
/// Sends one "notify" packet to the client at `index` if it asked for all
/// triggers, waiting as long as the client needs to take it.
void notify_client(unsigned long index, const CommSocketClient& client,
                   const TCPTriggerClient& message);
