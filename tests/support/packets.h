// Packets of the packet-socket library as tests write and read them.
#pragma once

#include "comm_socket_v4.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace q9test {

/// Name-value pairs of a packet, in order.
using Pairs = std::vector<std::pair<std::string, std::string>>;

/// The header flags of a request that wants a reply.
constexpr uint8_t reply_wanted_flags = COMM_SOCKET_V4_REPLY_WANTED | COMM_SOCKET_V4_MODE_BIT;

/// One packet, copied out of the library's record.
struct Packet {
    std::string command;
    std::string status;
    std::vector<std::string> arguments;
    Pairs pairs;
    uint8_t flags = 0;
    uint64_t reference = 0;
    int64_t result = 0;
};

/// Copies a received (or completely written) packet.
Packet copy_packet(const comm_socket_v4_packet* packet);
/// Copies a received packet and releases it.
Packet take_packet(comm_socket_v4_packet* packet);

/// Writes a whole packet: command word, status word, arguments, pairs.
void write_packet(comm_socket_v4_packet* packet, const std::string& command,
                  const std::string& status, const std::vector<std::string>& arguments,
                  const Pairs& pairs);

/// The wire bytes of one request to the command service with `flags` in its
/// header, for peers that write raw bytes.
std::string request_frame(uint8_t flags, const std::string& command, const Pairs& pairs = {});

}  // namespace q9test
