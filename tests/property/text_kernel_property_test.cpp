// Every kernel against the scan that goes window by window, and the lists made with
// it against the twin's: place, hash and signature of each selected window, in texts
// of nine kinds.
//
// TESSERA_WINDOWS=N compares about N selected windows per kernel instead of 50,000.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "documents.h"
#include "fpeSigGenFromText.h"
#include "fpeSigGenTable.h"
#include "fpeSignatureGenerator.h"
#include "generator_twin.h"
#include "scoped.h"
#include "text_kernel.h"
#include "text_signatures.h"

namespace {

using documents::Random;
using twin::Family;

const unsigned char* bytes(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

uint64_t selectedWindowsWanted() {
  const char* const given = std::getenv("TESSERA_WINDOWS");
  return given != nullptr ? std::strtoull(given, nullptr, 10) : 50000;
}

// ---- Texts ----

std::string runs(size_t length, const std::string& alphabet, size_t longest, Random* random) {
  std::string text;
  while (text.size() < length) {
    text.append(1 + random->below(longest), alphabet[random->below(alphabet.size())]);
  }
  text.resize(length);
  return text;
}

std::string printable(size_t length, Random* random) {
  std::string text(length, '\0');
  for (char& c : text) c = static_cast<char>(32 + random->below(95));
  return text;
}

std::string sparse(size_t length, Random* random) {
  std::string text(length, '\0');
  const size_t distance = 2 + random->below(100);
  for (char& c : text) {
    if (random->oneIn(distance)) c = static_cast<char>(random->next());
  }
  return text;
}

// Sums at the edges of the modulus: sevens set all bits of three places each, a three
// in front of eighteen of them makes up the modulus, and large bytes in front of small
// ones make what leaves larger than what is left.
std::string edges(size_t length, Random* random) {
  std::string text;
  while (text.size() < length) {
    switch (random->below(6)) {
      case 0:
        text.append(random->below(80), '\0');
        break;
      case 1:
        text += '\3';
        text.append(17 + random->below(3), '\7');
        break;
      case 2:
        text.append(random->below(80), '\7');
        break;
      case 3:
        text.append(1 + random->below(3), '\xff');
        text.append(random->below(70), random->oneIn(2) ? '\0' : '\1');
        break;
      case 4:
        text += runs(random->below(100), std::string("\0\1\3\7\xf8", 5), 3, random);
        break;
      default:
        text += documents::bytes(random->below(20), random->next());
    }
  }
  text.resize(length);
  return text;
}

// Stretches of words, of letters, and of nothing that stays.
std::string withGaps(size_t length, Random* random) {
  std::string text;
  while (text.size() < length) {
    const size_t stretch = 1 + random->below(random->oneIn(4) ? kPieceBytes : 3000);
    switch (random->below(3)) {
      case 0:
        text.append(stretch, ' ');
        break;
      case 1:
        text += documents::letters(stretch, random->next());
        break;
      default:
        text += documents::words(stretch, random->next());
    }
  }
  return text;
}

constexpr int kKinds = 9;

std::string textOfKind(int kind, size_t length, Random* random) {
  switch (kind) {
    case 0:
      return documents::bytes(length, random->next());
    case 1:
      return printable(length, random);
    case 2:
      return std::string(length, static_cast<char>(random->next()));
    case 3:
      return std::string(length, '\0');
    case 4:
      return std::string(length, '\xff');
    case 5:
      return sparse(length, random);
    case 6:
      return runs(length, documents::bytes(2 + random->below(3), random->next()),
                  1 + random->below(150), random);
    case 7:
      return edges(length, random);
    default:
      return documents::words(length, random->next());
  }
}

// Around every multiple of streams and words, and any other.
size_t anyLength(Random* random) {
  if (random->oneIn(2)) return 61 + random->below(random->oneIn(8) ? 40000 : 3000);
  static const size_t kUnits[] = {8, 64, 128, 256, 512, 1024, 2048, 4096};
  const size_t windows = kUnits[random->below(8)] * (1 + random->below(8));
  return 60 + std::max<size_t>(windows + random->below(5) - 2, 1);
}

class KernelProperty : public testing::Test {
 protected:
  KernelProperty() { EXPECT_EQ(0, initTextSignaturer(kClient, 3)); }
  ~KernelProperty() override {
    setMaxContentSize(previous_limit_);
    releaseTextSignaturer();
  }

  // Compares the windows that a kernel selects; returns how many they are.
  static size_t compareWindows(const TextKernel& kernel, const std::string& text) {
    const size_t windows = text.size() - 60;
    std::vector<uint64_t> hashes(windows);
    std::vector<Signature> signatures(windows);
    uint32_t count = 0;
    EXPECT_EQ(0, getHashValues_KR(bytes(text), bytes(text) + windows,
                                  {.hvs = hashes.data(),
                                   .sigs = signatures.data(),
                                   .capacity = static_cast<uint32_t>(windows),
                                   .count = &count,
                                   .last_hash = nullptr,
                                   .last_byte = nullptr}));
    const std::string behind = documents::bytes(kTextSlack, windows);
    const std::string padded = text + behind;
    std::vector<uint64_t> bits((windows + kSelectedSlack) / 64);
    kernel.select(bytes(padded), windows, bits.data());
    size_t found = 0;
    for (size_t i = 0; i < windows; ++i) {
      if ((bits[i / 64] >> i % 64 & 1) == 0) continue;
      if (found == count || twin::karpRabin(text, i) != hashes[found]) return fail(i);
      const twin::Bytes signature = twin::signature(text, i);
      if (!std::equal(signature.begin(), signature.end(), signatures[found].bytes)) return fail(i);
      ++found;
    }
    EXPECT_EQ(count, found);
    return found;
  }

  // Frees the list.
  static twin::List taken(Signature* list, int count) {
    const MallocArray<Signature> owner(list);
    EXPECT_EQ(count == 0, list == nullptr);
    twin::List all(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) std::copy_n(list[i].bytes, 8, all[i].begin());
    return all;
  }

  static twin::List signedText(const TextKernel& kernel, Platform platform, const std::string& text,
                               int* normalized_length) {
    const auto copy = std::make_unique<unsigned char[]>(text.size());  // no byte to spare
    std::copy_n(bytes(text), text.size(), copy.get());
    Signature dirty;
    Signature* list = &dirty;
    int count = -1;
    EXPECT_EQ(0, signText(kernel, platform, copy.get(), static_cast<int>(text.size()), &list,
                          &count, normalized_length));
    return taken(list, count);
  }

  static twin::List scannedText(Platform platform, const std::string& text,
                                int* normalized_length) {
    const int length = static_cast<int>(text.size());
    Signature* list = nullptr;
    int count = 0;
    if (platform == kServer) {
      EXPECT_EQ(0, getSignatureServer(bytes(text), length, &list, &count, normalized_length,
                                      getHashValues_KR, getHashValuesNoHorner_KR));
    } else {
      EXPECT_EQ(0, getSignatureClient(bytes(text), length, &list, &count, normalized_length,
                                      getHashValues_KR));
    }
    return taken(list, count);
  }

  // Against the plain form, for texts that are too long for the twin.
  static void compareWithScan(const std::string& text, size_t limit) {
    setMaxContentSize(static_cast<int>(limit));
    for (const Platform platform : {kServer, kClient}) {
      int expected_length = 0;
      const twin::List expected = scannedText(platform, text, &expected_length);
      for (const TextKernel* const kernel : supportedKernels()) {
        SCOPED_TRACE(testing::Message() << kernel->name << ", platform " << platform << ", bytes "
                                        << text.size() << ", limit " << limit);
        int length = 0;
        ASSERT_EQ(expected, signedText(*kernel, platform, text, &length));
        ASSERT_EQ(expected_length, length);
      }
    }
  }

  static void compareLists(const std::string& text, size_t limit) {
    setMaxContentSize(static_cast<int>(limit));
    const twin::List server = twin::server(Family::kKarpRabin, text, limit);
    const twin::List client = twin::client(Family::kKarpRabin, text, limit);
    const size_t kept = text.size() < 61 ? 0 : twin::normalised(text, limit).size();
    for (const TextKernel* const kernel : supportedKernels()) {
      SCOPED_TRACE(testing::Message()
                   << kernel->name << ", bytes " << text.size() << ", limit " << limit);
      int length = 0;
      ASSERT_EQ(server, signedText(*kernel, kServer, text, &length));
      ASSERT_EQ(static_cast<int>(kept), length);
      length = 0;
      ASSERT_EQ(client, signedText(*kernel, kClient, text, &length));
      ASSERT_EQ(static_cast<int>(kept), length);
      ASSERT_EQ(client, signedText(*kernel, kClient, text, nullptr));
    }
  }

 private:
  static size_t fail(size_t window) {
    ADD_FAILURE() << "window " << window << " differs";
    return 0;
  }

  const int previous_limit_ = maxContentSize();
};

TEST_F(KernelProperty, SelectsTheWindowsOfTheScanInNineKindsOfText) {
  const uint64_t seed = documents::seed(20240801);
  const uint64_t wanted = selectedWindowsWanted();
  for (const TextKernel* const kernel : supportedKernels()) {
    Random random(seed);
    for (int kind = 0; kind < kKinds; ++kind) {
      SCOPED_TRACE(testing::Message()
                   << "TESSERA_SEED=" << seed << ", " << kernel->name << ", kind " << kind);
      // Some kinds may have no selected window at all: a window counts a little, too.
      uint64_t windows = 0;
      for (uint64_t found = 0; (found + windows / 400) * kKinds < wanted;) {
        const std::string text = textOfKind(kind, anyLength(&random), &random);
        found += compareWindows(*kernel, text);
        windows += text.size();
        if (HasFailure()) FAIL() << text.size() << " bytes";
      }
    }
  }
}

TEST_F(KernelProperty, TextsOfSomePiecesGiveTheTwinsLists) {
  const uint64_t seed = documents::seed(20240802);
  SCOPED_TRACE(testing::Message() << "TESSERA_SEED=" << seed);
  Random random(seed);
  for (const size_t length : {size_t{60}, size_t{61}, kPieceBytes - 1, kPieceBytes + 1084,
                              kPieceBytes + 1085, 2 * kPieceBytes + 333, 4 * kPieceBytes}) {
    compareLists(documents::words(length, random.next()), 1 << 30);
    compareLists(documents::letters(length, random.next()), 1 << 30);
    compareLists(documents::bytes(length, random.next()), 1 << 30);
    if (HasFatalFailure()) return;
  }
}

// The buffer is filled up often and by little, and text ends anywhere in it.
TEST_F(KernelProperty, TextsWithGapsGiveTheListsOfTheScan) {
  const uint64_t seed = documents::seed(20240808);
  SCOPED_TRACE(testing::Message() << "TESSERA_SEED=" << seed);
  Random random(seed);
  for (int run = 0; run < 200; ++run) {
    const std::string text = withGaps(random.below(6 * kPieceBytes), &random);
    compareWithScan(text, random.oneIn(3) ? random.below(text.size() + 1) : 1 << 30);
    if (HasFatalFailure()) return;
  }
}

// The piece that is full of text lies far behind the text's beginning.
TEST_F(KernelProperty, TextsWithHardlyAnyTextGiveTheTwinsLists) {
  const uint64_t seed = documents::seed(20240803);
  SCOPED_TRACE(testing::Message() << "TESSERA_SEED=" << seed);
  const std::string gap(3 * kPieceBytes, ' ');
  for (const size_t length : {10, 61, 500, 1500, 3000, 8191, 8192, 9000}) {
    const std::string text = documents::letters(length, seed);
    compareLists(gap + text + gap, 1 << 30);
    compareLists(text.substr(0, length / 2) + gap + text.substr(length / 2), 1 << 30);
    if (HasFatalFailure()) return;
  }
}

TEST_F(KernelProperty, CutTextsGiveTheTwinsLists) {
  const uint64_t seed = documents::seed(20240804);
  SCOPED_TRACE(testing::Message() << "TESSERA_SEED=" << seed);
  const std::string text = documents::words(3 * kPieceBytes, seed);
  for (const size_t limit :
       {size_t{0}, size_t{60}, size_t{61}, size_t{1024}, size_t{1084}, size_t{1085}, size_t{8192},
        kPieceBytes - 5, kPieceBytes + 1024, kPieceBytes + 1085, 2 * kPieceBytes}) {
    compareLists(text, limit);
    if (HasFatalFailure()) return;
  }
}

// All windows of 0x89 are selected, so the list is full in a known place.
TEST_F(KernelProperty, AFullListEndsWithTheTenThousandthWindow) {
  const uint64_t seed = documents::seed(20240805);
  SCOPED_TRACE(testing::Message() << "TESSERA_SEED=" << seed);
  for (const size_t run : {9900, 10059, 10060, 10061, 30000}) {
    compareLists(std::string(run, '\x89') + documents::letters(2 * kPieceBytes, seed), 1 << 30);
    compareLists(documents::letters(kPieceBytes, seed) + std::string(run, '\x89') +
                     documents::letters(kPieceBytes, seed + 1),
                 1 << 30);
    if (HasFatalFailure()) return;
  }
}

// Two letters of eight are always the same: each eighth signature begins with the same
// two bytes, and the order of these many is that of the other six.
TEST_F(KernelProperty, SignaturesWithTheSameBeginningAreInOrder) {
  const uint64_t seed = documents::seed(20240807);
  SCOPED_TRACE(testing::Message() << "TESSERA_SEED=" << seed);
  std::string text = documents::letters(700000, seed);
  for (size_t i = 0; i < text.size(); i += 8) text[i] = text[i + 1] = 'a';
  compareLists(text, 1 << 30);
}

TEST_F(KernelProperty, RandomTextsGiveTheTwinsLists) {
  const uint64_t seed = documents::seed(20240806);
  SCOPED_TRACE(testing::Message() << "TESSERA_SEED=" << seed);
  Random random(seed);
  for (int run = 0; run < 150; ++run) {
    const size_t limit = random.oneIn(4) ? 61 + random.below(8000) : 1 << 30;
    compareLists(textOfKind(run % kKinds, anyLength(&random), &random), limit);
    if (HasFatalFailure()) return;
  }
}

}  // namespace
