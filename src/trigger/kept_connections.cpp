#include "trigger/kept_connections.h"

#include "config/daemon_settings.h"
#include "daemon/descriptor_store.h"
#include "daemon/memory_file.h"
#include "trigger/kept_connection_table.h"
#include "trigger/partial_message.h"
#include "trigger/trigger_listener.h"

#include <cstdio>
#include <cstdlib>
#include <map>
#include <netinet/in.h>
#include <set>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const std::string name_prefix = "trigger-";
const std::string table_name = "trigger-table";
const std::string message_suffix = "-message";
// A partly received message is read back up to this size.
constexpr size_t longest_record = 64 * 1024 * 1024;

KeptConnectionTable table;
// Whether accepted connections go into the store: a store is used and the
// table that judges them after a crash is in it.
bool keeping = false;
// The number in the next stored connection's name, beyond every number
// handed back: the store removes by name, so no two may share one.
uint64_t next_number = 1;

std::string connection_name(uint64_t number)
{
    return name_prefix + std::to_string(number);
}

std::string message_name(uint64_t number)
{
    return connection_name(number) + message_suffix;
}

enum class StoredKind { unknown, connection, message, table };

struct StoredName {
    StoredKind kind = StoredKind::unknown;
    uint64_t number = 0;
};

// Decimal, at least 1, without sign or leading zero; 19 digits always fit.
bool parse_number(const std::string& digits, uint64_t& number)
{
    if (digits.empty() || digits.size() > 19 || digits[0] == '0' ||
        digits.find_first_not_of("0123456789") != std::string::npos)
        return false;
    number = strtoull(digits.c_str(), nullptr, 10);
    return true;
}

StoredName parse_stored_name(const std::string& name)
{
    if (name == table_name)
        return {StoredKind::table, 0};
    if (name.compare(0, name_prefix.size(), name_prefix) != 0)
        return {};
    std::string rest = name.substr(name_prefix.size());
    StoredName parsed{StoredKind::connection, 0};
    if (rest.size() > message_suffix.size() &&
        rest.compare(rest.size() - message_suffix.size(), std::string::npos, message_suffix) == 0) {
        parsed.kind = StoredKind::message;
        rest.erase(rest.size() - message_suffix.size());
    }
    return parse_number(rest, parsed.number) ? parsed : StoredName{};
}

/// What came back from the store, sorted out.
struct Handback {
    int table_fd = -1;                                ///< the table mapped, until it is settled
    std::map<uint64_t, StoredDescriptor> connections;  ///< by number: the oldest first
    std::map<uint64_t, StoredDescriptor> messages;     ///< by their connection's number
    std::set<std::string> removed;                     ///< names asked out of the store
};

// Closes a descriptor that is not kept and takes it out of the store.  The
// store removes every descriptor of a name: one kept under the name of one
// let go is stored again when the hand-back is settled.
void let_go(const StoredDescriptor& stored, Handback& back)
{
    close(stored.fd);
    remove_stored_descriptor(stored.name);
    back.removed.insert(stored.name);
}

void drop(const StoredDescriptor& stored, const char* reason, Handback& back)
{
    fprintf(stderr, "Stored fd %d (%s) is not used, removing it: %s\n", stored.fd, stored.name.c_str(), reason);
    let_go(stored, back);
}

void sort_out(const StoredDescriptor& stored, Handback& back)
{
    StoredName name = parse_stored_name(stored.name);
    if (name.number >= next_number)
        next_number = name.number + 1;
    switch (name.kind) {
    case StoredKind::table:
        if (back.table_fd >= 0)
            drop(stored, "a second table of kept connections", back);
        else if (!table.map(stored.fd))
            drop(stored, "not a table of kept connections", back);
        else
            back.table_fd = stored.fd;
        return;
    case StoredKind::connection:
        if (!stored.tcp_connection)
            drop(stored, "not a TCP connection", back);
        else if (!back.connections.emplace(name.number, stored).second)
            drop(stored, "a second descriptor of its name", back);
        return;
    case StoredKind::message:
        if (!back.messages.emplace(name.number, stored).second)
            drop(stored, "a second descriptor of its name", back);
        return;
    case StoredKind::unknown:
        drop(stored, "an unknown name", back);
        return;
    }
}

// The connection's partly received message, taken out of the store; false
// when it has none or it is unreadable (said in a line).
bool take_message(uint64_t number, PartialMessage& message, Handback& back)
{
    auto found = back.messages.find(number);
    if (found == back.messages.end())
        return false;
    StoredDescriptor stored = found->second;
    back.messages.erase(found);
    std::string record;
    if (!read_whole_file(stored.fd, record, longest_record) || !read_partial_message(record, message)) {
        drop(stored, "not a partly received message", back);
        return false;
    }
    let_go(stored, back);
    return true;
}

/// Where a connection without a message of its own stood when the last
/// daemon ended, as the table tells it.
enum class Verdict { serve, inside_message, closed, unknown };

Verdict verdict(uint64_t number)
{
    if (!table.mapped())
        return Verdict::unknown;
    const KeptSlot* slot = table.find(number);
    // A connection without a slot was stored and never read.
    if (slot == nullptr)
        return Verdict::serve;
    switch (kept_state(*slot)) {
    case KeptState::between_messages:
        return Verdict::serve;
    case KeptState::inside_message:
        return Verdict::inside_message;
    case KeptState::closed:
        break;
    }
    return Verdict::closed;
}

// Closes a connection that is not served, with `line` naming it.
void refuse(const StoredDescriptor& stored, const char* line, Handback& back)
{
    fprintf(stderr, line, stored.fd, stored.name.c_str());
    let_go(stored, back);
}

/// A connection served again, to be given its slot in this daemon's table.
struct TakenBack {
    TCPTriggerClient* client;
    uint64_t number;
    std::string name;
};

// The socket goes on where the last daemon stopped reading it: at a
// message's first byte, or after the bytes of the message it stored.
void take_back(uint64_t number, const StoredDescriptor& stored, Handback& back, std::vector<TakenBack>& served)
{
    PartialMessage message;
    bool with_message = take_message(number, message, back);
    Verdict judged = with_message ? Verdict::serve : verdict(number);
    if (judged == Verdict::inside_message) {
        refuse(stored, "Kept TCP client fd %d (%s) was inside a message when the daemon ended, closing it\n", back);
        return;
    }
    if (judged != Verdict::serve) {
        drop(stored, judged == Verdict::closed ? "closed by the daemon" : "nothing tells where it stood", back);
        return;
    }
    if (tcp_clients.size() >= tcp_client_places) {
        refuse(stored, "Kept TCP client fd %d (%s) has no place left, closing it\n", back);
        return;
    }
    sockaddr_in peer{};
    socklen_t length = sizeof(peer);
    getpeername(stored.fd, reinterpret_cast<sockaddr*>(&peer), &length);
    TCPTriggerClient& client = enter_tcp_client(stored.fd, peer);
    if (with_message) {
        resume_partial_message(std::move(message), client);
        fprintf(stderr, "Kept TCP client fd %d (%s) taken back inside a message, %zu bytes of it received\n",
                stored.fd, stored.name.c_str(), client.message_bytes);
    } else {
        fprintf(stderr, "Kept TCP client fd %d (%s) taken back\n", stored.fd, stored.name.c_str());
    }
    // Closed like any connection, it leaves the store at the first sweep.
    client.close_if_refused(daemon_settings.tcp_allow);
    served.push_back({&client, number, stored.name});
}

// This daemon's table: the one handed back, emptied, or a new one in the
// store.  False when none can be kept.
bool settle_table(Handback& back)
{
    if (back.table_fd >= 0 && back.removed.count(table_name) != 0)
        store_descriptor(back.table_fd, table_name);
    if (back.table_fd >= 0) {
        table.clear();
        return true;
    }
    int fd = store_memory_file(table_name, KeptConnectionTable::empty());
    if (fd < 0)
        return false;
    bool mapped = table.map(fd);
    close(fd);
    return mapped;
}

KeptState now_standing(const TCPTriggerClient& client)
{
    if (client.sock_fd < 0)
        return KeptState::closed;
    return client.inside_message() ? KeptState::inside_message : KeptState::between_messages;
}

// A connection served again stays in the store while it is kept, under
// its name (stored again if a dropped descriptor of the same name took it
// out); one that cannot be kept leaves the store.
void settle_connection(const TakenBack& taken, const Handback& back)
{
    bool removed = back.removed.count(taken.name) != 0;
    KeptSlot* slot = keeping ? table.claim(taken.number) : nullptr;
    if (slot != nullptr && removed && !store_descriptor(taken.client->sock_fd, taken.name)) {
        table.release(*slot);
        slot = nullptr;
    }
    if (slot == nullptr) {
        if (!removed)
            remove_stored_descriptor(taken.name);
        return;
    }
    set_kept_state(*slot, now_standing(*taken.client));
    taken.client->kept = slot;
}

}  // namespace

bool is_stored_name(const std::string& name)
{
    return name.compare(0, name_prefix.size(), name_prefix) == 0;
}

void take_back_kept_connections(const std::vector<StoredDescriptor>& stored)
{
    Handback back;
    for (const StoredDescriptor& descriptor : stored)
        sort_out(descriptor, back);
    std::vector<TakenBack> served;
    for (const auto& [number, descriptor] : back.connections)
        take_back(number, descriptor, back, served);
    for (const auto& [number, descriptor] : back.messages)
        drop(descriptor, "its connection did not come back", back);
    back.messages.clear();
    keeping = descriptor_store_in_use() && settle_table(back);
    if (back.table_fd >= 0)
        close(back.table_fd);
    for (const TakenBack& taken : served)
        settle_connection(taken, back);
}

void keep_connection(TCPTriggerClient& client)
{
    if (!keeping)
        return;
    uint64_t number = next_number++;
    KeptSlot* slot = table.claim(number);
    if (slot == nullptr)
        return;
    if (!store_descriptor(client.sock_fd, connection_name(number))) {
        table.release(*slot);
        return;
    }
    client.kept = slot;
}

void forget_kept_connection(TCPTriggerClient& client)
{
    if (client.kept == nullptr)
        return;
    remove_stored_descriptor(connection_name(client.kept->connection));
    table.release(*client.kept);
    client.kept = nullptr;
}

void keep_partial_messages()
{
    for (const auto& entry : tcp_clients) {
        const TCPTriggerClient& client = entry.second;
        if (client.kept == nullptr || client.sock_fd < 0 || !client.inside_message())
            continue;
        int fd = store_memory_file(message_name(client.kept->connection), partial_message_record(client));
        if (fd >= 0)
            close(fd);
    }
}
