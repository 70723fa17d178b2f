// Texts that look like written ones: words of a small vocabulary in sentences
// and paragraphs, the same from the same seed on every platform.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// `count` paragraphs of about 600 bytes each, without line ends. No two
// paragraphs of any seed share a passage long enough for a signature, but for
// a rare accident.
std::vector<std::string> paragraphs(size_t count, uint64_t seed);

// The paragraphs [first, last), each followed by an empty line.
std::string joined(const std::vector<std::string>& paragraphs, size_t first, size_t last);
std::string joined(const std::vector<std::string>& paragraphs);
