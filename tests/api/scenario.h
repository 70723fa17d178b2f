// The life of an index, and lists of signatures, made from a seed: the same
// calls with the same arguments on every platform and in every version. The
// exchange between platforms and the golden files compare what becomes of them.
// Everything works in the current directory through the exports; a call that
// does not return what it must throws std::runtime_error.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace scenario {

// Signature lists of texts on both platforms and of binary contents, by name.
std::map<std::string, std::string> signatureLists(uint64_t seed);

// Writes the configuration file and makes an index in three sessions: documents
// that share signatures, with file IDs from the lowest to the highest; then
// deletions, additions under old and new file IDs; then nothing.
void createIndex(uint64_t seed);

// One more session on that index: it loses half of its documents and gets some.
void growIndex(uint64_t seed);

// The answers to a number of queries, a line each.
std::vector<std::string> matchIndex(uint64_t seed);

}  // namespace scenario
