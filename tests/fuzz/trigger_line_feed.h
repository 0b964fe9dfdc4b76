// Bytes from a TCP peer, fed to one trigger connection through a socket pair
// in pieces of the fuzzer's choosing; after every read call the record must
// still hold its invariants, whatever the peer sent.  Shared by the trigger
// line targets, which differ in the settings in force and in what more they
// check.
#pragma once

#include "daemon/pass_limits.h"
#include "trigger/tcp_trigger_client.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace trigger_line_feed {

inline void check(bool condition, const char* what)
{
    if (!condition) {
        fprintf(stderr, "broken invariant: %s\n", what);
        abort();
    }
}

inline void check_invariants(const TCPTriggerClient& client)
{
    check(client.line_pos <= 1024, "line_pos <= 1024");
    check(client.command.empty() == (client.line_count == 0), "command set exactly while lines counted");
    check(client.line_count > 0 || client.nv_pairs.empty(), "no pairs before a command");
    check(client.line_count >= 0, "line_count >= 0");
}

/// What a target checks beyond the invariants, after every read call.
using ExtraCheck = void (*)(const TCPTriggerClient& client);

// One read call, then the peer takes every reply at once, so that no reply
// waits for room (each wait would cost ten tries of 10 ms).
inline void read_once(TCPTriggerClient& client, int peer, ExtraCheck extra)
{
    client.idle();
    check_invariants(client);
    extra(client);
    char replies[4096];
    while (recv(peer, replies, sizeof(replies), MSG_DONTWAIT) > 0) {
    }
}

inline void feed(const uint8_t* data, size_t size, ExtraCheck extra)
{
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0)
        return;
    TCPTriggerClient client;
    client.take_fd(pair[0]);
    // The first byte chooses the size of the pieces the peer writes in.
    size_t piece = size > 0 ? 1 + data[0] % 64 : 1;
    for (size_t at = size > 0 ? 1 : 0; at < size && client.sock_fd >= 0; at += piece) {
        size_t length = at + piece <= size ? piece : size - at;
        // A stalled connection is never read again: once its socket is
        // full the rest of the input cannot go anywhere.
        if (send(pair[1], data + at, length, MSG_DONTWAIT) != static_cast<ssize_t>(length))
            break;
        for (int call = 0; call < 4 && client.sock_fd >= 0; ++call)
            read_once(client, pair[1], extra);
    }
    // After the peer's end of stream every byte left is read within this
    // many calls (256 per call), unless a too-long line stalled the record.
    shutdown(pair[1], SHUT_WR);
    for (size_t call = 0; call <= size / tcp_bytes_per_call + 1 && client.sock_fd >= 0; ++call)
        read_once(client, pair[1], extra);
    close(pair[1]);
}

/// feed() with the daemon's stderr silenced meanwhile: what it writes about
/// the connection is noise here, but the fuzzer's own report goes to stderr
/// too.
inline void feed_silenced(const uint8_t* data, size_t size, ExtraCheck extra)
{
    static int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    static int saved_stderr = dup(2);
    dup2(null, 2);
    feed(data, size, extra);
    dup2(saved_stderr, 2);
}

}  // namespace trigger_line_feed
