#include "extract/formats/zip_members.h"

#include <algorithm>

#include "extract/formats/words.h"
#include "extract/formats/zip_layout.h"
#include "text/canonical_text.h"

namespace tool {

namespace {

bool nextFile(ArchiveReader* reader) {
  while (reader->next()) {
    if (reader->regularFile()) return true;
  }
  return false;
}

}  // namespace

ZipMembers::ZipMembers(std::string_view zip, Document& document) : zip_(zip), document_(document) {
  ArchiveReader reader(zip_, ArchiveReader::Kind::kZip);
  while (reader.next()) {
    if (reader.hidesContent()) {
      document_.lostMember(reader.name(), Reason::kUnsupported, "no file, but with content");
    }
    if (!reader.regularFile()) continue;
    if (names_.size() >= document_.limits().members) throw NotInspected(Reason::kMemberLimit, "");
    document_.checkTime();
    names_.push_back(reader.name());
  }
  if (const auto layout = zipLayout(zip_)) {
    for (const std::string_view bytes : layout->unlisted) document_.member("", bytes);
  }
}

std::optional<size_t> ZipMembers::find(std::string_view name) const {
  const auto found = std::find(names_.begin(), names_.end(), name);
  if (found == names_.end()) return std::nullopt;
  return static_cast<size_t>(found - names_.begin());
}

void ZipMembers::moveTo(size_t index) {
  if (!reader_ || index < position_) {
    reader_.emplace(zip_, ArchiveReader::Kind::kZip);
    position_ = 0;
  }
  do {
    document_.checkTime();
    if (!nextFile(&*reader_)) throw NotInspected(Reason::kDamaged, "");
  } while (position_++ < index);
}

bool ZipMembers::isDisguised(size_t index, bool markup) {
  constexpr size_t kLookedAt = 4096;
  moveTo(index);
  const std::string beginning = reader_->readBeginning(kLookedAt);
  if (!mayHide(beginning)) return false;
  static constexpr std::string_view kOthers[] = {"PK",  "%PDF-",    "Rar!",       "7z\xbc\xaf",
                                                 "BZh", "\x1f\x8b", "\xfd\x37zXZ"};
  const auto is = [&](std::string_view other) { return beginning.starts_with(other); };
  if (std::any_of(std::begin(kOthers), std::end(kOthers), is)) return true;
  if (!hasWords(beginning) || !decodeText(beginning, {})) return markup;
  return !markup || beginning.find_first_of("<{") == std::string::npos;
}

std::string ZipMembers::read(size_t index) {
  moveTo(index);
  std::string content = reader_->read(document_);
  document_.countExpanded(content.size());
  return content;
}

std::optional<std::string> ZipMembers::read(std::string_view name) {
  const auto index = find(name);
  if (!index) return std::nullopt;
  return read(*index);
}

}  // namespace tool
