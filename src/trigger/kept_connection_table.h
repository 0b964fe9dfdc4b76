// Where each kept trigger connection stood, for the daemon that follows a
// crash.  A connection's bytes leave its socket in the batches the daemon
// has processed; a daemon that ends without its orderly stop takes the
// connection's parser with it, and the next one must know whether the
// socket still begins at a message or in the middle of one.  The table is
// a memory file that the descriptor store keeps, mapped shared into the
// daemon: a state changes by one plain store into that memory, with no
// system call, and what was stored is there for the next daemon however
// this one ends (kill -9, the watchdog's SIGABRT).
#pragma once

#include <cstdint>
#include <string>

/// Where a kept connection stands after the bytes last taken out of its
/// socket.
enum class KeptState : uint32_t {
    between_messages = 0,  ///< the socket holds the next message from its first byte
    inside_message = 1,    ///< part of a message was taken: the socket holds only its rest
    closed = 2,            ///< the daemon closed the connection
};

/// One connection's entry in the shared memory.
struct KeptSlot {
    uint64_t connection;  ///< the number in the connection's stored name; 0 while free
    uint32_t state;       ///< a KeptState
    uint32_t unused;
};

/// Sets `slot`'s state: one plain store into the shared memory.
void set_kept_state(KeptSlot& slot, KeptState state);
/// The state `slot` holds.
KeptState kept_state(const KeptSlot& slot);

/// The table: one slot for each place of the TCP service.
class KeptConnectionTable {
public:
    KeptConnectionTable() = default;
    /// Unmaps the table; the memory file lives on in the store.
    ~KeptConnectionTable();
    KeptConnectionTable(const KeptConnectionTable&) = delete;
    KeptConnectionTable& operator=(const KeptConnectionTable&) = delete;

    /// The bytes of an empty table, for a new memory file.
    static std::string empty();
    /// Maps the table held by the memory file `fd`, which may be closed
    /// afterwards.  False, mapping nothing, when `fd` holds no table or one
    /// is mapped already.
    bool map(int fd);
    /// Whether a table is mapped.
    bool mapped() const { return table_ != nullptr; }

    /// The slot of `connection`, or null.
    const KeptSlot* find(uint64_t connection) const;
    /// A free slot, now naming `connection`, between messages; null when
    /// every slot is taken or no table is mapped.
    KeptSlot* claim(uint64_t connection);
    /// Frees `slot`.
    void release(KeptSlot& slot);
    /// Frees every slot.
    void clear();

private:
    struct Layout;
    Layout* table_ = nullptr;
};
