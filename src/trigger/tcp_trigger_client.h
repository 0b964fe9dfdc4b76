// One accepted TCP trigger connection and its line protocol.
#pragma once

#include "trigger/kept_connection_table.h"

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

struct AddressAllowList;

class TCPTriggerClient {
public:
    int sock_fd = -1;          ///< the connection's socket; -1 when closed
    char line[1025];           ///< the line being received, NUL-terminated when it ends
    size_t line_pos = 0;       ///< characters stored in `line`
    int line_count = 0;        ///< non-empty lines of the current message so far
    std::string command;       ///< first line of the current message
    std::map<std::string, std::string> nv_pairs;  ///< name=value lines of the message
    int reserved = 0;          ///< kept for the record layout; nothing uses it
    size_t bytes_read = 0;     ///< bytes taken from the socket since it was adopted
    size_t message_bytes = 0;  ///< bytes of the current message so far, from its first character
    uint64_t last_input_us = 0;  ///< monotonic time of adoption or of the last bytes read
    /// Bytes it may still read in the main loop's current window; a record
    /// that no window has taken in (one used outside the loop) reads on.
    size_t window_left = SIZE_MAX;
    sockaddr_in peer{};        ///< the peer's address as accept() gave it, for the status
    uint64_t messages = 0;     ///< complete messages handled
    /// Bytes processed but still in the socket, where they were only looked
    /// at; taken out of it at the end of each read.
    size_t looked_at = 0;
    /// The connection's slot in the table of kept connections; null while
    /// the connection is not kept in the service manager's descriptor store.
    KeptSlot* kept = nullptr;

    TCPTriggerClient();
    /// Closes its descriptor of the socket if it is open; no reply is sent,
    /// and a kept connection's slot stays as it was.
    ~TCPTriggerClient();
    TCPTriggerClient(const TCPTriggerClient&) = delete;
    TCPTriggerClient& operator=(const TCPTriggerClient&) = delete;

    /// Adopts an accepted socket; the client must not hold one yet.
    void take_fd(int fd);
    /// Reads up to 256 bytes, and no more than `window_left`, handling and
    /// acknowledging every message they complete.  0 while the connection is open, -1 once it is
    /// closed.  With close_long_lines a line of 1024 characters, and with
    /// max_message_bytes a message that grows beyond that many bytes, closes
    /// the connection with a line naming it, unhandled and unanswered.
    int idle();
    /// True once a line reached 1024 characters: the connection is never
    /// read again and keeps its place until the daemon stops.  With
    /// close_long_lines set such a line closes the connection instead, so
    /// a connection is stalled only while the setting is off.
    bool stalled() const;
    /// True from the first character of a message to the line feed that
    /// completes it.
    bool inside_message() const;
    /// "stalled" once a line reached 1024 characters, "reading" inside a
    /// message, "idle" between messages, "closed" once the connection ended.
    const char* state_name() const;
    /// Closes the connection, with a line naming it, when it has given the
    /// daemon nothing to read for tcp_idle_timeout_s seconds up to `now`
    /// (monotonic microseconds).  True when it closed it.
    bool close_if_silent(uint64_t now);
    /// Closes the connection, with a line naming it and its peer, when
    /// `allowed` does not list the peer's address.  True when it closed it.
    bool close_if_refused(const AddressAllowList& allowed);
    /// When close_if_silent() will close the connection if nothing comes:
    /// monotonic microseconds; the largest value while no timeout is set.
    uint64_t silence_deadline() const;
    /// Sends "OK\n" (one_line 1) or "OK\n\n"; closes the connection when
    /// the reply cannot be sent whole.
    void send_reply(int one_line);
    /// Acts on the complete message in `command` and `nv_pairs`, then
    /// empties both.
    void handle_message();
};
