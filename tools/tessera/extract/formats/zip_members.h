// The members of a zip archive by name, for the formats that are one inside: DOCX, ODT,
// EPUB. What is read here becomes no member of the document by itself.
// Tests: tests/tool/extraction_test.cpp.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "extract/extraction.h"
#include "extract/formats/archive_reader.h"

namespace tool {

class ZipMembers {
 public:
  // Lists the regular files of `zip`, which outlives this. Throws NotInspected: damaged,
  // or too many.
  ZipMembers(std::string_view zip, Document& document);

  // In the order of their content. Two may have the same name.
  const std::vector<std::string>& names() const { return names_; }

  // The first of that name.
  std::optional<size_t> find(std::string_view name) const;

  // Content of names()[index]; counted against the limits. Cheapest in the order of
  // names(). Throws NotInspected: encrypted, damaged, a limit.
  std::string read(size_t index);

  // Whether names()[index] is something else than its name says it is: `markup` when it
  // should be XML or the like, else a picture, a font, a record of settings. Looks at
  // the beginning only.
  bool isDisguised(size_t index, bool markup);

  // The same for a name; nothing when there is none.
  std::optional<std::string> read(std::string_view name);

 private:
  void moveTo(size_t index);

  const std::string_view zip_;
  Document& document_;
  std::vector<std::string> names_;
  std::optional<ArchiveReader> reader_;
  size_t position_ = 0;  // of the entry that the reader comes to next
};

}  // namespace tool
