#include "text.h"

namespace q9test {

int count_of(const std::string& haystack, const std::string& needle)
{
    int count = 0;
    for (size_t at = haystack.find(needle); at != std::string::npos;
         at = haystack.find(needle, at + needle.size()))
        ++count;
    return count;
}

}  // namespace q9test
