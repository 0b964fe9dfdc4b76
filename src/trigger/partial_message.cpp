#include "trigger/partial_message.h"

#include <climits>
#include <cstdint>
#include <cstring>
#include <utility>

namespace {

// Names the layout: a record of another layout is not read.  Numbers are
// written in this machine's byte order: only the next daemon on the same
// machine reads them.
constexpr char record_magic[8] = {'q', '9', 'm', 's', 'g', '0', '0', '1'};

void put_number(std::string& record, uint64_t number)
{
    record.append(reinterpret_cast<const char*>(&number), sizeof(number));
}

void put_text(std::string& record, const std::string& text)
{
    put_number(record, text.size());
    record += text;
}

/// Reads a record front to back; every read fails once one has.
class RecordReader {
public:
    explicit RecordReader(const std::string& record) : record_(record) {}

    bool take(void* into, size_t size)
    {
        if (!good_ || record_.size() - at_ < size)
            return good_ = false;
        memcpy(into, record_.data() + at_, size);
        at_ += size;
        return true;
    }
    uint64_t number()
    {
        uint64_t value = 0;
        take(&value, sizeof(value));
        return value;
    }
    std::string text()
    {
        uint64_t size = number();
        if (!good_ || record_.size() - at_ < size) {
            good_ = false;
            return "";
        }
        std::string value = record_.substr(at_, size);
        at_ += size;
        return value;
    }
    /// Whether every read so far succeeded.
    bool good() const { return good_; }
    /// Whether every read succeeded and nothing is left over.
    bool whole() const { return good_ && at_ == record_.size(); }

private:
    const std::string& record_;
    size_t at_ = 0;
    bool good_ = true;
};

bool read_fields(const std::string& record, PartialMessage& parsed, uint64_t& line_count)
{
    RecordReader reader(record);
    char magic[sizeof(record_magic)];
    if (!reader.take(magic, sizeof(magic)) || memcmp(magic, record_magic, sizeof(magic)) != 0)
        return false;
    parsed.line = reader.text();
    line_count = reader.number();
    parsed.message_bytes = reader.number();
    parsed.command = reader.text();
    for (uint64_t pairs = reader.number(); pairs > 0 && reader.good(); --pairs) {
        std::string name = reader.text();
        parsed.nv_pairs[name] = reader.text();
    }
    return reader.whole();
}

bool holds_control_byte(const std::string& text)
{
    for (unsigned char byte : text)
        if (byte < 0x20)
            return true;
    return false;
}

// What the parser itself never leaves behind is refused: a record that
// holds it was not written by partial_message_record().
bool parser_could_hold(const PartialMessage& parsed, uint64_t line_count)
{
    bool started = !parsed.line.empty() || line_count > 0;
    bool command_matches = parsed.command.empty() == (line_count == 0);
    bool pairs_match = line_count > 0 || parsed.nv_pairs.empty();
    return started && command_matches && pairs_match && parsed.line.size() < sizeof(TCPTriggerClient::line) &&
           line_count <= INT_MAX && !holds_control_byte(parsed.line);
}

}  // namespace

std::string partial_message_record(const TCPTriggerClient& client)
{
    std::string record(record_magic, sizeof(record_magic));
    put_text(record, std::string(client.line, client.line_pos));
    put_number(record, static_cast<uint64_t>(client.line_count));
    put_number(record, client.message_bytes);
    put_text(record, client.command);
    put_number(record, client.nv_pairs.size());
    for (const auto& [name, value] : client.nv_pairs) {
        put_text(record, name);
        put_text(record, value);
    }
    return record;
}

bool read_partial_message(const std::string& record, PartialMessage& message)
{
    PartialMessage parsed;
    uint64_t line_count = 0;
    if (!read_fields(record, parsed, line_count) || !parser_could_hold(parsed, line_count))
        return false;
    parsed.line_count = static_cast<int>(line_count);
    message = std::move(parsed);
    return true;
}

void resume_partial_message(PartialMessage message, TCPTriggerClient& client)
{
    memcpy(client.line, message.line.data(), message.line.size());
    client.line_pos = message.line.size();
    client.line_count = message.line_count;
    client.message_bytes = message.message_bytes;
    client.command = std::move(message.command);
    client.nv_pairs = std::move(message.nv_pairs);
}
