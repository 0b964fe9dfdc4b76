// One accepted TCP trigger connection and its line protocol.
#pragma once

#include <cstddef>
#include <map>
#include <string>

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
    size_t window_bytes = 0;   ///< bytes read in the waking loop's current window
    size_t read_limit = 256;   ///< most bytes the next idle() reads; lower only while
                               ///< the waking loop's window has less left

    TCPTriggerClient();
    /// Closes the socket if it is open; no reply is sent.
    ~TCPTriggerClient();
    TCPTriggerClient(const TCPTriggerClient&) = delete;
    TCPTriggerClient& operator=(const TCPTriggerClient&) = delete;

    /// Adopts an accepted socket; the client must not hold one yet.
    void take_fd(int fd);
    /// Reads up to 256 bytes (`read_limit`), handling and acknowledging every
    /// message they complete.  0 while the connection is open, -1 once it is
    /// closed.
    int idle();
    /// True once a line reached 1024 characters: the connection is never
    /// read again and keeps its place until the daemon stops.
    bool stalled() const;
    /// Sends "OK\n" (one_line 1) or "OK\n\n"; closes the connection when
    /// the reply cannot be sent whole.
    void send_reply(int one_line);
    /// Acts on the complete message in `command` and `nv_pairs`, then
    /// empties both.
    void handle_message();
};
