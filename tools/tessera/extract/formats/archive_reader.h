// Walks through an archive in memory, by libarchive. Everything in an archive is
// hostile: claimed sizes are refused when they are too large and not believed when they
// are small, and what is expanded is held to the limits while it grows.
// Tests: tests/tool/extraction_test.cpp.
#pragma once

#include <archive.h>

#include <memory>
#include <string>
#include <string_view>

#include "extract/extraction.h"

namespace tool {

class ArchiveReader {
 public:
  enum class Kind {
    kZip,
    kSevenZip,
    kTarOrCompressed,  // a tar, compressed or not, or one compressed file
    kCompressed,       // one compressed file, even if it looks like a tar
  };

  // `content` outlives the reader.
  ArchiveReader(std::string_view content, Kind kind);

  // On to the next entry, the first to begin with; false at the end. Throws
  // NotInspected when the archive cannot be read any further.
  bool next();

  std::string name() const;  // "" when it has none
  bool regularFile() const;  // else a directory, a link, a device

  // Whether it is none but says that it has content. Nothing here gets at that, but
  // many unpackers know nothing of devices, say, and make a file of it.
  bool hidesContent() const;

  // A compressed file that is no archive, whose one entry bears no name of its own.
  bool singleFile() const;
  int compressions() const;  // wrapped around each other: 1 for a.tar.gz

  // The content of the entry. Throws NotInspected when it is encrypted, damaged or
  // beyond a limit; next() may go on all the same.
  std::string read(const Document& document);

  // At most `bytes` of it.
  std::string readBeginning(size_t bytes);

  // What of the content stands behind all that was read.
  std::string_view rest() const;

  // Gets past an entry that is not read. What cannot be skipped without expanding it
  // is held to the ratio limit.
  void skip(const Document& document);

 private:
  struct Closer {
    void operator()(archive* reader) const { archive_read_free(reader); }
  };

  [[noreturn]] void fail(Reason reason) const;
  void noteFailure(la_ssize_t result);
  uint64_t consumed() const;  // compressed bytes of this entry so far

  const std::string_view content_;
  const std::unique_ptr<archive, Closer> archive_;
  archive_entry* entry_ = nullptr;
  uint64_t entry_start_ = 0;
  bool broken_ = false;  // cannot be expanded any further
};

}  // namespace tool
