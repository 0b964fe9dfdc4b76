#include "frame.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace {

constexpr unsigned char MAGIC[4] = {'K', 'V', '4', 'P'};

// A table of `bytes` bytes at `offset` lies after the header and inside the
// frame.  An empty table is never read, so its offset does not matter.
bool table_inside(size_t offset, size_t bytes, size_t size)
{
    if (bytes == 0)
        return true;
    return offset >= FRAME_HEADER_SIZE && offset <= size && bytes <= size - offset;
}

// Where the strings of a frame end.  All ends are found in one backward pass
// over the frame, so that a frame whose many strings share one long tail
// cannot make the check quadratic.
class StringEnds {
public:
    StringEnds(const unsigned char* frame, size_t size, std::vector<uint32_t> starts)
        : starts_(std::move(starts)), ends_(starts_.size())
    {
        std::sort(starts_.begin(), starts_.end());
        size_t nul = size;
        size_t at = size;
        for (size_t k = starts_.size(); k-- > 0;) {
            while (at > starts_[k])
                if (frame[--at] == 0)
                    nul = at;
            ends_[k] = nul;
        }
    }

    // Offset of the NUL that ends the string at `start` (one of the starts
    // given), or the frame size when the string runs off the frame.
    size_t end_of(uint32_t start) const
    {
        auto found = std::lower_bound(starts_.begin(), starts_.end(), start);
        return ends_[found - starts_.begin()];
    }

private:
    std::vector<uint32_t> starts_;
    std::vector<size_t> ends_;
};

// Offsets of every string the frame names, tables already known to be inside.
std::vector<uint32_t> string_starts(const unsigned char* frame, size_t argc, size_t argv,
                                    size_t pair_count, size_t pairs)
{
    std::vector<uint32_t> starts;
    starts.reserve(2 + argc + 2 * pair_count);
    starts.push_back(frame_load<uint32_t>(frame + FRAME_COMMAND_AT));
    starts.push_back(frame_load<uint32_t>(frame + FRAME_STATUS_AT));
    for (size_t i = 0; i < argc; ++i)
        starts.push_back(frame_load<uint32_t>(frame + argv + FRAME_ARGUMENT_ENTRY_SIZE * i));
    for (size_t i = 0; i < pair_count; ++i) {
        const unsigned char* entry = frame + pairs + FRAME_PAIR_ENTRY_SIZE * i;
        starts.push_back(frame_load<uint32_t>(entry));
        starts.push_back(frame_load<uint32_t>(entry + FRAME_PAIR_VALUE_AT));
    }
    return starts;
}

bool strings_terminated(const std::vector<uint32_t>& starts, const StringEnds& ends, size_t size)
{
    for (uint32_t start : starts)
        if (start < FRAME_HEADER_SIZE || start >= size || ends.end_of(start) >= size)
            return false;
    return true;
}

bool pair_lengths_match(const unsigned char* frame, size_t pair_count, size_t pairs,
                        const StringEnds& ends)
{
    for (size_t i = 0; i < pair_count; ++i) {
        const unsigned char* entry = frame + pairs + FRAME_PAIR_ENTRY_SIZE * i;
        uint32_t name = frame_load<uint32_t>(entry);
        uint32_t value = frame_load<uint32_t>(entry + FRAME_PAIR_VALUE_AT);
        if (ends.end_of(name) - name != frame_load<uint32_t>(entry + FRAME_PAIR_NAME_LENGTH_AT) ||
            ends.end_of(value) - value != frame_load<uint32_t>(entry + FRAME_PAIR_VALUE_LENGTH_AT))
            return false;
    }
    return true;
}

}  // namespace

bool frame_prefix_valid(const unsigned char* prefix)
{
    uint32_t length = frame_length(prefix);
    return std::memcmp(prefix, MAGIC, sizeof(MAGIC)) == 0 && length >= FRAME_HEADER_SIZE &&
           length <= FRAME_MAX_SIZE;
}

bool frame_valid(const unsigned char* frame, size_t size)
{
    if (size < FRAME_HEADER_SIZE || !frame_prefix_valid(frame) || frame_length(frame) != size)
        return false;
    size_t argc = frame_load<uint16_t>(frame + FRAME_ARGC_AT);
    size_t argv = frame_load<uint32_t>(frame + FRAME_ARGV_AT);
    size_t pair_count = frame_load<uint16_t>(frame + FRAME_PAIR_COUNT_AT);
    size_t pairs = frame_load<uint32_t>(frame + FRAME_PAIRS_AT);
    if (!table_inside(argv, FRAME_ARGUMENT_ENTRY_SIZE * argc, size) ||
        !table_inside(pairs, FRAME_PAIR_ENTRY_SIZE * pair_count, size))
        return false;
    std::vector<uint32_t> starts = string_starts(frame, argc, argv, pair_count, pairs);
    StringEnds ends(frame, size, starts);
    return strings_terminated(starts, ends, size) &&
           pair_lengths_match(frame, pair_count, pairs, ends);
}

void frame_stamp(unsigned char* frame, uint8_t flags, uint64_t reference, int64_t result)
{
    frame[FRAME_FLAGS_AT] = flags;
    frame_store(frame + FRAME_REFERENCE_AT, reference);
    frame_store(frame + FRAME_RESULT_AT, result);
}

void FrameWriter::begin(uint64_t number, const char* command, const char* status)
{
    *this = FrameWriter();
    number_ = number;
    command_ = add_string(command);
    status_ = add_string(status);
}

void FrameWriter::add_argument(const char* argument)
{
    if (arguments_.size() == FRAME_MAX_COUNT)
        too_big_ = true;
    else
        arguments_.push_back(add_string(argument));
}

void FrameWriter::add_pair(const char* name, const char* value)
{
    if (pairs_.size() == FRAME_MAX_COUNT) {
        too_big_ = true;
        return;
    }
    uint32_t name_at = add_string(name);
    uint32_t value_at = add_string(value);
    pairs_.push_back({name_at, value_at, static_cast<uint32_t>(std::strlen(name)),
                      static_cast<uint32_t>(std::strlen(value))});
}

uint32_t FrameWriter::add_string(const char* text)
{
    size_t length = std::strlen(text);
    if (too_big_ || length >= FRAME_MAX_SIZE - strings_.size()) {
        too_big_ = true;
        return 0;
    }
    uint32_t at = static_cast<uint32_t>(strings_.size());
    strings_.append(text, length + 1);
    return at;
}

unsigned char* FrameWriter::finish()
{
    size_t base = FRAME_HEADER_SIZE + FRAME_ARGUMENT_ENTRY_SIZE * arguments_.size() +
                  FRAME_PAIR_ENTRY_SIZE * pairs_.size();
    size_t size = base + strings_.size();
    unsigned char* frame = nullptr;
    if (!too_big_ && size <= FRAME_MAX_SIZE)
        frame = static_cast<unsigned char*>(std::calloc(size, 1));
    if (frame != nullptr) {
        write_header(frame, base, size);
        write_tables(frame, base);
        std::memcpy(frame + base, strings_.data(), strings_.size());
    }
    *this = FrameWriter();
    return frame;
}

void FrameWriter::write_header(unsigned char* frame, size_t base, size_t size) const
{
    std::memcpy(frame, MAGIC, sizeof(MAGIC));
    frame_store(frame + FRAME_LENGTH_AT, static_cast<uint32_t>(size));
    frame_store(frame + FRAME_COMMAND_AT, static_cast<uint32_t>(base + command_));
    frame_store(frame + FRAME_STATUS_AT, static_cast<uint32_t>(base + status_));
    frame_store(frame + FRAME_NUMBER_AT, number_);
    frame_store(frame + FRAME_ARGC_AT, static_cast<uint16_t>(arguments_.size()));
    frame_store(frame + FRAME_ARGV_AT, static_cast<uint32_t>(FRAME_HEADER_SIZE));
    frame_store(frame + FRAME_PAIR_COUNT_AT, static_cast<uint16_t>(pairs_.size()));
    frame_store(frame + FRAME_PAIRS_AT,
                static_cast<uint32_t>(FRAME_HEADER_SIZE + FRAME_ARGUMENT_ENTRY_SIZE * arguments_.size()));
}

// Turns the offsets collected relative to the strings into frame offsets.
void FrameWriter::write_tables(unsigned char* frame, size_t base) const
{
    unsigned char* at = frame + FRAME_HEADER_SIZE;
    for (uint32_t argument : arguments_) {
        frame_store(at, static_cast<uint32_t>(base + argument));
        at += FRAME_ARGUMENT_ENTRY_SIZE;
    }
    for (const Pair& pair : pairs_) {
        const uint32_t entry[4] = {static_cast<uint32_t>(base + pair.name),
                                   static_cast<uint32_t>(base + pair.value), pair.name_length,
                                   pair.value_length};
        std::memcpy(at, entry, sizeof(entry));
        at += FRAME_PAIR_ENTRY_SIZE;
    }
}
