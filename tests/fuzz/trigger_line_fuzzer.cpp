// Bytes from a TCP peer through one trigger connection of the classic
// daemon (trigger_line_feed.h).
#include "trigger_line_feed.h"

namespace {

void nothing_more(const TCPTriggerClient&) {}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    trigger_line_feed::feed_silenced(data, size, nothing_more);
    return 0;
}
