// The partly received message of a trigger connection, written down at an
// orderly stop so that the next daemon, handed the same connection, goes on
// reading it where this one stopped: the message is completed by the bytes
// that follow and answered once.  The record is the parser's whole state
// inside a message (the line so far, the lines counted, the command, the
// name/value pairs, the bytes counted against max_message_bytes), so the
// bytes it came from need not be kept while the daemon runs.
#pragma once

#include "trigger/tcp_trigger_client.h"

#include <cstddef>
#include <map>
#include <string>

/// The parser's state inside a message, as a record holds it.
struct PartialMessage {
    std::string line;  ///< the characters of the line so far
    int line_count = 0;
    size_t message_bytes = 0;
    std::string command;
    std::map<std::string, std::string> nv_pairs;
};

/// The unfinished message of `client` as a record that
/// read_partial_message() reads back.
std::string partial_message_record(const TCPTriggerClient& client);

/// Reads `record` into `message`.  False when it is not a record that
/// partial_message_record() wrote of a connection inside a message.
bool read_partial_message(const std::string& record, PartialMessage& message);

/// Puts `message` into `client`, which is between messages: its next bytes
/// go on with the message.
void resume_partial_message(PartialMessage message, TCPTriggerClient& client);
