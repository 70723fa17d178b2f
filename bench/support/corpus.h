// What the benchmarks read: texts and programs that every Debian system has.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace corpus {

// English texts: the documentation below /usr/share, decompressed, in the order of
// their paths, without the shortest ones and each only once. Read at the first
// call; a system without any ends the program.
const std::vector<std::string>& texts();

// `bytes` of them, one after the other and from the beginning again when they are
// too few.
std::string english(size_t bytes);

// `bytes` of shared libraries, in the same way.
std::string binary(size_t bytes);

}  // namespace corpus
