#include "extract/formats/ole.h"

#include <algorithm>

#include "extract/extraction.h"

namespace tool {
namespace {

constexpr std::string_view kMagic = "\xd0\xcf\x11\xe0\xa1\xb1\x1a\xe1";
constexpr size_t kHeaderBytes = 512;
constexpr size_t kEntryBytes = 128;
constexpr size_t kMiniSectorBytes = 64;
constexpr uint64_t kMiniStreamBelow = 4096;  // smaller streams stand in the mini stream
constexpr uint32_t kSectorsInHeader = 109;
constexpr uint32_t kLastSector = 0xfffffffa;  // greater numbers end a chain

uint32_t number16(std::string_view bytes, size_t at) {
  return static_cast<unsigned char>(bytes[at]) |
         static_cast<uint32_t>(static_cast<unsigned char>(bytes[at + 1])) << 8;
}

uint32_t number32(std::string_view bytes, size_t at) {
  return number16(bytes, at) | number16(bytes, at + 2) << 16;
}

void appendNumbers(std::string_view bytes, std::vector<uint32_t>* numbers) {
  for (size_t at = 0; at + 4 <= bytes.size(); at += 4) numbers->push_back(number32(bytes, at));
}

std::string entryName(std::string_view entry) {
  const size_t bytes = std::min<size_t>(number16(entry, 64), 64);
  std::string name;
  for (size_t at = 0; at + 2 < bytes; at += 2) {  // without the NUL at the end
    const uint32_t unit = number16(entry, at);
    name += unit < 0x80 ? static_cast<char>(unit) : '?';
  }
  return name;
}

}  // namespace

OleFile::OleFile(std::string_view content) : content_(content) {
  if (content.size() < kHeaderBytes || content.substr(0, kMagic.size()) != kMagic) {
    throw NotInspected(Reason::kDamaged, "no OLE file");
  }
  const uint32_t shift = number16(content, 30);
  if (shift != 9 && shift != 12) throw NotInspected(Reason::kDamaged, "an OLE file");
  sector_bytes_ = size_t{1} << shift;
  readTable();
  readEntries();
  if (entries_.empty()) throw NotInspected(Reason::kDamaged, "an OLE file without a directory");
  appendNumbers(chain(number32(content, 60), content.size()), &mini_next_);
  mini_stream_ = chain(entries_[0].start, entries_[0].size);
}

std::string_view OleFile::sector(uint32_t number) const {
  const uint64_t at = (uint64_t{number} + 1) * sector_bytes_;
  return at < content_.size() ? content_.substr(at, sector_bytes_) : std::string_view();
}

// The table of chains is in sectors, too: the first are listed in the header, others in
// a chain of lists.
void OleFile::readTable() {
  std::vector<uint32_t> places;
  appendNumbers(content_.substr(76, 4 * kSectorsInHeader), &places);
  const size_t sectors = content_.size() / sector_bytes_ + 1;
  uint32_t list = number32(content_, 68);
  for (size_t i = 0; i < sectors && list < kLastSector; ++i) {
    const std::string_view bytes = sector(list);
    if (bytes.size() < sector_bytes_) break;
    appendNumbers(bytes, &places);
    list = places.back();
    places.pop_back();
  }
  for (const uint32_t place : places) {
    if (next_.size() >= sectors) break;
    if (place < kLastSector) appendNumbers(sector(place), &next_);
  }
}

std::string OleFile::chain(uint32_t start, uint64_t most) const {
  std::string bytes;
  uint32_t at = start;
  for (size_t steps = 0; at < next_.size() && steps < next_.size() && bytes.size() < most;
       ++steps) {
    bytes += sector(at);
    at = next_[at];
  }
  bytes.resize(std::min<uint64_t>(bytes.size(), most));
  return bytes;
}

std::string OleFile::miniChain(uint32_t start, uint64_t most) const {
  std::string bytes;
  uint32_t at = start;
  for (size_t steps = 0; at < mini_next_.size() && bytes.size() < most; ++steps) {
    const size_t place = size_t{at} * kMiniSectorBytes;
    if (steps == mini_next_.size() || place >= mini_stream_.size()) break;
    bytes.append(mini_stream_, place, kMiniSectorBytes);
    at = mini_next_[at];
  }
  bytes.resize(std::min<uint64_t>(bytes.size(), most));
  return bytes;
}

void OleFile::readEntries() {
  const std::string directory = chain(number32(content_, 48), content_.size());
  for (size_t at = 0; at + kEntryBytes <= directory.size(); at += kEntryBytes) {
    const std::string_view entry = std::string_view(directory).substr(at, kEntryBytes);
    entries_.push_back({entryName(entry), number32(entry, 68), number32(entry, 72),
                        number32(entry, 76), number32(entry, 116), number32(entry, 120)});
  }
}

// The entries of a storage form a tree, whose order is not relied upon.
std::vector<const OleFile::Entry*> OleFile::entriesAtTop() const {
  std::vector<const Entry*> entries;
  std::vector<bool> seen(entries_.size());
  std::vector<uint32_t> open = {entries_[0].child};
  while (!open.empty()) {
    const uint32_t index = open.back();
    open.pop_back();
    if (index >= entries_.size() || seen[index]) continue;
    seen[index] = true;
    const Entry& entry = entries_[index];
    entries.push_back(&entry);
    open.push_back(entry.left);
    open.push_back(entry.right);
  }
  return entries;
}

const OleFile::Entry* OleFile::find(std::string_view name) const {
  const std::vector<const Entry*> entries = entriesAtTop();
  const auto found = std::find_if(entries.begin(), entries.end(),
                                  [&](const Entry* entry) { return entry->name == name; });
  return found == entries.end() ? nullptr : *found;
}

std::vector<std::string> OleFile::embedded() const {
  std::vector<std::string> names;
  for (const Entry* const entry : entriesAtTop()) {
    const bool holds_something = entry->child < entries_.size();
    const bool is_store = entry->name == "ObjectPool" || entry->name.starts_with("MBD");
    if (is_store && holds_something) names.push_back(entry->name);
  }
  return names;
}

std::optional<std::string> OleFile::stream(std::string_view name, size_t most) const {
  const Entry* const entry = find(name);
  if (entry == nullptr) return std::nullopt;
  const uint64_t bytes = std::min<uint64_t>(most, entry->size);
  return entry->size < kMiniStreamBelow ? miniChain(entry->start, bytes)
                                        : chain(entry->start, bytes);
}

}  // namespace tool
