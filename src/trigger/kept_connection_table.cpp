#include "trigger/kept_connection_table.h"

#include "trigger/trigger_listener.h"

#include <cstring>
#include <sys/mman.h>
#include <sys/stat.h>

struct KeptConnectionTable::Layout {
    char magic[16];
    KeptSlot slots[tcp_client_places];
};

namespace {

// Names the layout: a table of another layout is not mapped.
constexpr char table_magic[16] = "q9-kept-table-1";

}  // namespace

// One whole store, which the compiler neither drops nor splits; it comes
// before the system call that follows it (the one that takes the bytes it
// describes out of the socket), and once done it is in the file's memory,
// whatever ends the process next.
void set_kept_state(KeptSlot& slot, KeptState state)
{
    __atomic_store_n(&slot.state, static_cast<uint32_t>(state), __ATOMIC_RELAXED);
}

KeptState kept_state(const KeptSlot& slot)
{
    return static_cast<KeptState>(__atomic_load_n(&slot.state, __ATOMIC_RELAXED));
}

KeptConnectionTable::~KeptConnectionTable()
{
    if (table_ != nullptr)
        munmap(table_, sizeof(Layout));
}

std::string KeptConnectionTable::empty()
{
    Layout table{};
    memcpy(table.magic, table_magic, sizeof(table_magic));
    return std::string(reinterpret_cast<const char*>(&table), sizeof(table));
}

bool KeptConnectionTable::map(int fd)
{
    struct stat info {};
    if (table_ != nullptr || fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) ||
        info.st_size != static_cast<off_t>(sizeof(Layout)))
        return false;
    void* memory = mmap(nullptr, sizeof(Layout), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED)
        return false;
    auto* table = static_cast<Layout*>(memory);
    if (memcmp(table->magic, table_magic, sizeof(table_magic)) != 0) {
        munmap(memory, sizeof(Layout));
        return false;
    }
    table_ = table;
    return true;
}

const KeptSlot* KeptConnectionTable::find(uint64_t connection) const
{
    if (table_ == nullptr || connection == 0)
        return nullptr;
    for (const KeptSlot& slot : table_->slots)
        if (slot.connection == connection)
            return &slot;
    return nullptr;
}

KeptSlot* KeptConnectionTable::claim(uint64_t connection)
{
    if (table_ == nullptr)
        return nullptr;
    for (KeptSlot& slot : table_->slots) {
        if (slot.connection == 0) {
            set_kept_state(slot, KeptState::between_messages);
            slot.connection = connection;
            return &slot;
        }
    }
    return nullptr;
}

void KeptConnectionTable::release(KeptSlot& slot)
{
    slot.connection = 0;
    set_kept_state(slot, KeptState::between_messages);
}

void KeptConnectionTable::clear()
{
    if (table_ == nullptr)
        return;
    for (KeptSlot& slot : table_->slots)
        release(slot);
}
