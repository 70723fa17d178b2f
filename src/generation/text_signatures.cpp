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
    buffer_ = mallocArray<unsigned char>(capacity_ + std::max(kTextSlack, kKeptSlack));
    selected_ = mallocArray<uint64_t>((capacity_ + kSelectedSlack) / 64 + 1);
    return buffer_ != nullptr && selected_ != nullptr;
  }

  // Goes on to the next piece. False: there is no window any more.
  bool next() {
    fill();
    windows_ = filled_ > kWindowRest ? filled_ - kWindowRest : 0;
    if (!ended_) windows_ -= windows_ % kUnit;
    if (windows_ == 0) return false;
    std::memset(buffer_.get() + filled_, 0, kTextSlack);
    kernel_.select(buffer_.get(), windows_, selected_.get());
    // No window is selected from here to the next multiple of 64 and of the unit.
    selected_[windows_ / 64] &= (uint64_t{1} << windows_ % 64) - 1;
    scanned_ = windows_;
    return true;
  }

  // The piece: bit i % 64 of selected()[i / 64] tells of the window at text() + i.
  const unsigned char* text() const { return buffer_.get(); }
  size_t windows() const { return windows_; }
  const uint64_t* selected() const { return selected_.get(); }

  // Normalised bytes up to the end of the piece.
  size_t kept() const { return kept_; }
  bool ended() const { return ended_; }

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
    std::memmove(buffer_.get(), buffer_.get() + scanned_, filled_);
    scanned_ = 0;
    ended_ = ended_ || kept_ == limit_;
    while (!ended_ && (filled_ == 0 || capacity_ - filled_ >= kLeastRun)) {
      const size_t run = std::min(length_ - position_, capacity_ - filled_);
      const size_t kept = kernel_.normalise(text_ + position_, run, buffer_.get() + filled_);
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
  MallocArray<unsigned char> buffer_;
  MallocArray<uint64_t> selected_;
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
  uint64_t even = 0;  // sums of 16 bits, which do not run over
  uint64_t odd = 0;
  for (int i = 0; i < DLP_SLIDE_WINDOW / 8; ++i) {
    uint64_t word;
    std::memcpy(&word, window + 8 * i, sizeof word);
    even += word & kEven;
    odd += word >> 8 & kEven;
  }
  uint64_t word = 0;
  std::memcpy(&word, window + DLP_SLIDE_WINDOW / 8 * 8, DLP_SLIDE_WINDOW % 8);
  even += word & kEven;
  odd += word >> 8 & kEven;
  const uint64_t sums = (even & kEven) | (odd & kEven) << 8;
  Signature signature;
  std::memcpy(signature.bytes, &sums, sizeof sums);
  return signatureKey(signature);
}

// ---- Order ----

// Up to here sorting by insertion is the fastest.
constexpr size_t kInsertionLength = 24;

void sortBucket(uint64_t* begin, uint64_t* end) {
  if (static_cast<size_t>(end - begin) > kInsertionLength) {
    std::sort(begin, end);
    return;
  }
  for (uint64_t* next = begin; next != end; ++next) {
    const uint64_t number = *next;
    uint64_t* place = next;
    for (; place != begin && place[-1] > number; --place) *place = place[-1];
    *place = number;
  }
}

// Leaves the numbers in `sorted` in ascending order: by their highest bytes first,
// which makes short buckets of a document's list.
void sortNumbers(const uint64_t* numbers, size_t length, uint64_t* sorted) {
  constexpr size_t kBuckets = 256;
  size_t places[kBuckets] = {};
  for (size_t i = 0; i < length; ++i) ++places[numbers[i] >> 56];
  size_t begin = 0;
  for (size_t& place : places) begin += std::exchange(place, begin);
  for (size_t i = 0; i < length; ++i) sorted[places[numbers[i] >> 56]++] = numbers[i];
  begin = 0;
  for (const size_t end : places) {
    sortBucket(sorted + begin, sorted + end);
    begin = end;
  }
}

// Hands out the signatures in ascending order, each once. No list is handed out for
// no signatures.
int handOut(const uint64_t* numbers, size_t length, Signature** signatures, int* count) {
  if (length == 0) return kOk;
  MallocArray<uint64_t> list = mallocArray<uint64_t>(length);
  if (!list) return kErrMem;
  sortNumbers(numbers, length, list.get());
  const uint64_t* const end = std::unique(list.get(), list.get() + length);
  *count = static_cast<int>(end - list.get());
  auto* const bytes = reinterpret_cast<Signature*>(list.release());
  for (int i = 0; i < *count; ++i) {
    uint64_t number;
    std::memcpy(&number, bytes + i, sizeof number);
    for (int k = 8; k-- > 0; number >>= 8) {
      bytes[i].bytes[k] = static_cast<unsigned char>(number);
    }
  }
  *signatures = bytes;
  return kOk;
}

// ---- Selection ----

// Appends the signatures of the piece's selected windows up to `room` of them and
// returns how many they are.
size_t foldAll(const TextScanner& piece, size_t room, uint64_t* numbers) {
  size_t length = 0;
  for (size_t first = 0; first < piece.windows(); first += 64) {
    for (uint64_t bits = piece.selected()[first / 64]; bits != 0; bits &= bits - 1) {
      if (length == room) return length;
      const size_t window = first + static_cast<size_t>(std::countr_zero(bits));
      numbers[length++] = foldToNumber(piece.text() + window);
    }
  }
  return length;
}

int signForClient(TextScanner* scanner, uint64_t* numbers, size_t room, Signature** signatures,
                  int* count, int* normalized_length) {
  size_t length = 0;
  while (length < room && scanner->next()) {
    length += foldAll(*scanner, room - length, numbers + length);
  }
  if (normalized_length != nullptr) {
    *normalized_length = static_cast<int>(scanner->keptToTheEnd());
  }
  return handOut(numbers, length, signatures, count);
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

// Appends the signatures of evenly spread windows of a server piece, at most `wanted`
// of them, and returns how many they are.
size_t foldPicks(const unsigned char* text, const uint64_t* selected, size_t windows,
                 uint32_t wanted, uint64_t* numbers) {
  uint32_t found = 0;
  for (size_t word = 0; 64 * word < windows; ++word) {
    found += static_cast<uint32_t>(std::popcount(selected[word]));
  }
  const uint32_t picks = std::min(found, wanted);
  for (uint32_t k = 0; k < picks; ++k) {
    const uint32_t index = found <= wanted ? k : (k + 1) * found / (wanted + 1);
    numbers[k] = foldToNumber(text + placeOfBit(selected, index));
  }
  return picks;
}

int signForServer(TextScanner* scanner, uint64_t* numbers, Signature** signatures, int* count,
                  int* normalized_length) {
  size_t length = 0;
  while (scanner->next()) {
    // Before the end of a text a piece is longer than texts with several picks.
    const size_t server_pieces = scanner->kept() / kUnit + 1;
    const uint32_t wanted =
        std::max(1u, static_cast<uint32_t>(size_t{DLP_PIECE_NUMBER} / server_pieces));
    for (size_t first = 0; first < scanner->windows(); first += kUnit) {
      length += foldPicks(scanner->text() + first, scanner->selected() + first / 64,
                          std::min(kUnit, scanner->windows() - first), wanted, numbers + length);
    }
  }
  if (normalized_length != nullptr) *normalized_length = static_cast<int>(scanner->kept());
  return handOut(numbers, length, signatures, count);
}
static_assert(kPieceBytes - kLeastRun > size_t{DLP_PIECE_NUMBER} * kUnit + kUnit);
static_assert(kUnit % 64 == 0, "a server piece has words of its own");

// Room for all signatures that a document can have.
size_t largestList(Platform platform, size_t kept) {
  const size_t server_pieces = kept / kUnit + 1;
  return platform == kServer ? std::max(size_t{DLP_PIECE_NUMBER}, server_pieces)
                             : std::min(size_t{kClientWindows}, kept);
}

}  // namespace

int signText(const TextKernel& kernel, Platform platform, const unsigned char* text, int length,
             Signature** signatures, int* count, int* normalized_length) {
  *signatures = nullptr;
  *count = 0;
  const int most_kept = std::min(length, maxContentSize());
  if (length < DLP_SLIDE_WINDOW) return kOk;
  TextScanner scanner(kernel, text, length);
  const size_t room = largestList(platform, static_cast<size_t>(std::max(most_kept, 1)));
  const auto numbers = mallocArray<uint64_t>(room);
  if (!numbers || !scanner.allocate()) return kErrMem;
  if (platform == kServer) {
    return signForServer(&scanner, numbers.get(), signatures, count, normalized_length);
  }
  return signForClient(&scanner, numbers.get(), room, signatures, count, normalized_length);
}
