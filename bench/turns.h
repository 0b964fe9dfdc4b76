// An allowed peer's round trips in turns: windows while a load runs beside
// it and quiet windows as long, each with the daemon's CPU time, and the
// figures that compare them.
#pragma once

#include "peers.h"

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace q9bench {

/// What one window of the allowed peer's round trips measured.
struct Window {
    std::vector<double> trips_us;
    double seconds = 0;
    uint64_t cpu_ns = 0;  ///< the daemon's time on a CPU
};

/// Round trips of `ONE LINE TRIGGER` to "OK" on `peer`, after random gaps
/// of 1 to 3 ms, for as long as `load` runs in a thread of its own.
Window loaded_window(pid_t daemon, TriggerConnection& peer, std::mt19937& random,
                     const std::function<void()>& load);
/// The same round trips alone for `seconds`.
Window quiet_window(pid_t daemon, TriggerConnection& peer, std::mt19937& random, double seconds);

/// The daemon's CPU time in `loaded` less the rate of `quiet` over as many
/// seconds: what the load cost it; never below zero.
uint64_t load_cpu_ns(const Window& loaded, const Window& quiet);
/// Milliseconds of CPU time per 1,000 of `count`.
double per_thousand_ms(uint64_t cpu_ns, uint64_t count);

/// The round trips of all `windows`.
std::vector<double> all_trips(const std::vector<Window>& windows);
/// The round trips in ms as "p50 / p99" of all windows, and in brackets the
/// lowest to the highest of each over the single windows (the spread).
std::string trip_cells(const std::vector<Window>& windows);

}  // namespace q9bench
