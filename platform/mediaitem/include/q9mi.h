// Media-item library of the appliance (q9mi_*), host build.
#pragma once

#include "comm_socket_v4.h"
#include "fixed_paths.h"  // Q9MI_SERVICE_PATH, where the service listens

/// Asks the media-item service to start the item `name`: one "start"
/// request (mode bit set, no reply wanted).  Never waits: 0 once the whole
/// request is written to the service's socket, -1 at once (the request is
/// dropped) when the service is absent or its socket cannot take it now.
int q9mi_start_item(const char* name);

/// Writes the whole standard reply to a request whose command is unknown:
/// command word of the request, status word "Unknown command", no
/// arguments, no pairs; sets `result` to 1.
void q9mi_default_unknown_command_error_response(comm_socket_v4_packet* request,
                                                 comm_socket_v4_packet* reply);
