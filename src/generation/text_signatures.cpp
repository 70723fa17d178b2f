#include "text_signatures.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

#include "fpeSignatureGenerator.h"
#include "scoped.h"
#include "status.h"

namespace {

// A buffer with less room than this is full, and not filled up in ever shorter runs.
constexpr size_t kLeastRun = kPieceBytes / 8;

// Pieces of text end where a server piece ends.
constexpr size_t kUnit = DLP_PIECE_SIZE;

constexpr size_t kWindowRest = DLP_SLIDE_WINDOW - 1;
constexpr size_t kBufferBytes = kPieceBytes + kUnit + kWindowRest;

// ---- Text, piece by piece ----

class TextScanner {
 public:
  TextScanner(const TextKernel& kernel, const unsigned char* text, int length)
      : kernel_(kernel),
        text_(text),
        length_(static_cast<size_t>(length)),
        limit_(static_cast<size_t>(std::max(maxContentSize(), 0))),
        capacity_(std::min(length_, kBufferBytes)) {}

  bool allocate() {
    const size_t selected_words = (capacity_ + kSelectedSlack) / 64 + 1;
    const size_t buffer_words = (capacity_ + std::max(kTextSlack, kKeptSlack)) / 8 + 1;
    memory_ = mallocArray<uint64_t>(selected_words + buffer_words);
    if (!memory_) return false;
    selected_ = memory_.get();
    buffer_ = reinterpret_cast<unsigned char*>(selected_ + selected_words);
    return true;
  }

  // Goes on to the next piece. False: there is no window any more.
  bool next() {
    fill();
    windows_ = filled_ > kWindowRest ? filled_ - kWindowRest : 0;
    if (!ended_) windows_ -= windows_ % kUnit;
    if (windows_ == 0) return false;
    std::memset(buffer_ + filled_, 0, kTextSlack);
    kernel_.select(buffer_, windows_, selected_);
    // No window is selected from here to the next multiple of 64.
    selected_[windows_ / 64] &= (uint64_t{1} << windows_ % 64) - 1;
    scanned_ = windows_;
    return true;
  }

  // The piece: bit i % 64 of selected()[i / 64] tells of the window at text() + i.
  const unsigned char* text() const { return buffer_; }
  size_t windows() const { return windows_; }
  const uint64_t* selected() const { return selected_; }

  // Normalised bytes up to the end of the piece.
  size_t kept() const { return kept_; }

  // Normalised bytes of the whole text; only to be followed by nothing.
  size_t keptToTheEnd() {
    while (!ended_) {
      scanned_ = filled_;
      fill();
    }
    return kept_;
  }

 private:
  // Fills the buffer behind what is not scanned yet.
  void fill() {
    filled_ -= scanned_;
    std::memmove(buffer_, buffer_ + scanned_, filled_);
    scanned_ = 0;
    ended_ = ended_ || kept_ == limit_;
    while (!ended_ && (filled_ == 0 || capacity_ - filled_ >= kLeastRun)) {
      const size_t run = std::min(length_ - position_, capacity_ - filled_);
      const size_t kept = kernel_.normalise(text_ + position_, run, buffer_ + filled_);
      const size_t taken = std::min(kept, limit_ - kept_);
      position_ += run;
      filled_ += taken;
      kept_ += taken;
      ended_ = position_ == length_ || kept_ == limit_;
    }
  }

  const TextKernel& kernel_;
  const unsigned char* const text_;
  const size_t length_;
  const size_t limit_;
  const size_t capacity_;
  MallocArray<uint64_t> memory_;  // of the next two
  uint64_t* selected_ = nullptr;
  unsigned char* buffer_ = nullptr;
  size_t position_ = 0;  // in the text
  size_t kept_ = 0;      // bytes of it, normalised, up to there
  size_t filled_ = 0;    // of these in the buffer
  size_t scanned_ = 0;   // and of these with a window that is scanned
  size_t windows_ = 0;
  bool ended_ = false;
};

// ---- A window's signature ----

// The eight sums of a window's bytes, as a number whose highest byte is the first
// sum: their order as numbers is that of the signatures.
uint64_t foldToNumber(const unsigned char* window) {
  constexpr uint64_t kEven = 0x00FF00FF00FF00FF;
  // The last five bytes, of a word that begins in the window, too.
  uint64_t word = loadWord(window + DLP_SLIDE_WINDOW - 8) >> 24;
  uint64_t even = word & kEven;  // sums of 16 bits, which do not run over
  uint64_t odd = word >> 8 & kEven;
  for (int i = 0; i < DLP_SLIDE_WINDOW / 8; ++i) {
    word = loadWord(window + 8 * i);
    even += word & kEven;
    odd += word >> 8 & kEven;
  }
  return __builtin_bswap64((even & kEven) | (odd & kEven) << 8);
}

// ---- Order ----

// Moves the numbers to `sorted` in the order of the kBits bits from kShift on; those
// with equal ones stay in their order.
template <int kShift, int kBits>
void distribute(const uint64_t* numbers, size_t length, uint64_t* sorted) {
  constexpr uint32_t kBuckets = 1u << kBits;
  const auto bucket = [](uint64_t number) { return number >> kShift & (kBuckets - 1); };
  uint32_t places[kBuckets] = {};
  for (size_t i = 0; i < length; ++i) ++places[bucket(numbers[i])];
  uint32_t begin = 0;
  for (uint32_t& place : places) begin += std::exchange(place, begin);
  for (size_t i = 0; i < length; ++i) sorted[places[bucket(numbers[i])]++] = numbers[i];
}

// Sorts numbers that are almost in order. Gives up, and returns false, when they are
// not.
bool insertionSort(uint64_t* numbers, size_t length) {
  size_t moves_left = 64 + 8 * length;
  for (size_t i = 1; i < length; ++i) {
    const uint64_t number = numbers[i];
    size_t place = i;
    for (; place > 0 && numbers[place - 1] > number; --place) numbers[place] = numbers[place - 1];
    numbers[place] = number;
    if (i - place > moves_left) return false;
    moves_left -= i - place;
  }
  return true;
}

// Leaves the numbers in ascending order; `other` has room for as many. Their highest
// bits almost do it: six bits of a few numbers, two bytes of many.
void sortNumbers(uint64_t* numbers, size_t length, uint64_t* other) {
  constexpr size_t kFew = 64;
  if (length <= kFew) {
    distribute<58, 6>(numbers, length, other);
    std::copy_n(other, length, numbers);
  } else {
    distribute<48, 8>(numbers, length, other);
    distribute<56, 8>(other, length, numbers);
  }
  if (!insertionSort(numbers, length)) std::sort(numbers, numbers + length);
}

// Hands out the signatures in ascending order, each once. No list is handed out for
// no signatures.
int handOut(uint64_t* numbers, size_t length, Signature** signatures, int* count) {
  if (length == 0) return kOk;
  MallocArray<uint64_t> block = mallocArray<uint64_t>(length);
  if (!block) return kErrMem;
  sortNumbers(numbers, length, block.get());
  auto* const list = reinterpret_cast<Signature*>(block.release());
  size_t distinct = 0;
  for (size_t i = 0; i < length; ++i) {
    if (i > 0 && numbers[i] == numbers[i - 1]) continue;
    list[distinct++] = signatureOf(numbers[i]);
  }
  *signatures = list;
  *count = static_cast<int>(distinct);
  return kOk;
}

// ---- Selection ----

// Leaves the places of the selected ones of `windows` windows in `places` and returns
// how many they are. There are seldom more than two in 64, so two are written whether
// they are there or not, and no branch depends on them; `places` has room for two more.
size_t listSelected(const uint64_t* selected, size_t windows, uint32_t* places) {
  size_t count = 0;
  for (size_t first = 0; first < windows; first += 64) {
    uint64_t bits = selected[first / 64];
    const auto base = static_cast<uint32_t>(first);
    for (int i = 0; i < 2; ++i) {
      places[count] = base + static_cast<uint32_t>(std::countr_zero(bits));
      count += bits != 0 ? 1 : 0;
      bits &= bits - 1;
    }
    for (; bits != 0; bits &= bits - 1) {
      places[count++] = base + static_cast<uint32_t>(std::countr_zero(bits));
    }
  }
  return count;
}

// The signatures of a document, as numbers in the order of their windows.
class Numbers {
 public:
  // Makes room for `more` behind those there are. False: memory is out.
  bool reserve(size_t more) {
    if (length_ + more <= room_) return true;
    const size_t room = std::max(2 * room_, length_ + more);
    MallocArray<uint64_t> numbers = mallocArray<uint64_t>(room);
    if (!numbers) return false;
    std::copy_n(numbers_.get(), length_, numbers.get());
    numbers_ = std::move(numbers);
    room_ = room;
    return true;
  }
  void add(uint64_t number) { numbers_[length_++] = number; }

  uint64_t* get() const { return numbers_.get(); }
  size_t length() const { return length_; }

 private:
  MallocArray<uint64_t> numbers_;
  size_t room_ = 0;
  size_t length_ = 0;
};

// Adds the signatures of the piece's selected windows until there are
// kClientWindows. False: memory is out.
bool foldAll(const TextScanner& piece, Numbers* numbers) {
  uint32_t places[kUnit + 2];
  for (size_t first = 0; first < piece.windows(); first += kUnit) {
    const unsigned char* const text = piece.text() + first;
    const size_t windows = std::min(kUnit, piece.windows() - first);
    const size_t found = listSelected(piece.selected() + first / 64, windows, places);
    const size_t taken = std::min(found, kClientWindows - numbers->length());
    if (!numbers->reserve(taken)) return false;
    for (size_t i = 0; i < taken; ++i) numbers->add(foldToNumber(text + places[i]));
  }
  return true;
}

int signForClient(TextScanner* scanner, Numbers* numbers, int* normalized_length) {
  while (numbers->length() < kClientWindows && scanner->next()) {
    if (!foldAll(*scanner, numbers)) return kErrMem;
  }
  if (normalized_length != nullptr) {
    *normalized_length = static_cast<int>(scanner->keptToTheEnd());
  }
  return kOk;
}

// The place of the set bit number `index`, counted from 0, in an array of words.
size_t placeOfBit(const uint64_t* words, uint32_t index) {
  size_t word = 0;
  for (uint32_t bits; index >= (bits = static_cast<uint32_t>(std::popcount(words[word]))); ++word) {
    index -= bits;
  }
  uint64_t rest = words[word];
  for (; index > 0; --index) rest &= rest - 1;
  return 64 * word + static_cast<size_t>(std::countr_zero(rest));
}

// Adds the signatures of evenly spread windows of a server piece, at most `wanted` of
// them.
void foldPicks(const unsigned char* text, const uint64_t* selected, size_t windows, uint32_t wanted,
               Numbers* numbers) {
  uint32_t found = 0;
  for (size_t word = 0; 64 * word < windows; ++word) {
    found += static_cast<uint32_t>(std::popcount(selected[word]));
  }
  const uint32_t picks = std::min(found, wanted);
  for (uint32_t k = 0; k < picks; ++k) {
    const uint32_t index = found <= wanted ? k : (k + 1) * found / (wanted + 1);
    numbers->add(foldToNumber(text + placeOfBit(selected, index)));
  }
}

int signForServer(TextScanner* scanner, Numbers* numbers, int* normalized_length) {
  static_assert(kUnit % 64 == 0, "a server piece has words of its own");
  // Before the end of a text a piece of it is longer than texts with several picks.
  static_assert(kPieceBytes - kLeastRun > (DLP_PIECE_NUMBER + 1) * kUnit);
  while (scanner->next()) {
    const size_t server_pieces = scanner->kept() / kUnit + 1;
    const uint32_t wanted = std::max(1u, static_cast<uint32_t>(DLP_PIECE_NUMBER / server_pieces));
    for (size_t first = 0; first < scanner->windows(); first += kUnit) {
      if (!numbers->reserve(wanted)) return kErrMem;
      foldPicks(scanner->text() + first, scanner->selected() + first / 64,
                std::min(kUnit, scanner->windows() - first), wanted, numbers);
    }
  }
  if (normalized_length != nullptr) *normalized_length = static_cast<int>(scanner->kept());
  return kOk;
}

// Signatures that a text hardly ever has more of, so that their list need not grow.
size_t usualList(Platform platform, size_t length) {
  if (platform == kServer) return length / kUnit + DLP_PIECE_NUMBER;
  return std::min(length / (DLP_PRIME / 2) + 64, size_t{kClientWindows});
}

}  // namespace

int signText(const TextKernel& kernel, Platform platform, const unsigned char* text, int length,
             Signature** signatures, int* count, int* normalized_length) {
  *signatures = nullptr;
  *count = 0;
  if (length < DLP_SLIDE_WINDOW) return kOk;
  Numbers numbers;
  TextScanner scanner(kernel, text, length);
  const size_t most_kept = static_cast<size_t>(std::clamp(maxContentSize(), 0, length));
  if (!numbers.reserve(usualList(platform, most_kept)) || !scanner.allocate()) return kErrMem;
  const int status = platform == kServer ? signForServer(&scanner, &numbers, normalized_length)
                                         : signForClient(&scanner, &numbers, normalized_length);
  if (status != kOk) return status;
  return handOut(numbers.get(), numbers.length(), signatures, count);
}
