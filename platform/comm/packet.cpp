// Packets: writing a message and turning frames into received packets.
#include "comm_internal.h"

#include <new>

namespace {

// Where a packet being written stands.  A call out of this order spoils the
// message: write_end then leaves `data` null and every send refuses it.
enum class WritePhase { SPOILT, ARGUMENTS, PAIRS };

}  // namespace

struct comm_socket_v4_packet_state {
    FrameWriter writer;
    WritePhase phase = WritePhase::SPOILT;
};

comm_socket_v4_packet* comm_socket_v4_packet_create()
{
    return new (std::nothrow) comm_socket_v4_packet{nullptr, 0, 0, 0, nullptr};
}

void comm_socket_v4_packet_release(comm_socket_v4_packet* packet)
{
    if (packet == nullptr)
        return;
    std::free(packet->data);
    delete packet->state;
    delete packet;
}

void comm_socket_v4_packet_begin_writing(comm_socket_v4_packet* packet, unsigned long number,
                                         const char* command, const char* status)
{
    if (packet == nullptr)
        return;
    std::free(packet->data);
    packet->data = nullptr;
    if (packet->state == nullptr)
        packet->state = new (std::nothrow) comm_socket_v4_packet_state;
    if (packet->state == nullptr)
        return;
    if (command == nullptr || status == nullptr) {
        packet->state->phase = WritePhase::SPOILT;
        return;
    }
    packet->state->writer.begin(number, command, status);
    packet->state->phase = WritePhase::ARGUMENTS;
}

namespace {

// The packet's state when it stands in `phase` and `text` is a string;
// otherwise the message is spoilt and there is nothing to write to.
comm_socket_v4_packet_state* writing(comm_socket_v4_packet* packet, WritePhase phase,
                                     const char* text = "")
{
    if (packet == nullptr || packet->state == nullptr)
        return nullptr;
    if (packet->state->phase == phase && text != nullptr)
        return packet->state;
    packet->state->phase = WritePhase::SPOILT;
    return nullptr;
}

}  // namespace

void comm_socket_v4_packet_write_argv(comm_socket_v4_packet* packet, const char* arg)
{
    if (comm_socket_v4_packet_state* state = writing(packet, WritePhase::ARGUMENTS, arg))
        state->writer.add_argument(arg);
}

void comm_socket_v4_packet_write_argv_end(comm_socket_v4_packet* packet)
{
    if (comm_socket_v4_packet_state* state = writing(packet, WritePhase::ARGUMENTS))
        state->phase = WritePhase::PAIRS;
}

void comm_socket_v4_packet_write_nv_pair(comm_socket_v4_packet* packet, const char* name,
                                         const char* value)
{
    if (comm_socket_v4_packet_state* state =
            writing(packet, WritePhase::PAIRS, name != nullptr ? value : nullptr))
        state->writer.add_pair(name, value);
}

void comm_socket_v4_packet_write_end(comm_socket_v4_packet* packet)
{
    comm_socket_v4_packet_state* state = writing(packet, WritePhase::PAIRS);
    if (state == nullptr)
        return;
    std::free(packet->data);
    packet->data = state->writer.finish();
    state->phase = WritePhase::SPOILT;
}

comm_socket_v4_packet* packet_from_frame(unsigned char* frame)
{
    comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
    if (packet == nullptr) {
        std::free(frame);
        return nullptr;
    }
    packet->data = frame;
    packet->flags = frame[FRAME_FLAGS_AT];
    packet->reference = frame_load<uint64_t>(frame + FRAME_REFERENCE_AT);
    packet->result = frame_load<int64_t>(frame + FRAME_RESULT_AT);
    return packet;
}

const unsigned char* packet_frame_to_send(comm_socket_v4_packet* packet)
{
    if (packet == nullptr || packet->data == nullptr)
        return nullptr;
    frame_stamp(packet->data, packet->flags, packet->reference, packet->result);
    return packet->data;
}
