// Finding and reading the files to be indexed or matched.
//
// A document is a file of plain text, gzip-compressed or not; it is the
// decompressed content that counts. Names are taken as bytes: a file name that
// is not UTF-8 is a name like any other. Tests: tests/tool/index_test.py.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

namespace tool {

struct FoundFiles {
  std::vector<std::filesystem::path> files;  // absolute, links resolved, sorted, each once
  std::vector<std::string> problems;         // messages for the user
};

// The regular files at and below `paths`. Links are followed when they are
// named in `paths`, not when they turn up below a directory; nothing below
// `excluded`, an absolute path, is looked at.
FoundFiles findFiles(const std::vector<std::string>& paths, const std::filesystem::path& excluded);

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
