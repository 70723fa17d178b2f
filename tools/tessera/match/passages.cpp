#include "match/passages.h"

#include <algorithm>
#include <new>

#include "tessera_scan.h"

namespace tool {

namespace {

constexpr size_t kMostPassages = 10;
constexpr size_t kMostBytes = 500;  // of the text of a passage
constexpr size_t kContextBytes = 40;
constexpr uint64_t kLongGap = 200;  // windows are seldom farther apart

struct Range {
  uint64_t begin;
  uint64_t end;

  uint64_t length() const { return end - begin; }
};

// What is shared of the windows, in the order of the text.
std::vector<Range> sharedRanges(const std::vector<Window>& windows, const SignatureList& shared) {
  std::vector<Range> ranges;
  bool running = false;  // the last window was shared
  for (const Window& window : windows) {
    const bool before = running;
    running = std::binary_search(shared.begin(), shared.end(), window.signature);
    if (!running) continue;
    const bool overlaps = !ranges.empty() && window.begin <= ranges.back().end;
    if (overlaps || (before && window.begin - ranges.back().end < kLongGap)) {
      ranges.back().end = std::max(ranges.back().end, window.end);
    } else {
      ranges.push_back({window.begin, window.end});
    }
  }
  return ranges;
}

int collect(const tessera_window* window, void* context) {
  Window found = {window->begin, window->end, {}};
  std::copy_n(window->signature, found.signature.size(), found.signature.begin());
  try {
    static_cast<std::vector<Window>*>(context)->push_back(found);
  } catch (const std::bad_alloc&) {
    return 1;  // through C code no exception may pass
  }
  return 0;
}

// The library counts bytes; people and JSON want characters that are whole.
bool insideCharacter(std::string_view text, size_t position) {
  return position < text.size() && (static_cast<unsigned char>(text[position]) & 0xc0) == 0x80;
}

size_t characterBegin(std::string_view text, size_t position) {
  while (position > 0 && insideCharacter(text, position)) --position;
  return position;
}

size_t characterEnd(std::string_view text, size_t position) {
  while (insideCharacter(text, position)) ++position;
  return position;
}

Passage excerpt(std::string_view text, const Range& range) {
  Passage passage;
  passage.begin = characterBegin(text, range.begin);
  passage.end = characterEnd(text, range.end);
  const size_t cut = characterBegin(text, std::min(passage.end, passage.begin + kMostBytes));
  const size_t left = passage.begin - std::min<size_t>(passage.begin, kContextBytes);
  const size_t right = std::min(text.size(), passage.end + kContextBytes);
  const auto part = [&](size_t begin, size_t end) {
    return std::string(text.substr(begin, end - begin));
  };
  passage.before = part(characterEnd(text, left), passage.begin);
  passage.text = part(passage.begin, cut);
  passage.after = part(passage.end, characterBegin(text, right));
  return passage;
}

}  // namespace

std::vector<Window> findWindows(std::string_view text) {
  std::vector<Window> windows;
  const int outcome = tessera_scan_text(text.data(), text.size(), collect, &windows);
  if (outcome != TESSERA_SCAN_DONE) throw std::bad_alloc();
  return windows;
}

Passages findPassages(std::string_view text, const std::vector<Window>& windows,
                      const SignatureList& shared) {
  std::vector<Range> ranges = sharedRanges(windows, shared);
  Passages passages;
  passages.count = ranges.size();
  for (const Range& range : ranges) passages.bytes += range.length();
  if (ranges.size() > kMostPassages) {
    std::stable_sort(ranges.begin(), ranges.end(),
                     [](const Range& a, const Range& b) { return a.length() > b.length(); });
    ranges.resize(kMostPassages);
    std::sort(ranges.begin(), ranges.end(),
              [](const Range& a, const Range& b) { return a.begin < b.begin; });
  }
  for (const Range& range : ranges) passages.shown.push_back(excerpt(text, range));
  return passages;
}

}  // namespace tool
