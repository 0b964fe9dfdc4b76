// Counting of heap allocations through operator new, for tests that show
// that a call leaves the heap alone.
#pragma once

#include <cstddef>

namespace allocation_counter {
void start();
size_t stop();
}  // namespace allocation_counter

/// The number of allocations that `call` makes.
template <typename Call>
size_t allocations_during(Call call)
{
    allocation_counter::start();
    call();
    return allocation_counter::stop();
}
