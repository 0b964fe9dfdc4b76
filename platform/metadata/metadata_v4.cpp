#include "metadata_v4.h"

#include <cstring>

int metadata_v4_file_to_metadir(char* out, unsigned long capacity, const char* path)
{
    if (out == nullptr || capacity == 0)
        return -1;
    size_t length = path != nullptr ? std::strlen(path) : 0;
    if (path == nullptr || length >= capacity) {
        out[0] = '\0';
        return -1;
    }
    std::memcpy(out, path, length + 1);
    return 0;
}
