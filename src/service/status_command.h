// The "status" command of the local command service: the live daemon as
// name/value pairs, for the operator (q9_korvane_xml_events_ctl status).
#pragma once

#include "comm_socket_v4.h"

/// Writes the whole reply "status", "OK" with the pairs that describe the
/// daemon now, in this order: version, pid, uptime_s; daemon.* (the
/// settings in force); config.* (path, time and result of the last load,
/// sections); tcp.N.*, clients.N.*, items.N.*, channels.N.* (one group per
/// connection, client, persistent media item and channel, N from 0);
/// counters.* and passes.*.  Times are seconds of the Unix epoch.
void write_status_reply(comm_socket_v4_packet* reply);
