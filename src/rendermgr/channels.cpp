// Placeholder until channel discovery lands: no channel is ever known.
#include "rendermgr/channels.h"

void known_channels_update() {}
void connect_manage() {}
void connect_idle() {}
RenderManagerConnection* rendermgr_get_channel(int) { return nullptr; }
RenderManagerConnection* rendermgr_get_or_create_channel(int) { return nullptr; }
void rendermgr_drop_channel(int) {}
void rendermgr_drop_unknown_channels() {}
void free_all() {}
