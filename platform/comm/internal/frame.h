// Wire form of a packet: encoding and the whole-frame check.  Shared by the
// platform libraries; not part of the packet-socket library's interface.
//
// A frame is a 104-byte header, then the argument table (one u32 string
// offset per argument), then the name/value table (16 bytes per pair), then
// the NUL-terminated strings.  Integers are in host byte order and most of
// them are unaligned, so every access goes through the load/store helpers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

constexpr size_t FRAME_HEADER_SIZE = 104;
constexpr size_t FRAME_MAX_SIZE = 16u * 1024 * 1024;
constexpr size_t FRAME_MAX_COUNT = 65535;
/// Bytes of a frame that tell whether it may be taken in at all: magic and length.
constexpr size_t FRAME_PREFIX_SIZE = 8;
constexpr size_t FRAME_ARGUMENT_ENTRY_SIZE = 4;
constexpr size_t FRAME_PAIR_ENTRY_SIZE = 16;
/// Fields of a pair entry after its name's offset, which comes first.
constexpr size_t FRAME_PAIR_VALUE_AT = 4;
constexpr size_t FRAME_PAIR_NAME_LENGTH_AT = 8;
constexpr size_t FRAME_PAIR_VALUE_LENGTH_AT = 12;

constexpr size_t FRAME_LENGTH_AT = 4;
constexpr size_t FRAME_FLAGS_AT = 8;
constexpr size_t FRAME_REFERENCE_AT = 12;
constexpr size_t FRAME_RESULT_AT = 20;
constexpr size_t FRAME_COMMAND_AT = 28;
constexpr size_t FRAME_STATUS_AT = 32;
constexpr size_t FRAME_NUMBER_AT = 36;
constexpr size_t FRAME_ARGC_AT = 44;
constexpr size_t FRAME_ARGV_AT = 46;
constexpr size_t FRAME_PAIR_COUNT_AT = 97;
constexpr size_t FRAME_PAIRS_AT = 99;

template <typename T>
T frame_load(const unsigned char* at)
{
    T value;
    std::memcpy(&value, at, sizeof(value));
    return value;
}

template <typename T>
void frame_store(unsigned char* at, T value)
{
    std::memcpy(at, &value, sizeof(value));
}

/// The length that a frame's header announces.
inline uint32_t frame_length(const unsigned char* frame)
{
    return frame_load<uint32_t>(frame + FRAME_LENGTH_AT);
}

/// Whether the first FRAME_PREFIX_SIZE bytes carry the magic and a length
/// between the header size and FRAME_MAX_SIZE.  Checked before the rest of
/// a frame is read, so a peer cannot make the reader allocate for garbage.
bool frame_prefix_valid(const unsigned char* prefix);

/// Whether `size` bytes form one well-made frame: a valid prefix announcing
/// exactly `size`, both tables inside the frame, every string starting
/// after the header and terminated inside the frame, and every pair's
/// lengths equal to its strings' lengths.  Reads nothing outside the bytes.
bool frame_valid(const unsigned char* frame, size_t size);

/// Writes flags, reference and result into a frame's header.
void frame_stamp(unsigned char* frame, uint8_t flags, uint64_t reference, int64_t result);

/// Collects one message and lays it out as a frame.
class FrameWriter {
public:
    /// Forgets everything collected and starts a message.
    void begin(uint64_t number, const char* command, const char* status);
    void add_argument(const char* argument);
    void add_pair(const char* name, const char* value);
    /// The frame in memory from malloc() (flags, reference and result
    /// zero), or null when the message exceeds the frame limits.  The
    /// collected message is forgotten either way.
    unsigned char* finish();

private:
    uint32_t add_string(const char* text);
    void write_header(unsigned char* frame, size_t base, size_t size) const;
    void write_tables(unsigned char* frame, size_t base) const;

    struct Pair {
        uint32_t name, value, name_length, value_length;
    };
    uint64_t number_ = 0;
    uint32_t command_ = 0;
    uint32_t status_ = 0;
    bool too_big_ = false;
    std::string strings_;  ///< the strings back to back, offsets relative to its start
    std::vector<uint32_t> arguments_;
    std::vector<Pair> pairs_;
};
