// Bytes found in the state file: whatever an operator's editor, a full disk
// or a stray program left there.  The reader must take any of them without
// reading outside the text, and the items it reads (names and owners),
// written again, must read back identical and well-formed.
#include "service/state_file_text.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    StateFileContents first = parse_state_file(std::string_view(reinterpret_cast<const char*>(data), size));
    StateFileContents again = parse_state_file(format_state_file(first.items));
    if (again.items != first.items || again.first_bad_line != 0)
        abort();
    return 0;
}
