// What the pass probe (a library preloaded into the daemon) records, laid out
// in a file that the probe and the benchmark both map.
//
// The daemon sleeps once per pass of its main loop (usleep of 250 ms), so the
// probe takes that call as the border between passes: a pass's work is
// everything between two such sleeps.  The probe also counts every heap
// allocation and every receive call of the process, so a benchmark can tell
// how much of each a pass did.
#pragma once

#include "daemon/pass_limits.h"

#include <cstdint>

namespace q9bench {

/// Environment variable naming the file that the probe maps.
constexpr const char* pass_probe_env = "Q9_PASS_PROBE";
/// Passes kept in the ring of per-pass records.
constexpr uint64_t pass_ring_size = 16384;

/// The work between two pass sleeps.
struct PassRecord {
    uint64_t cpu_ns;       ///< thread CPU time (user and system)
    uint64_t wall_ns;      ///< monotonic time
    uint64_t allocations;  ///< malloc, calloc, realloc, memalign and the like
    uint64_t bytes;        ///< bytes asked for by those allocations
    uint64_t receives;     ///< recv calls
    uint64_t end_ns;       ///< monotonic time at which the work ended
};

/// The shared file.  One writer (the daemon's thread); readers see each
/// counter whole, and a record is complete once `passes` counts it.
struct PassProbeData {
    uint64_t passes;       ///< records written so far; pass k lives at k % pass_ring_size
    uint64_t allocations;  ///< allocations since the process started
    uint64_t bytes;        ///< bytes asked for by them
    int64_t live_blocks;   ///< blocks allocated and not yet freed (realloc moves none)
    uint64_t receives;     ///< recv calls since the process started
    PassRecord ring[pass_ring_size];
};

}  // namespace q9bench
