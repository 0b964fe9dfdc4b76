// The pass probe: a library preloaded into the daemon (LD_PRELOAD) that
// measures each pass of its main loop from inside, without touching the
// daemon's code.  It stands in front of usleep (the pass border), the heap
// functions and recv, counts, and hands every call on to the C library.
//
// Nothing here may allocate: the heap functions themselves pass through it.
// Built a second time with Q9_PROBE_PASSES_ONLY, it only marks the passes
// and leaves the heap functions and recv alone, for callgrind runs whose
// instruction counts should hold nothing but the daemon's own.
#include "pass_probe.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>

using q9bench::PassProbeData;
using q9bench::PassRecord;

extern "C" {
void* __libc_malloc(size_t size);
void __libc_free(void* pointer);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* pointer, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
}

namespace {

// Counts made before the shared file is mapped (the C library's own start)
// land here and are not reported.
PassProbeData early;
PassProbeData* data = &early;

// The figures at the start of the pass under way, once one has started.
PassRecord pass_start{};
bool pass_started = false;

uint64_t clock_ns(clockid_t clock)
{
    timespec now;
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

#ifndef Q9_PROBE_PASSES_ONLY
void bump(uint64_t& counter)
{
    __atomic_store_n(&counter, counter + 1, __ATOMIC_RELAXED);
}

void count_live(int64_t change)
{
    __atomic_store_n(&data->live_blocks, data->live_blocks + change, __ATOMIC_RELAXED);
}

// Every call that hands out memory counts as an allocation; only a new
// block changes the live count.
void count_allocation(size_t bytes, bool new_block = true)
{
    bump(data->allocations);
    __atomic_store_n(&data->bytes, data->bytes + bytes, __ATOMIC_RELAXED);
    if (new_block)
        count_live(1);
}
#endif

__attribute__((constructor)) void map_shared_file()
{
    const char* path = getenv(q9bench::pass_probe_env);
    if (path == nullptr)
        return;
    int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        return;
    void* shared = MAP_FAILED;
    if (ftruncate(fd, sizeof(PassProbeData)) == 0)
        shared = mmap(nullptr, sizeof(PassProbeData), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    // The descriptor goes at once, so the daemon's descriptor table stays as
    // it would be without the probe.
    close(fd);
    if (shared != MAP_FAILED)
        data = static_cast<PassProbeData*>(shared);
}

// The end of one pass's work: its record is written, then published.
void end_pass()
{
    uint64_t cpu = clock_ns(CLOCK_THREAD_CPUTIME_ID);
    uint64_t wall = clock_ns(CLOCK_MONOTONIC);
    if (!pass_started)
        return;
    uint64_t index = data->passes % q9bench::pass_ring_size;
    PassRecord& record = data->ring[index];
    record.cpu_ns = cpu - pass_start.cpu_ns;
    record.wall_ns = wall - pass_start.wall_ns;
    record.allocations = data->allocations - pass_start.allocations;
    record.bytes = data->bytes - pass_start.bytes;
    record.receives = data->receives - pass_start.receives;
    record.end_ns = wall;
    __atomic_store_n(&data->passes, data->passes + 1, __ATOMIC_RELEASE);
}

void begin_pass()
{
    pass_start.allocations = data->allocations;
    pass_start.bytes = data->bytes;
    pass_start.receives = data->receives;
    pass_start.wall_ns = clock_ns(CLOCK_MONOTONIC);
    pass_start.cpu_ns = clock_ns(CLOCK_THREAD_CPUTIME_ID);
    pass_started = true;
}

}  // namespace

extern "C" {

int usleep(useconds_t usec)
{
    bool pass_border = usec == pass_interval_us;
    if (pass_border)
        end_pass();
    timespec pause = {static_cast<time_t>(usec / 1000000), static_cast<long>(usec % 1000000) * 1000};
    int result = nanosleep(&pause, nullptr);
    int saved = errno;
    if (pass_border)
        begin_pass();
    errno = saved;
    return result;
}

#ifndef Q9_PROBE_PASSES_ONLY

ssize_t recv(int fd, void* buffer, size_t length, int flags)
{
    bump(data->receives);
    return syscall(SYS_recvfrom, fd, buffer, length, flags, nullptr, nullptr);
}

void* malloc(size_t size)
{
    count_allocation(size);
    return __libc_malloc(size);
}

void free(void* pointer)
{
    if (pointer != nullptr)
        count_live(-1);
    __libc_free(pointer);
}

void* calloc(size_t count, size_t size)
{
    count_allocation(count * size);
    return __libc_calloc(count, size);
}

void* realloc(void* pointer, size_t size)
{
    count_allocation(size, pointer == nullptr);
    // The C library frees the block on a size of 0.
    if (pointer != nullptr && size == 0)
        count_live(-1);
    return __libc_realloc(pointer, size);
}

void* memalign(size_t alignment, size_t size)
{
    count_allocation(size);
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size)
{
    count_allocation(size);
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** pointer, size_t alignment, size_t size)
{
    count_allocation(size);
    void* block = __libc_memalign(alignment, size);
    if (block == nullptr)
        return ENOMEM;
    *pointer = block;
    return 0;
}

void* valloc(size_t size)
{
    count_allocation(size);
    return __libc_memalign(static_cast<size_t>(sysconf(_SC_PAGESIZE)), size);
}

#endif

}  // extern "C"
