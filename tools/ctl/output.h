// How the client prints what the daemon sends: replies and notifications.
#pragma once

#include "comm_socket_v4.h"

#include <string>

/// A reply as printed: "COMMAND: STATUS", then " (result N)" when the result
/// is not 0, then one "NAME=VALUE" line per pair, all lines ending in "\n".
std::string format_reply(const comm_socket_v4_packet* reply);
/// True for a reply whose status word is "OK" and whose result is 0.
bool reply_succeeded(const comm_socket_v4_packet* reply);
/// A "notify" packet as one line: its argument (the trigger's command), then
/// " NAME=VALUE" per pair, each text quoted when needed; ends in "\n".
std::string format_notification_text(const comm_socket_v4_packet* notify);
/// A "notify" packet as one line of JSON:
/// {"command":"TRIGGER","pairs":{"a":"1"}} and "\n".  Bytes that are not
/// UTF-8 become U+FFFD.
std::string format_notification_json(const comm_socket_v4_packet* notify);
/// `text` bare when it holds only visible characters other than '"', '\\'
/// and '=' (or bytes from 0x80 on), else in double quotes with C-style
/// escapes, so that every printed text stays on its line and can be told
/// apart from its neighbours.
std::string quote_if_needed(const std::string& text);
