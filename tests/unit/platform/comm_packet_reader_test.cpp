#include "comm_packet_reader.h"

#include "frame.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {

// A packet written through the library, released with the test.
class CommPacketReaderTest : public testing::Test {
protected:
    void TearDown() override { comm_socket_v4_packet_release(packet); }

    comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
};

template <typename T>
void put(std::vector<unsigned char>& frame, size_t at, T value)
{
    std::memcpy(frame.data() + at, &value, sizeof(value));
}

TEST_F(CommPacketReaderTest, ReadsEveryPartOfAWrittenPacket)
{
    comm_socket_v4_packet_begin_writing(packet, 0, "notify", "OK");
    comm_socket_v4_packet_write_argv(packet, "TRIGGER");
    comm_socket_v4_packet_write_argv(packet, "");
    comm_socket_v4_packet_write_argv_end(packet);
    comm_socket_v4_packet_write_nv_pair(packet, "name", "value");
    comm_socket_v4_packet_write_nv_pair(packet, "empty", "");
    comm_socket_v4_packet_write_end(packet);
    EXPECT_STREQ("notify", packet_command_word(packet));
    EXPECT_STREQ("OK", packet_status_word(packet));
    ASSERT_EQ(2u, packet_argument_count(packet));
    EXPECT_STREQ("TRIGGER", packet_argument(packet, 0));
    EXPECT_STREQ("", packet_argument(packet, 1));
    ASSERT_EQ(2u, packet_nv_pair_count(packet));
    EXPECT_STREQ("name", packet_nv_name(packet, 0));
    EXPECT_STREQ("value", packet_nv_value(packet, 0));
    EXPECT_STREQ("empty", packet_nv_name(packet, 1));
    EXPECT_STREQ("", packet_nv_value(packet, 1));
}

TEST_F(CommPacketReaderTest, ReadsTheNumberGivenToBeginWriting)
{
    comm_socket_v4_packet_begin_writing(packet, 0x1234567890abcdefUL, "set", "");
    comm_socket_v4_packet_write_argv_end(packet);
    comm_socket_v4_packet_write_end(packet);
    EXPECT_EQ(0x1234567890abcdefU, packet_number(packet));
}

TEST_F(CommPacketReaderTest, PacketWithoutArgumentsOrPairsHasNone)
{
    comm_socket_v4_packet_begin_writing(packet, 0, "list-pmi", "");
    comm_socket_v4_packet_write_argv_end(packet);
    comm_socket_v4_packet_write_end(packet);
    EXPECT_STREQ("list-pmi", packet_command_word(packet));
    EXPECT_STREQ("", packet_status_word(packet));
    EXPECT_EQ(0u, packet_argument_count(packet));
    EXPECT_EQ(0u, packet_nv_pair_count(packet));
}

// Tables at odd offsets and strings in an unusual order: the reader follows
// the offsets in the header and the tables, whatever the layout.
TEST_F(CommPacketReaderTest, FollowsOffsetsAtUnalignedPlaces)
{
    std::vector<unsigned char> frame(160, 0);
    const char strings[] = "val\0nam\0arg\0st\0cmd";  // from offset 130
    std::memcpy(frame.data() + 130, strings, sizeof(strings));
    put<uint32_t>(frame, FRAME_COMMAND_AT, 130 + 15);  // "cmd"
    put<uint32_t>(frame, FRAME_STATUS_AT, 130 + 12);   // "st"
    put<uint16_t>(frame, FRAME_ARGC_AT, 1);
    put<uint32_t>(frame, FRAME_ARGV_AT, 105);
    put<uint32_t>(frame, 105, 130 + 8);  // "arg"
    put<uint16_t>(frame, FRAME_PAIR_COUNT_AT, 1);
    put<uint32_t>(frame, FRAME_PAIRS_AT, 111);
    put<uint32_t>(frame, 111, 130 + 4);                    // "nam"
    put<uint32_t>(frame, 111 + FRAME_PAIR_VALUE_AT, 130);  // "val"
    comm_socket_v4_packet received{frame.data(), 0, 0, 0, nullptr};
    EXPECT_STREQ("cmd", packet_command_word(&received));
    EXPECT_STREQ("st", packet_status_word(&received));
    ASSERT_EQ(1u, packet_argument_count(&received));
    EXPECT_STREQ("arg", packet_argument(&received, 0));
    ASSERT_EQ(1u, packet_nv_pair_count(&received));
    EXPECT_STREQ("nam", packet_nv_name(&received, 0));
    EXPECT_STREQ("val", packet_nv_value(&received, 0));
}

}  // namespace
