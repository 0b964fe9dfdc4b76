#include "packets.h"

#include "comm_packet_reader.h"
#include "frame.h"

#include <cstring>

namespace q9test {

Packet copy_packet(const comm_socket_v4_packet* packet)
{
    Packet seen;
    seen.command = packet_command_word(packet);
    seen.status = packet_status_word(packet);
    for (size_t i = 0; i < packet_argument_count(packet); ++i)
        seen.arguments.push_back(packet_argument(packet, i));
    for (size_t i = 0; i < packet_nv_pair_count(packet); ++i)
        seen.pairs.emplace_back(packet_nv_name(packet, i), packet_nv_value(packet, i));
    seen.flags = packet->flags;
    seen.reference = packet->reference;
    seen.result = packet->result;
    return seen;
}

Packet take_packet(comm_socket_v4_packet* packet)
{
    Packet seen = copy_packet(packet);
    comm_socket_v4_packet_release(packet);
    return seen;
}

void write_packet(comm_socket_v4_packet* packet, const std::string& command,
                  const std::string& status, const std::vector<std::string>& arguments,
                  const Pairs& pairs)
{
    comm_socket_v4_packet_begin_writing(packet, 0, command.c_str(), status.c_str());
    for (const std::string& argument : arguments)
        comm_socket_v4_packet_write_argv(packet, argument.c_str());
    comm_socket_v4_packet_write_argv_end(packet);
    for (const auto& pair : pairs)
        comm_socket_v4_packet_write_nv_pair(packet, pair.first.c_str(), pair.second.c_str());
    comm_socket_v4_packet_write_end(packet);
}

std::string request_frame(uint8_t flags, const std::string& command, const Pairs& pairs)
{
    comm_socket_v4_packet* request = comm_socket_v4_packet_create();
    write_packet(request, command, "", {}, pairs);
    // The record's flags travel only through the library's own send, so
    // this frame, which goes out raw, gets them written into its header.
    frame_stamp(request->data, flags, 0, 0);
    std::string frame(reinterpret_cast<const char*>(request->data), frame_length(request->data));
    comm_socket_v4_packet_release(request);
    return frame;
}

}  // namespace q9test
