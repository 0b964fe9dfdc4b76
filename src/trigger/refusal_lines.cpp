#include "trigger/refusal_lines.h"

#include "config/address_allow_list.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

void RefusalLines::count(uint32_t address, uint64_t now_us)
{
    Entry& entry = entry_for(address, now_us);
    if (entry.untold++ == 0) {
        entry.untold_since_us = now_us;
        ++waiting_;
    }
    if (entry_free_us(entry) <= now_us && lines_free_us() <= now_us)
        write_line(entry, now_us);
}

void RefusalLines::report_due(uint64_t now_us)
{
    while (waiting_ > 0 && lines_free_us() <= now_us) {
        Entry* entry = longest_waiting(now_us);
        if (entry == nullptr)
            return;
        write_line(*entry, now_us);
    }
}

uint64_t RefusalLines::next_line_us() const
{
    uint64_t earliest = UINT64_MAX;
    for (const Entry& entry : entries_)
        if (entry.untold > 0)
            earliest = std::min(earliest, entry_free_us(entry));
    return std::max(earliest, lines_free_us());
}

void RefusalLines::report_all()
{
    for (Entry& entry : entries_) {
        if (entry.untold > 0)
            print(entry);
        entry.untold = 0;
    }
    waiting_ = 0;
}

// The address's own entry; else the first one free to take: never used, or
// with nothing to tell and its last line a second old, so that taking it
// loses no count and allows no second line within a second.
RefusalLines::Entry& RefusalLines::entry_for(uint32_t address, uint64_t now_us)
{
    Entry* free_entry = nullptr;
    for (size_t i = 0; i < refusal_table_size; ++i) {
        Entry& entry = entries_[i];
        if (entry.in_use && entry.address == address)
            return entry;
        bool idle = !entry.in_use || (entry.untold == 0 && entry_free_us(entry) <= now_us);
        if (idle && free_entry == nullptr)
            free_entry = &entry;
    }
    if (free_entry == nullptr)
        return entries_[refusal_table_size];
    *free_entry = Entry();
    free_entry->address = address;
    free_entry->in_use = true;
    return *free_entry;
}

RefusalLines::Entry* RefusalLines::longest_waiting(uint64_t now_us)
{
    Entry* longest = nullptr;
    for (Entry& entry : entries_) {
        if (entry.untold == 0 || entry_free_us(entry) > now_us)
            continue;
        if (longest == nullptr || entry.untold_since_us < longest->untold_since_us)
            longest = &entry;
    }
    return longest;
}

uint64_t RefusalLines::entry_free_us(const Entry& entry) const
{
    return entry.told ? entry.last_line_us + refusal_line_interval_us : 0;
}

uint64_t RefusalLines::lines_free_us() const
{
    if (lines_written_ < refusal_lines_per_second)
        return 0;
    return recent_lines_us_[next_slot_] + refusal_line_interval_us;
}

void RefusalLines::write_line(Entry& entry, uint64_t now_us)
{
    print(entry);
    entry.untold = 0;
    entry.told = true;
    entry.last_line_us = now_us;
    --waiting_;
    recent_lines_us_[next_slot_] = now_us;
    next_slot_ = (next_slot_ + 1) % refusal_lines_per_second;
    lines_written_ = std::min(lines_written_ + 1, refusal_lines_per_second);
}

void RefusalLines::print(const Entry& entry) const
{
    if (&entry == &entries_[refusal_table_size])
        fprintf(stderr,
                "Refused TCP connections from other addresses: not in tcp_allow (%" PRIu64
                " refused since the last line)\n",
                entry.untold);
    else
        fprintf(stderr,
                "Refused TCP connection from %s: not in tcp_allow (%" PRIu64 " refused since the last line)\n",
                dotted_quad(entry.address).text, entry.untold);
}
