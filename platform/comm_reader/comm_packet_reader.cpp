#include "comm_packet_reader.h"

#include "frame.h"

#include <cassert>

namespace {

template <typename T>
T field(const comm_socket_v4_packet* packet, size_t at)
{
    return frame_load<T>(packet->data + at);
}

// The string whose offset is stored at `at`.
const char* string_at(const comm_socket_v4_packet* packet, size_t at)
{
    return reinterpret_cast<const char*>(packet->data) + field<uint32_t>(packet, at);
}

size_t pair_entry(const comm_socket_v4_packet* packet, size_t index)
{
    return field<uint32_t>(packet, FRAME_PAIRS_AT) + FRAME_PAIR_ENTRY_SIZE * index;
}

}  // namespace

const char* packet_command_word(const comm_socket_v4_packet* packet)
{
    return string_at(packet, FRAME_COMMAND_AT);
}

const char* packet_status_word(const comm_socket_v4_packet* packet)
{
    return string_at(packet, FRAME_STATUS_AT);
}

uint64_t packet_number(const comm_socket_v4_packet* packet)
{
    return field<uint64_t>(packet, FRAME_NUMBER_AT);
}

size_t packet_argument_count(const comm_socket_v4_packet* packet)
{
    return field<uint16_t>(packet, FRAME_ARGC_AT);
}

const char* packet_argument(const comm_socket_v4_packet* packet, size_t index)
{
    assert(index < packet_argument_count(packet));
    return string_at(packet, field<uint32_t>(packet, FRAME_ARGV_AT) + FRAME_ARGUMENT_ENTRY_SIZE * index);
}

size_t packet_nv_pair_count(const comm_socket_v4_packet* packet)
{
    return field<uint16_t>(packet, FRAME_PAIR_COUNT_AT);
}

const char* packet_nv_name(const comm_socket_v4_packet* packet, size_t index)
{
    assert(index < packet_nv_pair_count(packet));
    return string_at(packet, pair_entry(packet, index));
}

const char* packet_nv_value(const comm_socket_v4_packet* packet, size_t index)
{
    assert(index < packet_nv_pair_count(packet));
    return string_at(packet, pair_entry(packet, index) + FRAME_PAIR_VALUE_AT);
}
