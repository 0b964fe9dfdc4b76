#include "ctl/output.h"

#include "comm_packet_reader.h"
#include "common/printable.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <cstring>

namespace {

bool is_plain(unsigned char c)
{
    return c >= 0x80 || (c > 0x20 && c < 0x7f && c != '"' && c != '\\' && c != '=');
}

std::string escaped(unsigned char c)
{
    switch (c) {
    case '"':
        return "\\\"";
    case '\\':
        return "\\\\";
    case '\n':
        return "\\n";
    case '\r':
        return "\\r";
    case '\t':
        return "\\t";
    default:
        return printable_byte(c);
    }
}

std::string pair_line(const comm_socket_v4_packet* packet, size_t index)
{
    return quote_if_needed(packet_nv_name(packet, index)) + "=" +
           quote_if_needed(packet_nv_value(packet, index));
}

const char* notified_command(const comm_socket_v4_packet* notify)
{
    return packet_argument_count(notify) > 0 ? packet_argument(notify, 0) : "";
}

}  // namespace

std::string quote_if_needed(const std::string& text)
{
    bool plain = !text.empty();
    for (unsigned char c : text)
        plain = plain && is_plain(c);
    if (plain)
        return text;
    std::string quoted = "\"";
    for (unsigned char c : text)
        quoted += escaped(c);
    return quoted + "\"";
}

std::string format_reply(const comm_socket_v4_packet* reply)
{
    std::string text = std::string(packet_command_word(reply)) + ": " + packet_status_word(reply);
    if (reply->result != 0)
        text += " (result " + std::to_string(reply->result) + ")";
    text += "\n";
    for (size_t i = 0; i < packet_nv_pair_count(reply); ++i)
        text += pair_line(reply, i) + "\n";
    return text;
}

bool reply_succeeded(const comm_socket_v4_packet* reply)
{
    return strcmp(packet_status_word(reply), "OK") == 0 && reply->result == 0;
}

std::string format_notification_text(const comm_socket_v4_packet* notify)
{
    std::string line = quote_if_needed(notified_command(notify));
    for (size_t i = 0; i < packet_nv_pair_count(notify); ++i)
        line += " " + pair_line(notify, i);
    return line + "\n";
}

std::string format_notification_json(const comm_socket_v4_packet* notify)
{
    // Ordered, so the pairs keep the order in which the daemon sent them.
    nlohmann::ordered_json pairs = nlohmann::ordered_json::object();
    for (size_t i = 0; i < packet_nv_pair_count(notify); ++i)
        pairs[packet_nv_name(notify, i)] = packet_nv_value(notify, i);
    nlohmann::ordered_json object = {{"command", notified_command(notify)}, {"pairs", pairs}};
    return object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}
