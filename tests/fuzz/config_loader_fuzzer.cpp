// Feeds arbitrary bytes to the configuration loader through a real file and
// checks what it leaves behind: every kept entry is valid and filed under its
// own name, and a load that fails adds nothing.
#include "configuration_in_memory.h"

#include <cstdint>

using configuration_in_memory::check;

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    configuration_in_memory::open("q9_config_loader_fuzzer");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    configuration_in_memory::write(data, size);
    configuration.clear();
    bool loaded = load_configuration();
    check(loaded || configuration.empty(), "a failed load adds nothing");
    for (const auto& [name, entry] : configuration) {
        check(entry.name == name, "entry filed under its own name");
        check(entry.is_valid(), "only valid entries are kept");
    }
    return 0;
}
