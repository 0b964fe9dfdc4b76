// Counting what a program wrote.
#pragma once

#include <string>

namespace q9test {

/// Number of non-overlapping occurrences of `needle` in `haystack`.
int count_of(const std::string& haystack, const std::string& needle);

}  // namespace q9test
