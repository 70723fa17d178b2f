#include "extract/formats/archive.h"

#include <string>

#include "extract/formats/archive_reader.h"
#include "extract/formats/zip_layout.h"

namespace tool {

namespace {

// The name of a compressed file without the suffixes of its compressions.
std::string uncompressedName(std::string_view name, int compressions) {
  for (; compressions > 0; --compressions) {
    const size_t dot = name.rfind('.');
    if (dot == std::string_view::npos || dot == 0) break;
    name = name.substr(0, dot);
  }
  return std::string(name);
}

std::string entryName(const ArchiveReader& reader, const Document& document) {
  if (reader.singleFile()) return uncompressedName(document.baseName(), reader.compressions());
  std::string name = reader.name();
  if (name.starts_with("./")) name.erase(0, 2);
  return name;
}

// Ends more than the entry over which it was found out.
bool endsArchive(Reason reason) {
  return reason == Reason::kTimeLimit || reason == Reason::kMemberLimit;
}

// What stands behind the end of compressed data, where nobody looks.
void openRest(const ArchiveReader& reader, Document& document) {
  std::string_view rest = reader.rest();
  if (!mayHide(rest)) return;
  rest.remove_prefix(rest.find_first_not_of('\0'));
  document.member("", rest);
}

// Returns the number of entries, read or not.
size_t parseArchive(std::string_view content, ArchiveReader::Kind kind, Document& document) {
  ArchiveReader reader(content, kind);
  size_t entries = 0;
  for (; reader.next(); ++entries) {
    document.checkTime();
    const std::string name = entryName(reader, document);
    if (reader.hidesContent()) {
      document.lostMember(name, Reason::kUnsupported, "no file, but with content");
    }
    if (!reader.regularFile()) continue;
    std::string member;
    try {
      member = reader.read(document);
    } catch (const NotInspected& failure) {
      if (endsArchive(failure.reason)) throw;
      document.lostMember(name, failure.reason, failure.what());
      if (!reader.singleFile()) reader.skip(document);
      continue;
    }
    document.member(name, member);
  }
  if (kind == ArchiveReader::Kind::kTarOrCompressed && entries > 0) openRest(reader, document);
  return entries;
}

}  // namespace

void parseZip(std::string_view content, Document& document) {
  parseArchive(content, ArchiveReader::Kind::kZip, document);
  if (const auto layout = zipLayout(content)) {
    for (const std::string_view bytes : layout->unlisted) document.member("", bytes);
  }
}

void parseSevenZip(std::string_view content, Document& document) {
  parseArchive(content, ArchiveReader::Kind::kSevenZip, document);
}

void parseTarOrCompressed(std::string_view content, Document& document) {
  // A file that begins with zeros is an empty tar to whoever looks for one.
  if (parseArchive(content, ArchiveReader::Kind::kTarOrCompressed, document) == 0) {
    parseArchive(content, ArchiveReader::Kind::kCompressed, document);
  }
}

}  // namespace tool
