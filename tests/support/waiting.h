// Waiting for a condition: every test and benchmark waits this way, with
// deadlines far beyond what the condition normally needs.
#pragma once

#include <chrono>
#include <ctime>

namespace q9test {

using Clock = std::chrono::steady_clock;
/// Deadline for conditions that normally hold within a pass or two; generous
/// because test machines are shared and slow under the sanitizers.
constexpr std::chrono::milliseconds default_wait{15000};

/// Polls `condition` every few milliseconds until it holds or `limit` passes;
/// whether it held.
template <typename Condition>
bool wait_until(Condition condition, std::chrono::milliseconds limit = default_wait)
{
    auto deadline = Clock::now() + limit;
    for (;;) {
        if (condition())
            return true;
        if (Clock::now() >= deadline)
            return false;
        struct timespec pause = {0, 2 * 1000 * 1000};
        nanosleep(&pause, nullptr);
    }
}

}  // namespace q9test
