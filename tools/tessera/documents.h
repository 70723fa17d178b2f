// Reading the files to be matched.
//
// A document is a file of plain text, gzip-compressed or not; it is the
// decompressed content that counts. Names are taken as bytes: a file name that
// is not UTF-8 is a name like any other. Tests: tests/tool/index_test.py.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>

namespace tool {

enum class ReadOutcome {
  kText,
  kNotText,  // a NUL byte among the first bytes
  kUnreadable,
};

// More of a document is not looked at. Generation takes at most 75 MiB of the
// letters and digits of a text, so nothing is lost that could have counted.
inline constexpr size_t kMaxDocumentBytes = size_t{256} << 20;

// Reads the whole file at `path`. For kText *content holds its decompressed
// bytes; for kUnreadable *reason holds a message.
ReadOutcome readDocument(const std::filesystem::path& path, std::string* content,
                         std::string* reason);

}  // namespace tool
