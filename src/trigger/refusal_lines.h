// The lines about TCP connections refused for their address (tcp_allow).
// A flood of refused connections must not fill the log, yet every refusal
// is told: at most one line a second for each address and ten a second in
// all, each line with the number of that address's refusals that no line
// has told before.
#pragma once

#include <cstddef>
#include <cstdint>

/// Addresses whose refusals are told one by one.
constexpr size_t refusal_table_size = 16;
/// Lines in any one second, every address together.
constexpr size_t refusal_lines_per_second = 10;
/// The shortest time between two lines about one address.
constexpr uint64_t refusal_line_interval_us = 1000000;

/// A table of fixed size, which no number of peers makes grow.  An address
/// keeps its entry while it has refusals to tell or its last line is less
/// than a second old.  An address that finds every entry kept is counted
/// with "other addresses", which share one entry and one line under the
/// same limits: a full table tells a refusal in a coarser line, never
/// drops it, and never breaks an address's one line a second.
class RefusalLines {
public:
    /// Counts one refusal of `address` (host byte order) at `now_us`
    /// (monotonic) and writes its line at once when the limits allow.
    void count(uint32_t address, uint64_t now_us);
    /// Writes the lines that the limits allow by `now_us` for refusals not
    /// told yet, the longest waiting first.
    void report_due(uint64_t now_us);
    /// Whether a refusal waits for its line.
    bool waiting() const { return waiting_ > 0; }
    /// When report_due() can next write a line (monotonic microseconds);
    /// meaningful while waiting().
    uint64_t next_line_us() const;
    /// Writes a line for every refusal not told yet, whatever the limits:
    /// at the stop, when no later second will come.
    void report_all();

private:
    struct Entry {
        uint32_t address = 0;         ///< whose refusals; none for the shared entry
        bool in_use = false;          ///< holds an address
        bool told = false;            ///< has had a line since it took its address
        uint64_t untold = 0;          ///< refusals that no line has told
        uint64_t untold_since_us = 0; ///< when the first of them came
        uint64_t last_line_us = 0;    ///< when its last line was written
    };

    Entry& entry_for(uint32_t address, uint64_t now_us);
    Entry* longest_waiting(uint64_t now_us);
    uint64_t entry_free_us(const Entry& entry) const;
    uint64_t lines_free_us() const;
    void write_line(Entry& entry, uint64_t now_us);
    void print(const Entry& entry) const;

    Entry entries_[refusal_table_size + 1];  ///< the last one is "other addresses"
    /// When the last lines were written, a ring: the oldest at `next_slot_`.
    uint64_t recent_lines_us_[refusal_lines_per_second] = {};
    size_t next_slot_ = 0;
    size_t lines_written_ = 0;  ///< up to refusal_lines_per_second
    size_t waiting_ = 0;        ///< entries with refusals to tell
};
