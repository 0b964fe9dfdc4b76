// "notify" packets to the local clients registered for all triggers.
#pragma once

#include "service/command_server.h"
#include "trigger/tcp_trigger_client.h"

/// Offers the message to every client record, in ascending index.
void notify_clients(const TCPTriggerClient& message);
/// Sends one "notify" packet to the client at `index` if it asked for all
/// triggers, waiting as long as the client needs to take it.
void notify_client(unsigned long index, const CommSocketClient& client,
                   const TCPTriggerClient& message);
