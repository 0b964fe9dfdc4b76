// The play command towards one render-manager channel.
#pragma once

#include "rendermgr/render_manager_connection.h"

/// Makes the channel play `item` now: sets "alt loop" to "0", then
/// "+alt-now" to the item, polling the connection after each.
void play_now(RenderManagerConnection* connection, const char* item);
