#include "rendermgr/packet_view.h"

#include <cassert>
#include <cstdint>
#include <cstring>

namespace {

// Header fields of the wire form that the reader needs.
constexpr size_t COMMAND_AT = 28;
constexpr size_t STATUS_AT = 32;
constexpr size_t ARGUMENT_COUNT_AT = 44;
constexpr size_t ARGUMENT_TABLE_AT = 46;
constexpr size_t PAIR_COUNT_AT = 97;
constexpr size_t PAIR_TABLE_AT = 99;
constexpr size_t ARGUMENT_ENTRY_SIZE = 4;
constexpr size_t PAIR_ENTRY_SIZE = 16;
constexpr size_t PAIR_VALUE_AT = 4;

// Most fields of the wire form are unaligned, so they are read byte-exact.
template <typename T>
T field(const comm_socket_v4_packet* packet, size_t at)
{
    T value;
    std::memcpy(&value, packet->data + at, sizeof(value));
    return value;
}

// The string whose offset is stored at `at`.
const char* string_at(const comm_socket_v4_packet* packet, size_t at)
{
    return reinterpret_cast<const char*>(packet->data) + field<uint32_t>(packet, at);
}

size_t pair_entry(const comm_socket_v4_packet* packet, size_t index)
{
    return field<uint32_t>(packet, PAIR_TABLE_AT) + PAIR_ENTRY_SIZE * index;
}

}  // namespace

const char* packet_command_word(const comm_socket_v4_packet* packet)
{
    return string_at(packet, COMMAND_AT);
}

const char* packet_status_word(const comm_socket_v4_packet* packet)
{
    return string_at(packet, STATUS_AT);
}

size_t packet_argument_count(const comm_socket_v4_packet* packet)
{
    return field<uint16_t>(packet, ARGUMENT_COUNT_AT);
}

const char* packet_argument(const comm_socket_v4_packet* packet, size_t index)
{
    assert(index < packet_argument_count(packet));
    return string_at(packet,
                     field<uint32_t>(packet, ARGUMENT_TABLE_AT) + ARGUMENT_ENTRY_SIZE * index);
}

size_t packet_nv_pair_count(const comm_socket_v4_packet* packet)
{
    return field<uint16_t>(packet, PAIR_COUNT_AT);
}

const char* packet_nv_name(const comm_socket_v4_packet* packet, size_t index)
{
    assert(index < packet_nv_pair_count(packet));
    return string_at(packet, pair_entry(packet, index));
}

const char* packet_nv_value(const comm_socket_v4_packet* packet, size_t index)
{
    assert(index < packet_nv_pair_count(packet));
    return string_at(packet, pair_entry(packet, index) + PAIR_VALUE_AT);
}
