// Places of windows, with every kernel that this processor can run, held against the
// twin, which hashes each window afresh and finds its bytes by counting.
#include "window_scan.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "documents.h"
#include "fail_point.h"
#include "generator_twin.h"

namespace {

using Window = std::tuple<uint64_t, uint64_t, twin::Bytes>;  // begin, end, signature
using Windows = std::vector<Window>;

int collect(const FoundWindow& found, void* context) {
  twin::Bytes bytes;
  std::copy_n(found.signature.bytes, 8, bytes.begin());
  static_cast<Windows*>(context)->emplace_back(found.begin, found.end, bytes);
  return 0;
}

ScanResult scan(const TextKernel& kernel, const std::string& text, Windows* windows) {
  return scanWindows(kernel, reinterpret_cast<const unsigned char*>(text.data()), text.size(),
                     collect, windows);
}

Windows twinWindows(const std::string& text) {
  std::string kept;
  std::vector<uint64_t> places;
  for (size_t i = 0; i < text.size(); ++i) {
    if (twin::normalised(text.substr(i, 1), 1).empty()) continue;
    kept += text[i];
    places.push_back(i);
  }
  Windows windows;
  for (size_t i = 0; i + 61 <= kept.size(); ++i) {
    if (twin::karpRabin(kept, i) % 137 != 0) continue;
    windows.emplace_back(places[i], places[i + 60] + 1, twin::signature(kept, i));
  }
  return windows;
}

void expectTwin(const std::string& text) {
  const Windows expected = twinWindows(text);
  for (const TextKernel* kernel : supportedKernels()) {
    Windows windows;
    EXPECT_EQ(ScanResult::kDone, scan(*kernel, text, &windows));
    EXPECT_TRUE(expected == windows) << kernel->name << ", " << text.size()
                                     << " bytes: " << windows.size() << " of " << expected.size();
  }
}

TEST(WindowScan, FindsTheWindowsOfTheTwinWhereTheyStand) {
  const uint64_t seed = documents::seed(20261121);
  SCOPED_TRACE(testing::Message() << "TESSERA_SEED=" << seed);
  documents::Random random(seed);
  for (int i = 0; i < 20; ++i) {
    const size_t length = static_cast<size_t>(random.below(40000));
    expectTwin(documents::words(length, random.next()));
    expectTwin(documents::bytes(length, random.next()));
  }
}

// A piece holds 8192 bytes that count; the 60 last ones go into the next one.
TEST(WindowScan, MissesNothingWhereAPieceEnds) {
  const std::string text = documents::letters(3 * 8192, 7);
  for (const size_t end :
       {0, 1, 60, 61, 62, 121, 8191, 8192, 8193, 8252, 8253, 16323, 16324, 16325, 24456, 24576}) {
    expectTwin(text.substr(0, end));
  }
}

// A window may reach over any number of bytes that do not count.
TEST(WindowScan, TellsPlacesInATextOfWhichLittleCounts) {
  const std::string letters = documents::letters(2000, 3);
  std::string text(100000, ' ');
  for (const char letter : letters) text += std::string(300, '-') + letter;
  expectTwin(text + std::string(100000, '\n'));
  expectTwin(std::string(100000, '.'));
}

// There is no largest number of windows: all of a run of 0x89 are selected.
TEST(WindowScan, HandsOutMoreWindowsThanAClientsListHolds) {
  Windows windows;
  EXPECT_EQ(ScanResult::kDone,
            scan(*supportedKernels().front(), std::string(50060, '\x89'), &windows));
  ASSERT_EQ(50000u, windows.size());
  EXPECT_EQ(49999u, std::get<0>(windows.back()));
  EXPECT_EQ(50060u, std::get<1>(windows.back()));
}

TEST(WindowScan, NeedsNoGenerator) {
  const TextSignaturer before = text_signaturer;
  text_signaturer = TextSignaturer();
  expectTwin(documents::words(20000, 5));
  text_signaturer = before;
}

int stopAtThird(const FoundWindow&, void* context) {
  return ++*static_cast<int*>(context) == 3 ? -1 : 0;
}

TEST(WindowScan, EndsWhenTheSinkSaysSo) {
  const std::string text(500, '\x89');
  int calls = 0;
  EXPECT_EQ(ScanResult::kStopped,
            scanWindows(kPortableKernel, reinterpret_cast<const unsigned char*>(text.data()),
                        text.size(), stopAtThird, &calls));
  EXPECT_EQ(3, calls);
}

TEST(WindowScan, TakesOneBlockHoweverLongTheTextIs) {
  FailPoint point;
  for (const size_t length : {100, 1000000}) {
    const std::string text = documents::letters(length, 9);
    Windows windows;
    point.fail(Call::kAllocate, 0);
    EXPECT_EQ(ScanResult::kDone, scan(kPortableKernel, text, &windows));
    EXPECT_EQ(1, point.count());
    EXPECT_LT(point.bytesAllocated(), 100u << 10);
    windows.clear();
    point.fail(Call::kAllocate, 1);
    EXPECT_EQ(ScanResult::kNoMemory, scan(kPortableKernel, text, &windows));
    EXPECT_TRUE(windows.empty());
  }
}

}  // namespace
