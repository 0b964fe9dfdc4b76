// Shared pieces of the load and fault tests: the daemon's footprint, a
// fixture that takes it before and after, and the reading of numbered
// commands out of what the daemon logged.
#pragma once

#include "daemon.h"

#include <gtest/gtest.h>

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

namespace q9load {

/// What a process holds: open descriptors (/proc/<pid>/fd) and resident
/// memory in KiB (VmRSS of /proc/<pid>/status); -1 where unreadable.
struct Footprint {
    int descriptors = -1;
    long resident_kib = -1;
};

/// The footprint of process `pid` now.
Footprint footprint_of(pid_t pid);

/// Resident memory the daemon may gain between the two footprints.  Loose
/// enough for the allocator's caches and stdio buffers, far below what one
/// leaked record per message, client or reload would add up to.  The
/// sanitizers' allocator holds more back (shadow memory, a quarantine of
/// freed blocks), so their builds get more room.
#ifdef Q9_SANITIZED
constexpr long resident_slack_kib = 8192;
#else
constexpr long resident_slack_kib = 1024;
#endif

/// A daemon on the minimal configuration, warmed up by one trigger and one
/// local request so that first-use allocations are behind it, with its
/// footprint taken after that.
class LoadTest : public testing::Test {
protected:
    void SetUp() override;

    /// Starts the daemon, warms it up and takes the first footprint.
    void start_daemon();
    /// Expects the same descriptors as at the first footprint and resident
    /// memory no more than resident_slack_kib above it.
    void expect_footprint_kept();
    /// Sends one trigger over a fresh connection; true when it was
    /// acknowledged with "OK\n\n".
    bool trigger_acknowledged(const std::string& message = "TRIGGER\n\n");

    std::unique_ptr<q9test::Daemon> daemon;
    Footprint before;
};

/// The numbers N of every "<prefix>K-N" found after `marker` in `text`, one
/// list per K, in the order they appear.
std::vector<std::vector<int>> numbered_commands(const std::string& text, const std::string& marker,
                                                const std::string& prefix, int lists);

/// Length of the leading run of `numbers` that counts 0, 1, 2, ...
size_t counting_prefix(const std::vector<int>& numbers);

}  // namespace q9load
