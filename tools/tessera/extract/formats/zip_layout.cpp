#include "extract/formats/zip_layout.h"

#include <algorithm>
#include <cstdint>

namespace tool {

namespace {

using namespace std::string_view_literals;

constexpr size_t kEndBytes = 22;

struct Directory {
  uint64_t start = 0;  // where it lies
  uint64_t end = 0;
  uint64_t file_end = 0;  // behind the record that ends the archive
  uint64_t shift = 0;     // what offsets in it are too small by
};

struct Span {
  uint64_t begin;
  uint64_t end;
};

// Little-endian; 0 beyond the end.
uint64_t number(std::string_view bytes, uint64_t at, size_t length) {
  if (at > bytes.size() || length > bytes.size() - at) return 0;
  uint64_t value = 0;
  for (size_t i = length; i > 0; --i) {
    value = value << 8 | static_cast<unsigned char>(bytes[at + i - 1]);
  }
  return value;
}

bool isAt(std::string_view bytes, uint64_t at, std::string_view mark) {
  return at <= bytes.size() && bytes.substr(at, mark.size()) == mark;
}

std::optional<Directory> directoryOf(std::string_view content, uint64_t size, uint64_t offset,
                                     uint64_t end, uint64_t file_end) {
  if (size > end || offset > end - size) return std::nullopt;
  const uint64_t start = end - size;
  if (size > 0 && !isAt(content, start, "PK\1\2"sv)) return std::nullopt;
  return Directory{start, end, file_end, start - offset};
}

// With the record that ends an archive at `at`.
std::optional<Directory> directoryBefore(std::string_view content, uint64_t at) {
  constexpr uint64_t kLocatorBytes = 20;
  if (content.size() - at < kEndBytes) return std::nullopt;
  const uint64_t file_end = at + kEndBytes;
  const bool in_one_file =
      number(content, at + 4, 4) == 0 && number(content, at + 8, 2) == number(content, at + 10, 2);
  if (in_one_file) {
    const auto found = directoryOf(content, number(content, at + 12, 4),
                                   number(content, at + 16, 4), at, file_end);
    if (found) return found;
  }
  // With numbers of 64 bits, in a record of their own.
  if (at < kLocatorBytes || !isAt(content, at - kLocatorBytes, "PK\6\7"sv)) return std::nullopt;
  const uint64_t record = number(content, at - kLocatorBytes + 8, 8);
  if (!isAt(content, record, "PK\6\6"sv)) return std::nullopt;
  return directoryOf(content, number(content, record + 40, 8), number(content, record + 48, 8),
                     record, file_end);
}

// The last one. Marks that end nothing are passed over, but not without end.
std::optional<Directory> lastDirectory(std::string_view content) {
  constexpr int kTrials = 1000;
  size_t at = content.rfind("PK\5\6"sv);
  for (int i = 0; i < kTrials && at != std::string_view::npos; ++i) {
    if (const auto found = directoryBefore(content, at)) return found;
    if (at == 0) break;
    at = content.rfind("PK\5\6"sv, at - 1);
  }
  return std::nullopt;
}

// A number of the directory that did not fit into 32 bits stands behind it, after those
// before it that did not fit.
class Wide {
 public:
  explicit Wide(std::string_view extra) {
    for (uint64_t at = 0; at + 4 <= extra.size(); at += 4 + number(extra, at + 2, 2)) {
      if (number(extra, at, 2) != 1) continue;
      values_ = extra.substr(at + 4, number(extra, at + 2, 2));
      return;
    }
  }
  uint64_t or64(uint64_t value) {
    if (value != 0xffffffff || values_.size() < 8) return value;
    const uint64_t wide = number(values_, 0, 8);
    values_.remove_prefix(8);
    return wide;
  }

 private:
  std::string_view values_;
};

std::vector<Span> entriesOf(std::string_view content, const Directory& directory) {
  constexpr uint64_t kHeader = 46;
  constexpr uint64_t kLocalHeader = 30;
  std::vector<Span> entries;
  for (uint64_t at = directory.start;
       at + kHeader <= directory.end && isAt(content, at, "PK\1\2"sv);) {
    const uint64_t name = number(content, at + 28, 2);
    const uint64_t extra = number(content, at + 30, 2);
    Wide wide(content.substr(std::min<uint64_t>(at + kHeader + name, content.size()), extra));
    wide.or64(number(content, at + 24, 4));  // its size, expanded
    const uint64_t bytes = wide.or64(number(content, at + 20, 4));
    const uint64_t begin = wide.or64(number(content, at + 42, 4)) + directory.shift;
    at += kHeader + name + extra + number(content, at + 32, 2);
    if (begin > directory.start || !isAt(content, begin, "PK\3\4"sv)) continue;
    const uint64_t data =
        begin + kLocalHeader + number(content, begin + 26, 2) + number(content, begin + 28, 2);
    if (bytes > directory.start || data > directory.start - bytes) continue;
    entries.push_back({begin, data + bytes});
  }
  std::sort(entries.begin(), entries.end(),
            [](const Span& a, const Span& b) { return a.begin < b.begin; });
  return entries;
}

}  // namespace

bool mayHide(std::string_view bytes) {
  constexpr size_t kFew = 64;  // sizes behind an entry, what aligns the next
  return bytes.size() > kFew && bytes.find_first_not_of('\0') != std::string_view::npos;
}

std::optional<ZipLayout> zipLayout(std::string_view content) {
  const auto directory = lastDirectory(content);
  if (!directory) return std::nullopt;
  std::vector<Span> taken = entriesOf(content, *directory);
  ZipLayout layout;
  layout.archive = content.substr(0, directory->file_end);
  layout.start = taken.empty() ? directory->start : taken.front().begin;
  taken.push_back({directory->start, directory->file_end});
  taken.push_back({content.size(), content.size()});
  uint64_t end = 0;
  for (const Span& span : taken) {
    if (span.begin > end) {
      const std::string_view between = content.substr(end, span.begin - end);
      if (mayHide(between)) layout.unlisted.push_back(between);
    }
    end = std::max(end, span.end);
  }
  return layout;
}

std::string_view appendedZip(std::string_view content) {
  const auto layout = zipLayout(content);
  if (!layout || !isAt(content, layout->start, "PK\3\4"sv)) return {};
  return content.substr(layout->start);
}

}  // namespace tool
