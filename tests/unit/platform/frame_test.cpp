#include "comm_test_support.h"

#include <cstdlib>

namespace {

// A frame from the writer, held as bytes that a test may spoil.
class FrameTest : public testing::Test {
protected:
    std::vector<unsigned char> frame_of(const Message& message, uint64_t number = 0)
    {
        FrameWriter writer;
        writer.begin(number, message.command.c_str(), message.status.c_str());
        for (const auto& argument : message.arguments)
            writer.add_argument(argument.c_str());
        for (const auto& pair : message.pairs)
            writer.add_pair(pair.first.c_str(), pair.second.c_str());
        unsigned char* frame = writer.finish();
        std::vector<unsigned char> bytes(frame, frame + frame_length(frame));
        std::free(frame);
        return bytes;
    }

    bool valid(const std::vector<unsigned char>& bytes)
    {
        return frame_valid(bytes.data(), bytes.size());
    }

    template <typename T>
    void put(std::vector<unsigned char>& bytes, size_t at, T value)
    {
        frame_store(bytes.data() + at, value);
    }

    const Message message{"set", "", {"alt loop", "0"}, {{"name", "value"}}};
};

TEST_F(FrameTest, WrittenHeaderHoldsTheLayout)
{
    std::vector<unsigned char> frame = frame_of(message, 7);
    // 104 header + 2 * 4 argument table + 16 pair table, then the strings.
    size_t strings = 104 + 8 + 16;
    const char text[] = "set\0\0alt loop\0" "0\0name\0value";
    ASSERT_EQ(strings + sizeof(text), frame.size());
    EXPECT_EQ(0, std::memcmp(frame.data(), "KV4P", 4));
    EXPECT_EQ(frame.size(), frame_load<uint32_t>(&frame[4]));
    EXPECT_EQ(strings, frame_load<uint32_t>(&frame[28]));
    EXPECT_EQ(strings + 4, frame_load<uint32_t>(&frame[32]));
    EXPECT_EQ(7u, frame_load<uint64_t>(&frame[36]));
    EXPECT_EQ(2u, frame_load<uint16_t>(&frame[44]));
    EXPECT_EQ(104u, frame_load<uint32_t>(&frame[46]));
    EXPECT_EQ(1u, frame_load<uint16_t>(&frame[97]));
    EXPECT_EQ(112u, frame_load<uint32_t>(&frame[99]));
    EXPECT_EQ(0, std::memcmp(&frame[strings], text, sizeof(text)));
}

TEST_F(FrameTest, WrittenTablesPointAtTheStrings)
{
    std::vector<unsigned char> frame = frame_of(message);
    size_t strings = 104 + 8 + 16;
    EXPECT_EQ(strings + 5, frame_load<uint32_t>(&frame[104]));
    EXPECT_EQ(strings + 14, frame_load<uint32_t>(&frame[108]));
    EXPECT_EQ(strings + 16, frame_load<uint32_t>(&frame[112]));
    EXPECT_EQ(strings + 21, frame_load<uint32_t>(&frame[116]));
    EXPECT_EQ(4u, frame_load<uint32_t>(&frame[120]));
    EXPECT_EQ(5u, frame_load<uint32_t>(&frame[124]));
}

TEST_F(FrameTest, ReservedHeaderBytesAreZero)
{
    std::vector<unsigned char> frame = frame_of(message);
    for (size_t at : {9, 10, 11, 103})
        EXPECT_EQ(0, frame[at]) << at;
    for (size_t at = 50; at < 97; ++at)
        EXPECT_EQ(0, frame[at]) << at;
}

TEST_F(FrameTest, StampWritesFlagsReferenceAndResult)
{
    std::vector<unsigned char> frame = frame_of(message);
    frame_stamp(frame.data(), 0x83, 0x0102030405060708u, -2);
    EXPECT_EQ(0x83, frame[8]);
    EXPECT_EQ(0x0102030405060708u, frame_load<uint64_t>(&frame[12]));
    EXPECT_EQ(-2, frame_load<int64_t>(&frame[20]));
}

TEST_F(FrameTest, WrittenFrameIsValid)
{
    EXPECT_TRUE(valid(frame_of(message)));
    EXPECT_TRUE(valid(frame_of(Message{"", "", {}, {}})));
}

TEST_F(FrameTest, BadMagicIsRefused)
{
    std::vector<unsigned char> frame = frame_of(message);
    frame[3] = 'Q';
    EXPECT_FALSE(valid(frame));
    EXPECT_FALSE(frame_prefix_valid(frame.data()));
}

TEST_F(FrameTest, LengthOutsideItsRangeIsRefusedFromThePrefix)
{
    std::vector<unsigned char> frame = frame_of(message);
    put<uint32_t>(frame, 4, 103);
    EXPECT_FALSE(frame_prefix_valid(frame.data()));
    put<uint32_t>(frame, 4, 16 * 1024 * 1024 + 1);
    EXPECT_FALSE(frame_prefix_valid(frame.data()));
    put<uint32_t>(frame, 4, 16 * 1024 * 1024);
    EXPECT_TRUE(frame_prefix_valid(frame.data()));
}

TEST_F(FrameTest, LengthOtherThanTheBytesIsRefused)
{
    std::vector<unsigned char> frame = frame_of(message);
    frame.push_back(0);
    EXPECT_FALSE(valid(frame));
    frame.resize(frame.size() - 2);
    EXPECT_FALSE(valid(frame));
}

TEST_F(FrameTest, StringOffsetOutsideTheFrameIsRefused)
{
    std::vector<unsigned char> frame = frame_of(message);
    put<uint32_t>(frame, 108, static_cast<uint32_t>(frame.size()));
    EXPECT_FALSE(valid(frame));
    put<uint32_t>(frame, 108, 0xffffffffu);
    EXPECT_FALSE(valid(frame));
}

TEST_F(FrameTest, StringInsideTheHeaderIsRefused)
{
    std::vector<unsigned char> frame = frame_of(message);
    put<uint32_t>(frame, 28, 9);
    EXPECT_FALSE(valid(frame));
}

TEST_F(FrameTest, TablesOutsideTheFrameAreRefused)
{
    std::vector<unsigned char> frame = frame_of(message);
    put<uint32_t>(frame, 46, static_cast<uint32_t>(frame.size() - 4));
    EXPECT_FALSE(valid(frame));
    frame = frame_of(message);
    put<uint16_t>(frame, 97, 0xffff);
    EXPECT_FALSE(valid(frame));
    frame = frame_of(message);
    put<uint32_t>(frame, 99, 0xfffffff0u);
    EXPECT_FALSE(valid(frame));
}

TEST_F(FrameTest, UnterminatedLastStringIsRefused)
{
    std::vector<unsigned char> frame = frame_of(message);
    frame.back() = 'x';
    EXPECT_FALSE(valid(frame));
}

TEST_F(FrameTest, PairLengthsMustMatchTheirStrings)
{
    std::vector<unsigned char> frame = frame_of(message);
    put<uint32_t>(frame, 120, 3);
    EXPECT_FALSE(valid(frame));
    frame = frame_of(message);
    put<uint32_t>(frame, 124, 6);
    EXPECT_FALSE(valid(frame));
}

// Nothing asks a writer to store a repeated string twice.
TEST_F(FrameTest, PairsSharingAStringAreValid)
{
    std::vector<unsigned char> frame = frame_of(Message{"c", "", {}, {{"a", "v"}, {"b", "v"}}});
    put<uint32_t>(frame, 124, frame_load<uint32_t>(&frame[108]));
    EXPECT_TRUE(valid(frame));
}

TEST_F(FrameTest, MessageBeyondTheFrameLimitGivesNoFrame)
{
    std::string big(16 * 1024 * 1024 - 104, 'x');
    FrameWriter writer;
    writer.begin(0, "c", "");
    writer.add_argument(big.c_str());
    EXPECT_EQ(nullptr, writer.finish());
}

TEST_F(FrameTest, MoreThan65535ArgumentsGiveNoFrame)
{
    FrameWriter writer;
    writer.begin(0, "c", "");
    for (int i = 0; i < 65535; ++i)
        writer.add_argument("");
    unsigned char* frame = writer.finish();
    ASSERT_NE(nullptr, frame);
    EXPECT_EQ(65535, frame_load<uint16_t>(frame + 44));
    std::free(frame);
    writer.begin(0, "c", "");
    for (int i = 0; i < 65536; ++i)
        writer.add_argument("");
    EXPECT_EQ(nullptr, writer.finish());
}

}  // namespace
