// What a complete trigger message makes the daemon do.
#pragma once

#include "trigger/tcp_trigger_client.h"

/// Starts every persistent media item, then notifies every local client
/// registered for all triggers of `client`'s message.
void do_trigger(const TCPTriggerClient& client);
