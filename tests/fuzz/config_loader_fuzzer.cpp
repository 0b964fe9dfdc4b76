// Feeds arbitrary bytes to the configuration loader through a real file and
// checks what it leaves behind: every kept entry is valid and filed under its
// own name, and a load that fails adds nothing.
#include "config/configuration.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

namespace {

int file_fd = -1;
FILE* findings = stderr;

void check(bool condition, const char* what)
{
    if (!condition) {
        fprintf(findings, "broken: %s\n", what);
        abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // The file lives in memory and vanishes with the process; the loader
    // reaches it through its /proc link.
    file_fd = memfd_create("q9_config_loader_fuzzer", 0);
    check(file_fd >= 0, "memory file");
    configuration_path = "/proc/self/fd/" + std::to_string(file_fd);
    // The loader reports every section on stderr; send that nowhere.  The
    // fuzzer, the sanitizers and check() keep the real stderr.
    findings = stderr;
    stderr = fopen("/dev/null", "w");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    check(ftruncate(file_fd, 0) == 0, "memory file emptied");
    check(pwrite(file_fd, data, size, 0) == static_cast<ssize_t>(size), "memory file written");
    configuration.clear();
    bool loaded = load_configuration();
    check(loaded || configuration.empty(), "a failed load adds nothing");
    for (const auto& [name, entry] : configuration) {
        check(entry.name == name, "entry filed under its own name");
        check(entry.is_valid(), "only valid entries are kept");
    }
    return 0;
}
