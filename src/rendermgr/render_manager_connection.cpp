// Placeholder until channel connections land.
#include "rendermgr/render_manager_connection.h"

RenderManagerConnection::RenderManagerConnection(int channel) : channel(channel) {}
RenderManagerConnection::~RenderManagerConnection() {}
void RenderManagerConnection::idle() {}
