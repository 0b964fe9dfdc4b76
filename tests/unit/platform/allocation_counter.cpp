// Replaces the global operator new of the test program.  It lives in a file
// of its own so that the compiler never sees it together with the code whose
// allocations it counts.
#include "allocation_counter.h"

#include <cstdlib>
#include <new>

namespace {

bool counting = false;
size_t allocations = 0;

}  // namespace

void allocation_counter::start()
{
    allocations = 0;
    counting = true;
}

size_t allocation_counter::stop()
{
    counting = false;
    return allocations;
}

namespace {

void* counted_allocation(std::size_t size) noexcept
{
    if (counting)
        ++allocations;
    return std::malloc(size == 0 ? 1 : size);
}

}  // namespace

// Every form is replaced, so that no allocation and release pair up across
// this program's versions and the runtime's.
void* operator new(std::size_t size)
{
    if (void* memory = counted_allocation(size))
        return memory;
    throw std::bad_alloc();
}

void* operator new[](std::size_t size)
{
    return operator new(size);
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return counted_allocation(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return counted_allocation(size);
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, std::size_t) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, const std::nothrow_t&) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, const std::nothrow_t&) noexcept
{
    std::free(memory);
}
