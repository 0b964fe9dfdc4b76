// How the client shows the daemon's reply to "status": as one JSON object,
// or as a page for a person built from that object.
#pragma once

#include "comm_socket_v4.h"

#include <nlohmann/json.hpp>

#include <string>

/// TCP trigger connections the daemon serves at once; a further peer waits.
constexpr unsigned kTcpConnectionPlaces = 4;

/// The reply's pairs as one object: a name "a.b" becomes the member b of the
/// object a, and "list.N.field" the member field of element N of the array
/// list.  The fields that q9_korvane_xml_events_ctl(1) documents as numbers
/// or booleans get those types; every other value stays a text.  The lists
/// tcp, clients, items and channels are present even when empty, and the
/// members come in the documented order.
nlohmann::ordered_json status_object(const comm_socket_v4_packet* reply);
/// The member `name` of `object`, or null when `object` is no object or
/// lacks it: how a reader of status_object() takes what may be missing.
const nlohmann::ordered_json& status_member(const nlohmann::ordered_json& object, const char* name);
/// status_object() printed as one line of JSON and "\n".  Bytes that are not
/// UTF-8 become U+FFFD.
std::string format_status_json(const comm_socket_v4_packet* reply);
/// The status for a person: a header, one table each for the TCP
/// connections, the local clients, the persistent media items and the
/// channels, then the counters.  Times are shown in UTC.
std::string format_status_text(const comm_socket_v4_packet* reply);
