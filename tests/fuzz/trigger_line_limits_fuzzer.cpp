// Bytes from a TCP peer through one trigger connection with the peer limits
// on (trigger_line_feed.h): close_long_lines, and a max_message_bytes of
// 1 to 4081 chosen by the input's last byte.  No line of 1024 characters
// and no message beyond the limit may stay open.
#include "config/daemon_settings.h"

#include "trigger_line_feed.h"

namespace {

void within_limits(const TCPTriggerClient& client)
{
    if (client.sock_fd < 0)
        return;
    trigger_line_feed::check(!client.stalled(), "no stalled line while close_long_lines is on");
    trigger_line_feed::check(client.message_bytes <= daemon_settings.max_message_bytes,
                             "an open message within max_message_bytes");
    trigger_line_feed::check(client.line_count > 0 || client.line_pos > 0 || client.message_bytes == 0,
                             "no bytes counted between messages");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    daemon_settings.close_long_lines = true;
    daemon_settings.max_message_bytes = size > 0 ? 1 + data[size - 1] * 16 : 4096;
    trigger_line_feed::feed_silenced(data, size, within_limits);
    return 0;
}
