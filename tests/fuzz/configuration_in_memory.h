// The configuration file of a fuzz target that goes through the real
// loader: a file in memory, which vanishes with the process, reached by the
// loader through its /proc link.  The loader reports on stderr; that goes
// nowhere, while the fuzzer, the sanitizers and check() keep the real one.
#pragma once

#include "config/configuration.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

namespace configuration_in_memory {

inline int file_fd = -1;
inline FILE* findings = stderr;

/// Ends the run with `what` on the real stderr unless `condition` holds.
inline void check(bool condition, const char* what)
{
    if (!condition) {
        fprintf(findings, "broken: %s\n", what);
        abort();
    }
}

/// Makes a memory file named `name` the configuration file and silences
/// the loader; once, from LLVMFuzzerInitialize.
inline void open(const char* name)
{
    file_fd = memfd_create(name, 0);
    check(file_fd >= 0, "memory file");
    configuration_path = "/proc/self/fd/" + std::to_string(file_fd);
    findings = stderr;
    stderr = fopen("/dev/null", "w");
}

/// Makes `size` bytes at `data` the whole configuration file.
inline void write(const void* data, size_t size)
{
    check(ftruncate(file_fd, 0) == 0, "memory file emptied");
    check(pwrite(file_fd, data, size, 0) == static_cast<ssize_t>(size), "memory file written");
}

}  // namespace configuration_in_memory
