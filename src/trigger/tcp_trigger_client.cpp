#include "trigger/tcp_trigger_client.h"

#include "appliance_util.h"
#include "config/address_allow_list.h"
#include "config/daemon_settings.h"
#include "daemon/daemon_counters.h"
#include "daemon/pass_limits.h"

#include <cassert>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <limits>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr size_t longest_line = 1023;  // characters a line may hold
constexpr int reply_tries = 10;
constexpr useconds_t reply_pause_us = 10000;
constexpr uint64_t us_per_s = 1000000;

void mark(TCPTriggerClient& client, KeptState state)
{
    if (client.kept != nullptr)
        set_kept_state(*client.kept, state);
}

// A connection closed here is never served again, also not by the next
// daemon when the descriptor store still holds it.
int close_connection(TCPTriggerClient& client)
{
    mark(client, KeptState::closed);
    close(client.sock_fd);
    client.sock_fd = -1;
    return -1;
}

// Takes the bytes processed so far out of the socket, where they were only
// looked at.  A kept connection's mark says "inside" before bytes of an
// unfinished message leave the socket, and "between" only once a message's
// last byte has left it: after a crash the mark never claims that the
// socket begins at a message when it does not.
void take_processed(TCPTriggerClient& client)
{
    bool inside = client.inside_message();
    if (inside)
        mark(client, KeptState::inside_message);
    if (client.looked_at > 0) {
        unsigned char taken[tcp_bytes_per_call];
        recv(client.sock_fd, taken, client.looked_at, MSG_DONTWAIT);
        client.looked_at = 0;
    }
    if (!inside)
        mark(client, KeptState::between_messages);
}

void reset_message(TCPTriggerClient& client)
{
    client.command.clear();
    client.nv_pairs.clear();
    client.line_pos = 0;
    client.line_count = 0;
    client.message_bytes = 0;
}

// A kept connection's message leaves the socket after it was handled and
// before it is answered: a daemon that ends while handling it leaves it
// whole in the socket, and the next one handles and answers it; one that
// ends after the answer leaves nothing of it to be answered twice.
void complete_message(TCPTriggerClient& client, int one_line)
{
    client.handle_message();
    reset_message(client);
    if (client.kept != nullptr)
        take_processed(client);
    client.send_reply(one_line);
}

// A line without "=" carries nothing, yet it still counts as a line of the
// message.  Repeated names gather their values, one per line.
void add_pair(TCPTriggerClient& client, const std::string& text)
{
    size_t equals = text.find('=');
    if (equals == std::string::npos)
        return;
    std::string& value = client.nv_pairs[text.substr(0, equals)];
    if (!value.empty())
        value += '\n';
    value += text.substr(equals + 1);
}

// Called for every LF, once `line` holds its NUL.
void finish_line(TCPTriggerClient& client)
{
    if (client.line_pos == 0) {
        // Blank lines between messages are harmless: only a started
        // message is ended by one.
        if (client.line_count > 0)
            complete_message(client, 0);
        return;
    }
    std::string text(client.line, client.line_pos);
    if (client.line_count == 0)
        client.command = text;
    else
        add_pair(client, text);
    client.line_pos = 0;
    ++client.line_count;
    if (client.command == "ONE LINE TRIGGER")
        complete_message(client, 1);
}

// Stores or drops one byte other than LF.  Leading blanks and control bytes
// never start a line; inside a line only control bytes vanish, so CR LF line
// ends work.  False when a character does not fit into the line.
bool take_byte(TCPTriggerClient& client, unsigned char byte)
{
    if (client.line_pos == 0) {
        if (byte >= 0x21 && byte <= 0x7e)
            client.line[client.line_pos++] = static_cast<char>(byte);
        return true;
    }
    if (byte < 0x20)
        return true;
    if (client.line_pos > longest_line)
        return false;
    client.line[client.line_pos++] = static_cast<char>(byte);
    return true;
}

// A message runs from the first character of its first line to the LF that
// ends it; blanks, control bytes and empty lines between messages are no
// part of one.  Counts the byte if it is part of one; false once the message
// holds more than max_message_bytes.
bool message_within_limit(TCPTriggerClient& client, unsigned char byte)
{
    bool starts_message = byte >= 0x21 && byte <= 0x7e;
    if (client.line_pos == 0 && client.line_count == 0 && !starts_message)
        return true;
    ++client.message_bytes;
    uint64_t limit = daemon_settings.max_message_bytes;
    return limit == 0 || client.message_bytes <= limit;
}

int refuse_long_message(TCPTriggerClient& client)
{
    fprintf(stderr, "TCP client fd %d message longer than %" PRIu64 " bytes, closing\n", client.sock_fd,
            daemon_settings.max_message_bytes);
    return close_connection(client);
}

int refuse_long_line(TCPTriggerClient& client)
{
    fprintf(stderr, "TCP client fd %d protocol violation, text line too long\n", client.sock_fd);
    return close_connection(client);
}

// After the last receive of a call came back empty.  An interrupted receive
// is not retried: it ends the connection like any other receive error.
int end_of_input(TCPTriggerClient& client, ssize_t received)
{
    if (received < 0 && errno == EAGAIN)
        return 0;
    if (received < 0)
        fprintf(stderr, "TCP client fd %d unexpected error %s\n", client.sock_fd, strerror(errno));
    else if (client.line_pos > 0)
        fprintf(stderr, "TCP client fd %d dropped connection in the middle of a line, ignoring message\n",
                client.sock_fd);
    else if (!client.command.empty())
        fprintf(stderr, "TCP client fd %d dropped connection without empty line, ignoring message\n",
                client.sock_fd);
    return close_connection(client);
}

// The failure text of a reply, or null once it went out whole.  A peer that
// does not read gets ten tries 10 ms apart, so one reply holds up the
// daemon's single thread for at most 90 ms.  The rest of a partly sent reply
// is never sent: the connection is dropped instead.
const char* reply_failure(int fd, const char* reply, size_t length)
{
    for (int attempt = 1;; ++attempt) {
        ssize_t sent = send(fd, reply, length, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent == static_cast<ssize_t>(length))
            return nullptr;
        if (sent == 0)
            return "TCP/IP connection dropped while sending reply\n";
        if (sent > 0)
            return "Unable to send full reply, dropping connection\n";
        if (errno != EAGAIN)
            return "Problem sending reply, dropping connection\n";
        if (attempt == reply_tries)
            return "Ran out of patience trying to send reply, dropping connection\n";
        usleep(reply_pause_us);
    }
}

}  // namespace

TCPTriggerClient::TCPTriggerClient() : line{} {}

// Only the descriptor goes: a kept connection stays in the store, open, for
// the next daemon.
TCPTriggerClient::~TCPTriggerClient()
{
    if (sock_fd >= 0)
        close(sock_fd);
}

void TCPTriggerClient::take_fd(int fd)
{
    assert(sock_fd < 0);
    sock_fd = fd;
    last_input_us = monotonic_clock_us();
}

bool TCPTriggerClient::stalled() const
{
    return line_pos > longest_line;
}

bool TCPTriggerClient::close_if_silent(uint64_t now)
{
    if (sock_fd < 0 || now < silence_deadline())
        return false;
    fprintf(stderr, "TCP client fd %d idle for %" PRIu64 " s, closing\n", sock_fd,
            daemon_settings.tcp_idle_timeout_s);
    close_connection(*this);
    return true;
}

bool TCPTriggerClient::close_if_refused(const AddressAllowList& allowed)
{
    uint32_t address = ntohl(peer.sin_addr.s_addr);
    if (sock_fd < 0 || allowed.allows(address))
        return false;
    fprintf(stderr, "TCP client fd %d from %s no longer in tcp_allow, closing\n", sock_fd,
            dotted_quad(address).text);
    close_connection(*this);
    return true;
}

uint64_t TCPTriggerClient::silence_deadline() const
{
    constexpr uint64_t never = std::numeric_limits<uint64_t>::max();
    uint64_t timeout_s = daemon_settings.tcp_idle_timeout_s;
    if (timeout_s == 0 || timeout_s > (never - last_input_us) / us_per_s)
        return never;
    return last_input_us + timeout_s * us_per_s;
}

bool TCPTriggerClient::inside_message() const
{
    return line_pos > 0 || line_count > 0;
}

const char* TCPTriggerClient::state_name() const
{
    if (sock_fd < 0)
        return "closed";
    if (stalled())
        return "stalled";
    if (inside_message())
        return "reading";
    return "idle";
}

int TCPTriggerClient::idle()
{
    if (sock_fd < 0)
        return -1;
    // A line that reached 1024 characters is never read again: the
    // connection stays open and unanswered, keeping its place in
    // tcp_clients until shutdown, unless close_long_lines closes it (also
    // when the setting came after the line).  That is why the too-long
    // branch of take_byte() is not reached; it stays as the guard of the
    // buffer.
    if (stalled())
        return daemon_settings.close_long_lines ? refuse_long_line(*this) : 0;
    size_t limit = window_left < tcp_bytes_per_call ? window_left : tcp_bytes_per_call;
    size_t count = 0;
    while (count < limit) {
        // The bytes are looked at where they arrived and then taken, exactly
        // as many as were processed: reading stops at the byte that ends the
        // budget or the line, and the rest stays in the kernel, as it would
        // with one receive per byte, at a fraction of the system calls.
        unsigned char bytes[tcp_bytes_per_call];
        ssize_t received = recv(sock_fd, bytes, limit - count, MSG_DONTWAIT | MSG_PEEK);
        if (received <= 0)
            return end_of_input(*this, received);
        last_input_us = monotonic_clock_us();
        for (ssize_t i = 0; i < received;) {
            unsigned char byte = bytes[i++];
            ++count;
            ++bytes_read;
            ++looked_at;
            --window_left;
            if (!message_within_limit(*this, byte))
                return refuse_long_message(*this);
            if (byte == '\n') {
                assert(line_pos < sizeof(line));
                line[line_pos] = '\0';
                finish_line(*this);
            } else if (!take_byte(*this, byte)) {
                return refuse_long_line(*this);
            }
            if (sock_fd < 0)
                return -1;
            if (stalled() && daemon_settings.close_long_lines)
                return refuse_long_line(*this);
            if (count == limit || stalled()) {
                take_processed(*this);
                return 0;
            }
        }
        take_processed(*this);
    }
    return 0;
}

void TCPTriggerClient::send_reply(int one_line)
{
    if (sock_fd < 0)
        return;
    const char* reply = one_line == 1 ? "OK\n" : "OK\n\n";
    if (const char* failure = reply_failure(sock_fd, reply, strlen(reply))) {
        fputs(failure, stderr);
        ++daemon_counters.tcp_reply_failures;
        close_connection(*this);
    }
}
