// Placeholder until the play command lands.
#include "rendermgr/play_command.h"

void play_now(RenderManagerConnection*, const char*) {}
