#include "extract/formats/zip_directory.h"

#include "extract/formats/archive_reader.h"

namespace tool {

namespace {

constexpr size_t kEntriesLookedAt = 1000;
constexpr size_t kMimetypeBytes = 100;

}  // namespace

ZipDirectory zipDirectory(std::string_view content) {
  ZipDirectory directory;
  try {
    ArchiveReader reader(content, ArchiveReader::Kind::kZip);
    for (size_t count = 0; count < kEntriesLookedAt && reader.next(); ++count) {
      const std::string name = reader.name();
      if (name == "mimetype") directory.mimetype = reader.readBeginning(kMimetypeBytes);
      if (name == "[Content_Types].xml") directory.has_content_types = true;
      const size_t slash = name.find('/');
      if (slash != std::string::npos) directory.top_directories.insert(name.substr(0, slash));
    }
  } catch (const NotInspected&) {
    // Whoever opens it will say so.
  }
  while (!directory.mimetype.empty() && directory.mimetype.back() <= ' ') {
    directory.mimetype.pop_back();
  }
  return directory;
}

}  // namespace tool
