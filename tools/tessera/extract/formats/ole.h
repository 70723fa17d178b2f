// The streams of an OLE compound file, which all old Office documents are: a file system
// of its own, with sectors in chains. Chains may be cut off or lead in circles.
// Tests: tests/tool/formats_test.cpp; fuzz/extract_office.cpp.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

class OleFile {
 public:
  // `content` outlives this. Throws NotInspected when it is no such file.
  explicit OleFile(std::string_view content);

  // Whether there is such a stream or storage at the top.
  bool has(std::string_view name) const { return find(name) != nullptr; }

  // Names of the storages at the top in which Word and Excel keep embedded objects.
  std::vector<std::string> embedded() const;

  // The first `most` bytes of a stream at the top, or what is there of them.
  std::optional<std::string> stream(std::string_view name, size_t most) const;

 private:
  struct Entry {
    std::string name;  // ASCII, which all names looked for are; others have "?" in it
    uint32_t left, right, child;
    uint32_t start;
    uint64_t size;
  };

  std::string_view sector(uint32_t number) const;  // empty when it is not there
  std::string chain(uint32_t start, uint64_t most) const;
  std::string miniChain(uint32_t start, uint64_t most) const;
  void readTable();
  void readEntries();
  std::vector<const Entry*> entriesAtTop() const;
  const Entry* find(std::string_view name) const;

  const std::string_view content_;
  size_t sector_bytes_ = 0;
  std::vector<uint32_t> next_;       // sector after a sector
  std::vector<uint32_t> mini_next_;  // the same in the stream of small streams
  std::string mini_stream_;
  std::vector<Entry> entries_;
};

}  // namespace tool
