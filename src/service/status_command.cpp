#include "service/status_command.h"

#include "appliance_util.h"
#include "config/configuration.h"
#include "config/daemon_settings.h"
#include "daemon/daemon_counters.h"
#include "q9_version.h"
#include "rendermgr/channel_states.h"
#include "rendermgr/channels.h"
#include "service/command_server.h"
#include "service/state_file.h"
#include "trigger/trigger_listener.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <ctime>

namespace {

// Writes the pairs of one reply; names of list members carry the member's
// position ("tcp.0.fd").
class PairWriter {
public:
    explicit PairWriter(comm_socket_v4_packet* reply) : reply_(reply) {}

    void text(const char* name, const char* value)
    {
        comm_socket_v4_packet_write_nv_pair(reply_, name, value);
    }
    void number(const char* name, uint64_t value)
    {
        char digits[24];
        snprintf(digits, sizeof digits, "%" PRIu64, value);
        text(name, digits);
    }
    void flag(const char* name, bool value) { text(name, value ? "true" : "false"); }

    // The name "LIST.POSITION.FIELD" of a list member's field.
    const char* member(const char* list, size_t position, const char* field)
    {
        snprintf(name_, sizeof name_, "%s.%zu.%s", list, position, field);
        return name_;
    }

private:
    comm_socket_v4_packet* reply_;
    char name_[64];
};

/// Converts between the monotonic clock the daemon keeps and the wall clock
/// an operator reads, both taken once per reply.
struct Clocks {
    uint64_t monotonic_us = monotonic_clock_us();
    uint64_t unix_s = static_cast<uint64_t>(time(nullptr));

    uint64_t unix_time_of(uint64_t at_us) const
    {
        uint64_t ago_s = monotonic_us > at_us ? (monotonic_us - at_us) / 1000000 : 0;
        return unix_s > ago_s ? unix_s - ago_s : 0;
    }
};

void write_process(PairWriter& out, const Clocks& clocks)
{
    out.text("version", q9_version);
    out.number("pid", static_cast<uint64_t>(getpid()));
    out.number("uptime_s", (clocks.monotonic_us - daemon_counters.started_us) / 1000000);
}

void write_settings(PairWriter& out)
{
    out.flag("daemon.wake_on_input", daemon_settings.wake_on_input);
    out.flag("daemon.close_long_lines", daemon_settings.close_long_lines);
    out.number("daemon.max_message_bytes", daemon_settings.max_message_bytes);
    out.number("daemon.tcp_idle_timeout_s", daemon_settings.tcp_idle_timeout_s);
    out.number("daemon.client_send_timeout_ms", daemon_settings.client_send_timeout_ms);
    out.text("daemon.state_file", daemon_settings.state_file.c_str());
    out.text("daemon.tcp_listen_address", daemon_settings.tcp_listen_address.c_str());
    out.text("daemon.tcp_allow", daemon_settings.tcp_allow.text().c_str());
    out.flag("daemon.item_owners", daemon_settings.item_owners);
    out.number("daemon.max_local_clients", daemon_settings.max_local_clients);
    out.number("daemon.max_items", daemon_settings.max_items);
    out.number("daemon.max_item_name_bytes", daemon_settings.max_item_name_bytes);
    out.flag("daemon.escape_logged_text", daemon_settings.escape_logged_text);
}

void write_configuration(PairWriter& out, const Clocks& clocks)
{
    out.text("config.path", configuration_path.c_str());
    out.number("config.loaded_at", clocks.unix_time_of(daemon_counters.last_load_us));
    out.text("config.result", daemon_counters.last_load_ok ? "ok" : "failed");
    out.number("config.sections", configuration.size());
}

// "ADDRESS:PORT" of the connection's peer; "unknown" when accept() gave no
// IPv4 address.
void format_peer(const sockaddr_in& peer, char (&text)[INET_ADDRSTRLEN + 8])
{
    char address[INET_ADDRSTRLEN] = "";
    if (peer.sin_family != AF_INET || inet_ntop(AF_INET, &peer.sin_addr, address, sizeof address) == nullptr) {
        snprintf(text, sizeof text, "unknown");
        return;
    }
    snprintf(text, sizeof text, "%s:%u", address, ntohs(peer.sin_port));
}

void write_tcp_connections(PairWriter& out)
{
    size_t position = 0;
    for (const auto& [fd, client] : tcp_clients) {
        char peer[INET_ADDRSTRLEN + 8];
        format_peer(client.peer, peer);
        out.number(out.member("tcp", position, "fd"), static_cast<uint64_t>(fd));
        out.text(out.member("tcp", position, "peer"), peer);
        out.text(out.member("tcp", position, "state"), client.state_name());
        out.number(out.member("tcp", position, "bytes_read"), client.bytes_read);
        out.number(out.member("tcp", position, "messages"), client.messages);
        ++position;
    }
}

void write_local_clients(PairWriter& out)
{
    size_t position = 0;
    for (const auto& [index, client] : server_socket_clients) {
        out.number(out.member("clients", position, "index"), index);
        out.flag(out.member("clients", position, "listening"), client.all_triggers);
        out.text(out.member("clients", position, "target"), client.target.c_str());
        ++position;
    }
}

// An item without owner (registered while item_owners was off) shows an
// empty owner.
void write_items(PairWriter& out)
{
    size_t position = 0;
    for (const auto& [name, item] : media_persistence) {
        out.text(out.member("items", position, "name"), name.c_str());
        if (item.owner)
            out.number(out.member("items", position, "owner"), *item.owner);
        else
            out.text(out.member("items", position, "owner"), "");
        ++position;
    }
}

void write_state_file(PairWriter& out, const Clocks& clocks)
{
    uint64_t since = state_file.unsaved_since_us;
    out.number("state_file.unsaved_since", since == 0 ? 0 : clocks.unix_time_of(since));
    out.number("state_file.failed_writes", state_file.failed_writes);
}

void write_channels(PairWriter& out, const Clocks& clocks)
{
    size_t position = 0;
    for (const auto& [channel, connection] : rendermgr_conn) {
        ChannelState state = channel_state(connection);
        uint64_t since = connection != nullptr ? channel_state_since(*connection, state, clocks.monotonic_us)
                                               : clocks.monotonic_us;
        out.number(out.member("channels", position, "number"), static_cast<uint64_t>(channel));
        out.text(out.member("channels", position, "state"), channel_state_name(state));
        out.number(out.member("channels", position, "since"), clocks.unix_time_of(since));
        ++position;
    }
}

void write_counters(PairWriter& out)
{
    const DaemonCounters& counted = daemon_counters;
    out.number("counters.triggers", counted.triggers);
    out.number("counters.notifies_sent", counted.notifies_sent);
    out.number("counters.item_starts", counted.item_starts);
    out.number("counters.item_start_failures", counted.item_start_failures);
    out.number("counters.tcp_reply_failures", counted.tcp_reply_failures);
    out.number("counters.client_send_failures", counted.client_send_failures);
    out.number("counters.reloads", counted.reloads);
    out.number("counters.reload_failures", counted.reload_failures);
    out.number("passes.count", counted.passes);
    out.number("passes.slowest_work_us", counted.slowest_pass_work_us);
}

void write_refusals(PairWriter& out)
{
    const RefusalCounters& refused = daemon_counters.refusals;
    out.number("refusals.address", refused.address);
    out.number("refusals.owner", refused.owner);
    out.number("refusals.local_clients", refused.local_clients);
    out.number("refusals.items", refused.items);
    out.number("refusals.item_name_bytes", refused.item_name_bytes);
}

}  // namespace

void write_status_reply(comm_socket_v4_packet* reply)
{
    Clocks clocks;
    PairWriter out(reply);
    comm_socket_v4_packet_begin_writing(reply, 0, "status", "OK");
    comm_socket_v4_packet_write_argv_end(reply);
    write_process(out, clocks);
    write_settings(out);
    write_configuration(out, clocks);
    write_tcp_connections(out);
    write_local_clients(out);
    write_items(out);
    write_state_file(out, clocks);
    write_channels(out, clocks);
    write_counters(out);
    write_refusals(out);
    comm_socket_v4_packet_write_end(reply);
}
