// Normalisation, the four range scanners and the two selections.
#include "fpeSigGenFromText.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <ostream>
#include <string>
#include <vector>

#include "documents.h"
#include "fail_point.h"
#include "fpeSigGenTable.h"
#include "fpeSignatureGenerator.h"
#include "generator_twin.h"
#include "log_capture.h"
#include "status.h"

namespace {

using twin::Family;

const unsigned char* bytes(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

int length(const std::string& text) { return static_cast<int>(text.size()); }

class Generation : public testing::Test {
 protected:
  Generation() {
    EXPECT_EQ(kOk, initTextSignaturer(kServer, 3));
    setMaxContentSize(6 << 20);
    log_.clear();
  }
  ~Generation() override {
    releaseTextSignaturer();
    setMaxContentSize(previous_limit_);
  }

  // Fails the test unless exactly this was logged, at level 3 under tag "null".
  void expectLog(const std::string& word, const std::string& text) {
    const auto lines = log_.lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(3, lines[0].level);
    EXPECT_EQ("null", lines[0].tag);
    EXPECT_EQ(word, lines[0].word);
    EXPECT_EQ(text, lines[0].text);
  }

  const int previous_limit_ = maxContentSize();
  LogCapture log_;
};

// ---- Normalisation ----

class Normalisation : public Generation {
 protected:
  static std::string normalised(const std::string& text) {
    MallocArray<unsigned char> copy;
    int kept = -1;
    EXPECT_EQ(kOk, normalizeText(bytes(text), length(text), &copy, &kept));
    return std::string(reinterpret_cast<char*>(copy.get()), static_cast<size_t>(kept));
  }
};

TEST_F(Normalisation, KeepsLettersDigitsAndHighBytesInTheirOrder) {
  EXPECT_EQ("abc1", normalised("a b,c\r\n1"));
  EXPECT_EQ("\xe9", normalised("\xe9"));
  EXPECT_EQ("caf\xe9", normalised(" caf\xe9 "));
  EXPECT_EQ("", normalised(" \t\r\n.,;"));
  EXPECT_EQ("ab", normalised(std::string("a\0b\x7f", 4)));
}

TEST_F(Normalisation, DoesNotFoldCase) { EXPECT_EQ("AaBb", normalised("A a B b")); }

TEST_F(Normalisation, LeavesTheTextAlone) {
  const std::string text = "a b c";
  EXPECT_EQ("abc", normalised(text));
  EXPECT_EQ("a b c", text);
}

TEST_F(Normalisation, WithoutMemoryGivesNoCopy) {
  FailPoint point;
  point.fail(Call::kAllocate, 1);
  MallocArray<unsigned char> copy;
  int kept = -1;
  EXPECT_EQ(kErrMem, normalizeText(bytes("abc"), 3, &copy, &kept));
  EXPECT_FALSE(copy);
  expectLog("Error", "#<normalizeText>#no mem for text2");
}

TEST_F(Normalisation, StopsAtTheMaximumContentSize) {
  const std::string text = " a.b c,d  e ";
  for (const auto& [limit, kept] : {std::pair{0, ""},
                                    {1, "a"},
                                    {2, "ab"},
                                    {4, "abcd"},
                                    {5, "abcde"},
                                    {6, "abcde"},
                                    {1000, "abcde"}}) {
    setMaxContentSize(limit);
    EXPECT_EQ(kept, normalised(text));
  }
  setMaxContentSize(-2);
  EXPECT_EQ("", normalised(text));
}

// The runs of the copy grow shorter towards the limit, whatever is dropped.
TEST_F(Normalisation, KeepsTheSameBytesWhereverItStops) {
  std::string text;
  for (size_t i = 0; i < 40; ++i) {
    text += documents::letters(i * 7 % 5, i) + std::string(i * 3 % 4, ' ');
  }
  for (int limit = 0; limit < 100; ++limit) {
    setMaxContentSize(limit);
    EXPECT_EQ(twin::normalised(text, static_cast<size_t>(limit)), normalised(text)) << limit;
  }
}

// A text near the largest length would otherwise cost as much again.
TEST_F(Normalisation, AsksForNoMoreMemoryThanIsKept) {
  FailPoint point;
  const std::string text(100000, ' ');
  setMaxContentSize(1000);
  point.fail(Call::kAllocate, 0);
  EXPECT_EQ("", normalised(text));
  EXPECT_EQ(1001u, point.bytesAllocated());
  point.fail(Call::kAllocate, 0);
  EXPECT_EQ("", normalised(text.substr(0, 10)));
  EXPECT_EQ(11u, point.bytesAllocated());
}

// ---- Range scanners ----

struct Scan {
  std::array<uint64_t, 64> hvs = {};
  std::array<Signature, 64> sigs = {};
  uint32_t count = 77;
  uint64_t last_hash = 78;
  unsigned char last_byte = 79;

  ScanOutput output(uint32_t capacity = 64) {
    return {hvs.data(), sigs.data(), capacity, &count, &last_hash, &last_byte};
  }
};

struct Scanners {
  const char* name;
  Family family;
  RangeScanner scan;
  ContinuingRangeScanner scan_on;
};

// A name instead of addresses in the names of the tests.
void PrintTo(const Scanners& parameter, std::ostream* out) { *out << parameter.name; }

class RangeScan : public Generation, public testing::WithParamInterface<Scanners> {
 protected:
  static uint64_t hashAt(const std::string& text, size_t window) {
    return twin::hash(GetParam().family, text, window);
  }
  // Runs the continuing form for the same range.
  static int scanOn(const std::string& text, size_t start, size_t end, const ScanOutput& out) {
    return GetParam().scan_on(bytes(text) + start, bytes(text) + end, hashAt(text, start - 1),
                              bytes(text)[start - 1], out);
  }
  static int scan(const std::string& text, size_t start, size_t end, const ScanOutput& out) {
    return GetParam().scan(bytes(text) + start, bytes(text) + end, out);
  }
  static std::string functionOf(bool continuing) {
    return std::string(continuing ? "getHashValuesNoHorner_" : "getHashValues_") + GetParam().name;
  }
};

INSTANTIATE_TEST_SUITE_P(Families, RangeScan,
                         testing::Values(Scanners{"KR", Family::kKarpRabin, getHashValues_KR,
                                                  getHashValuesNoHorner_KR},
                                         Scanners{"Adler", Family::kAdler, getHashValues_Adler,
                                                  getHashValuesNoHorner_Adler}),
                         [](const auto& test) { return test.param.name; });

TEST_P(RangeScan, AnEmptyRangeTouchesNothing) {
  const std::string text = documents::letters(200, 1);
  for (const size_t end : {size_t{100}, size_t{50}}) {
    Scan result;
    EXPECT_EQ(kOk, scan(text, 100, end, result.output()));
    EXPECT_EQ(kOk, scanOn(text, 100, end, result.output()));
    EXPECT_EQ(77u, result.count);
    EXPECT_EQ(78u, result.last_hash);
    EXPECT_EQ(79, result.last_byte);
  }
  EXPECT_TRUE(log_.lines().empty());
}

TEST_P(RangeScan, AnEmptyRangeIsASuccessEvenWithoutOutputs) {
  const std::string text = documents::letters(200, 1);
  EXPECT_EQ(kOk, scan(text, 100, 100, {}));
  EXPECT_EQ(kOk, scanOn(text, 100, 100, {}));
}

TEST_P(RangeScan, EveryMissingOutputIsRefusedBeforeAnythingIsTouched) {
  const std::string text = documents::letters(200, 1);
  for (int missing = 0; missing < 4; ++missing) {
    SCOPED_TRACE(missing);
    Scan result;
    ScanOutput out = result.output();
    if (missing == 0) out.hvs = nullptr;
    if (missing == 1) out.sigs = nullptr;
    if (missing == 2) out.capacity = 0;
    if (missing == 3) out.count = nullptr;
    EXPECT_EQ(kErrParam, scan(text, 0, 100, out));
    EXPECT_EQ(kErrParam, scanOn(text, 1, 100, out));
    EXPECT_EQ(77u, result.count);
    EXPECT_EQ(78u, result.last_hash);
    EXPECT_EQ(79, result.last_byte);
  }
  EXPECT_TRUE(log_.lines().empty());
}

TEST_P(RangeScan, TheLastHashAndTheLastByteMayBeLeftOut) {
  const std::string text = documents::letters(2000, 1);
  Scan result;
  ScanOutput out = result.output();
  out.last_hash = nullptr;
  out.last_byte = nullptr;
  EXPECT_EQ(kOk, scan(text, 0, 1900, out));
  EXPECT_EQ(kOk, scanOn(text, 1, 1900, out));
}

TEST_P(RangeScan, EverySelectedWindowIsStoredWithItsHashInOrder) {
  const std::string text = documents::bytes(3000, 5);
  for (const bool continuing : {false, true}) {
    Scan result;
    EXPECT_EQ(kOk, continuing ? scanOn(text, 7, 2900, result.output())
                              : scan(text, 7, 2900, result.output()));
    uint32_t n = 0;
    for (size_t p = 7; p < 2900; ++p) {
      if (hashAt(text, p) % 137 != 0) continue;
      ASSERT_LT(n, result.count);
      EXPECT_EQ(hashAt(text, p), result.hvs[n]);
      const twin::Bytes expected = twin::signature(text, p);
      EXPECT_TRUE(std::equal(expected.begin(), expected.end(), result.sigs[n].bytes));
      ++n;
    }
    EXPECT_EQ(n, result.count);
    EXPECT_GT(n, 5u);
    EXPECT_EQ(hashAt(text, 2899), result.last_hash);
    EXPECT_EQ(bytes(text)[2899], result.last_byte);
  }
  EXPECT_TRUE(log_.lines().empty());
}

TEST_P(RangeScan, ARangeOfOneStartHashesExactlyOneWindow) {
  const std::string text = documents::letters(61, 9);
  Scan result;
  EXPECT_EQ(kOk, scan(text, 0, 1, result.output()));
  EXPECT_EQ(hashAt(text, 0), result.last_hash);
  EXPECT_EQ(bytes(text)[0], result.last_byte);
  EXPECT_EQ(hashAt(text, 0) % 137 == 0 ? 1u : 0u, result.count);
}

TEST_P(RangeScan, AContinuedScanGoesOnWhereTheFirstLeftOff) {
  const std::string text = documents::letters(2000, 3);
  Scan whole, first, second;
  EXPECT_EQ(kOk, scan(text, 0, 1940, whole.output()));
  EXPECT_EQ(kOk, scan(text, 0, 1000, first.output()));
  EXPECT_EQ(kOk, GetParam().scan_on(bytes(text) + 1000, bytes(text) + 1940, first.last_hash,
                                    first.last_byte, second.output()));
  EXPECT_EQ(whole.count, first.count + second.count);
  EXPECT_EQ(whole.last_hash, second.last_hash);
  EXPECT_EQ(whole.last_byte, second.last_byte);
}

// All windows of 137s or 255s are selected by one family or the other.
TEST_P(RangeScan, AFullScanRollsOnButStoresNoMore) {
  const std::string text =
      std::string(200, GetParam().family == Family::kKarpRabin ? '\x89' : '\xff') +
      documents::letters(100, 1);
  for (const bool continuing : {false, true}) {
    log_.clear();
    Scan result;
    result.sigs[3] = documents::signature({1, 1, 1, 1, 1, 1, 1, 1});
    EXPECT_EQ(kOk, continuing ? scanOn(text, 1, 240, result.output(3))
                              : scan(text, 1, 240, result.output(3)));
    EXPECT_EQ(3u, result.count);
    EXPECT_EQ(0u, result.hvs[3]);
    EXPECT_EQ(documents::signature({1, 1, 1, 1, 1, 1, 1, 1}), result.sigs[3]);
    EXPECT_EQ(hashAt(text, 239), result.last_hash);
    EXPECT_EQ(bytes(text)[239], result.last_byte);
    ASSERT_FALSE(log_.lines().empty());
    EXPECT_EQ("#<" + functionOf(continuing) + ">#oh shit, we get a unsuitable prime, j = 3",
              log_.lines().back().text);
  }
}

TEST_P(RangeScan, ARangeWithoutASelectedWindowIsReportedAndSucceeds) {
  const std::string text(200, 'a');
  for (const bool continuing : {false, true}) {
    log_.clear();
    Scan result;
    EXPECT_EQ(kOk, continuing ? scanOn(text, 1, 100, result.output())
                              : scan(text, 1, 100, result.output()));
    EXPECT_EQ(0u, result.count);
    EXPECT_EQ(hashAt(text, 99), result.last_hash);
    expectLog("Info",
              "#<" + functionOf(continuing) + ">#oh shit, we get a unsuitable prime, j = 0");
  }
}

TEST_P(RangeScan, ACountBetweenNothingAndTheCapacityIsNotReported) {
  const std::string text(70, GetParam().family == Family::kKarpRabin ? '\x89' : '\xff');
  Scan result;
  EXPECT_EQ(kOk, scan(text, 0, 10, result.output(11)));
  EXPECT_EQ(10u, result.count);
  EXPECT_EQ(kOk, scanOn(text, 1, 10, result.output(10)));
  EXPECT_EQ(9u, result.count);
  EXPECT_TRUE(log_.lines().empty());
}

// Zero is a hash like any other, and 137 divides it.
TEST_F(Generation, AWindowWhoseHashIsZeroIsSelected) {
  const std::string zeros(63, '\0');
  Scan fresh;
  EXPECT_EQ(kOk, getHashValues_KR(bytes(zeros), bytes(zeros) + 2, fresh.output()));
  EXPECT_EQ(2u, fresh.count);
  EXPECT_EQ(0u, fresh.hvs[0]);
  EXPECT_EQ(Signature(), fresh.sigs[0]);

  Scan continued;
  EXPECT_EQ(kOk, getHashValuesNoHorner_KR(bytes(zeros) + 2, bytes(zeros) + 3, fresh.last_hash,
                                          fresh.last_byte, continued.output()));
  EXPECT_EQ(1u, continued.count);
  EXPECT_EQ(0u, continued.hvs[0]);
}

// A run of one byte value leaves a small hash, and smaller bytes behind it make
// it smaller still.
TEST_F(Generation, AnOverflowInsideAScanIsReportedUnderTheRollAndTheScanGoesOn) {
  const std::string text = std::string(80, 'z') + documents::letters(300, 1);
  const size_t windows = text.size() - 60;
  std::vector<std::string> expected;
  for (size_t p = 0; p + 1 < windows; ++p) {
    const uint64_t hash = twin::karpRabin(text, p);
    const uint64_t leaving = 32768u * bytes(text)[p];
    if (hash >= leaving) continue;
    expected.push_back("#<calcNextHashValueByIteration>#overflow occurs v0(" +
                       std::to_string(hash) + ") tmp(" + std::to_string(leaving) + ")");
  }
  ASSERT_FALSE(expected.empty());

  Scan result;
  EXPECT_EQ(kOk, getHashValues_KR(bytes(text), bytes(text) + windows, result.output()));

  std::vector<std::string> overflows;
  for (const LogLine& line : log_.lines()) {
    if (line.function != "calcNextHashValueByIteration") continue;
    EXPECT_EQ(3, line.level);
    EXPECT_EQ("Error", line.word);
    overflows.push_back(line.text);
  }
  EXPECT_EQ(expected, overflows);
  EXPECT_EQ(twin::karpRabin(text, windows - 1), result.last_hash);
}

// ---- Selection ----

struct Selection {
  int status;
  twin::List list;
  int normalized_length;
};

// The two selections behind one signature.
Selection select(int platform, const std::string& text, Family family = Family::kKarpRabin) {
  Signature dirty;
  Signature* list = &dirty;
  int count = -1;
  Selection result = {0, {}, -1};
  const bool karp_rabin = family == Family::kKarpRabin;
  const RangeScanner scan = karp_rabin ? getHashValues_KR : getHashValues_Adler;
  result.status = platform == kServer ? getSignatureServer(bytes(text), length(text), &list, &count,
                                                           &result.normalized_length, scan,
                                                           karp_rabin ? getHashValuesNoHorner_KR
                                                                      : getHashValuesNoHorner_Adler)
                                      : getSignatureClient(bytes(text), length(text), &list, &count,
                                                           &result.normalized_length, scan);
  const MallocArray<Signature> owner(list);
  EXPECT_EQ(count == 0, list == nullptr);
  for (int i = 0; i < count; ++i) {
    twin::Bytes signature;
    std::copy_n(list[i].bytes, 8, signature.begin());
    result.list.push_back(signature);
  }
  return result;
}

class SignatureSelection : public Generation, public testing::WithParamInterface<Platform> {
 protected:
  static Selection of(const std::string& text) { return select(GetParam(), text); }
  static bool server() { return GetParam() == kServer; }
  static std::string function() { return server() ? "getSignatureServer" : "getSignatureClient"; }
};

INSTANTIATE_TEST_SUITE_P(Platforms, SignatureSelection, testing::Values(kServer, kClient),
                         [](const auto& test) {
                           return test.param == kServer ? "Server" : "Client";
                         });

TEST_P(SignatureSelection, SixtyBytesAreTooShort) {
  for (const int bytes : {60, 1, 0}) {
    log_.clear();
    const Selection result = of(documents::letters(static_cast<size_t>(bytes), 1));
    EXPECT_EQ(kOk, result.status);
    EXPECT_TRUE(result.list.empty());
    EXPECT_EQ(-1, result.normalized_length);
    expectLog("Info", "#<" + function() + ">#file too short (" + std::to_string(bytes) + ")");
  }
}

TEST_P(SignatureSelection, SixtyNormalisedBytesAreTooShort) {
  const Selection result = of(documents::letters(60, 1) + "          ");
  EXPECT_EQ(kOk, result.status);
  EXPECT_TRUE(result.list.empty());
  EXPECT_EQ(60, result.normalized_length);
  expectLog("Info", "#<" + function() + ">#normalized file too short (60)");
}

TEST_P(SignatureSelection, SixtyOneBytesGiveAtMostOneSignature) {
  const Selection none = of(std::string(61, 'a'));
  EXPECT_EQ(kOk, none.status);
  EXPECT_TRUE(none.list.empty());
  EXPECT_EQ(61, none.normalized_length);
  const Selection one = of(std::string(61, '\x89'));
  EXPECT_EQ(kOk, one.status);
  EXPECT_EQ(1u, one.list.size());
}

TEST_P(SignatureSelection, AHundredLettersAndAThousandBlanksAreAHundredBytes) {
  const std::string text = documents::letters(100, 10);
  const Selection result = of(text + std::string(1000, ' '));
  EXPECT_EQ(100, result.normalized_length);
  ASSERT_FALSE(result.list.empty());
  EXPECT_EQ(of(text).list, result.list);
}

TEST_P(SignatureSelection, AMissingListOrCountIsRefusedAndNothingTouched) {
  const std::string text = documents::letters(100, 4);
  for (const bool no_list : {true, false}) {
    log_.clear();
    Signature dirty;
    Signature* list = &dirty;
    int count = 5;
    Signature** const signatures = no_list ? nullptr : &list;
    int* const number = no_list ? &count : nullptr;
    EXPECT_EQ(kErrParam, server()
                             ? getSignatureServer(bytes(text), 100, signatures, number, nullptr,
                                                  getHashValues_KR, getHashValuesNoHorner_KR)
                             : getSignatureClient(bytes(text), 100, signatures, number, nullptr,
                                                  getHashValues_KR));
    EXPECT_EQ(&dirty, list);
    EXPECT_EQ(5, count);
    expectLog("Info", "#<" + function() + ">#signature or size is null");
  }
}

TEST_P(SignatureSelection, TheNormalisedLengthMayBeLeftOut) {
  const std::string text = documents::letters(3000, 4);
  Signature* list = nullptr;
  int count = 0;
  EXPECT_EQ(kOk, server() ? getSignatureServer(bytes(text), 3000, &list, &count, nullptr,
                                               getHashValues_KR, getHashValuesNoHorner_KR)
                          : getSignatureClient(bytes(text), 3000, &list, &count, nullptr,
                                               getHashValues_KR));
  const MallocArray<Signature> owner(list);
  EXPECT_GT(count, 0);
}

TEST_P(SignatureSelection, WhatLiesBehindTheMaximumContentSizeDoesNotCount) {
  const std::string text = documents::letters(4000, 4);
  setMaxContentSize(1500);
  const Selection cut = of(text);
  EXPECT_EQ(1500, cut.normalized_length);
  setMaxContentSize(1500 * 2);
  EXPECT_EQ(of(text.substr(0, 1500)).list, cut.list);
}

TEST_P(SignatureSelection, ALongTextCostsTwiceTheMaximumContentSizeAndAMegabyteAtMost) {
  constexpr size_t kLimit = 1 << 20;
  setMaxContentSize(kLimit);
  std::string text;
  const std::string part = documents::letters(1000, 8) + std::string(1000, '.');
  while (text.size() < 12 * kLimit) text += part;
  FailPoint point;
  point.fail(Call::kAllocate, 0);
  const Selection result = of(text);
  EXPECT_EQ(static_cast<int>(kLimit), result.normalized_length);
  EXPECT_GE(2 * kLimit + (1 << 20), point.bytesAllocated());
  const twin::List expected = server() ? twin::server(Family::kKarpRabin, text, kLimit)
                                       : twin::client(Family::kKarpRabin, text, kLimit);
  EXPECT_EQ(expected, result.list);
}

// The byte behind the text that is scanned.
int byte_behind_text = -1;

int noteByteBehindText(const unsigned char*, const unsigned char* end, const ScanOutput& out) {
  byte_behind_text = end[60];
  *out.count = 0;
  return kOk;
}

TEST_P(SignatureSelection, ACutTextIsFollowedByAZero) {
  FailPoint point;  // new memory is not zero anyway
  setMaxContentSize(500);
  const std::string text = documents::letters(1000, 4);
  Signature* list = nullptr;
  int count = 0;
  EXPECT_EQ(kOk, server() ? getSignatureServer(bytes(text), 1000, &list, &count, nullptr,
                                               noteByteBehindText, nullptr)
                          : getSignatureClient(bytes(text), 1000, &list, &count, nullptr,
                                               noteByteBehindText));
  EXPECT_EQ(0, byte_behind_text);
}

TEST_P(SignatureSelection, ATextAsLongAsTheMaximumIsNotCut) {
  setMaxContentSize(1500);
  EXPECT_EQ(1500, of(documents::letters(1500, 4)).normalized_length);
  EXPECT_EQ(1500, of(documents::letters(1501, 4)).normalized_length);
  EXPECT_EQ(1499, of(documents::letters(1499, 4)).normalized_length);
}

TEST_P(SignatureSelection, AMaximumBelowAWindowMakesEveryTextTooShort) {
  setMaxContentSize(60);
  const Selection result = of(documents::letters(100, 4));
  EXPECT_EQ(kOk, result.status);
  EXPECT_EQ(60, result.normalized_length);
  expectLog("Info", "#<" + function() + ">#normalized file too short (60)");
}

TEST_P(SignatureSelection, TwoWindowsWithTheSameContentGiveOneSignature) {
  const Selection result = of(std::string(900, '\x89'));
  EXPECT_EQ(kOk, result.status);
  EXPECT_EQ(1u, result.list.size());
}

TEST_P(SignatureSelection, ListsAreOrderedByUnsignedBytesFromTheFirst) {
  const Selection result = of(documents::bytes(40000, 4));
  ASSERT_GT(result.list.size(), 20u);
  EXPECT_TRUE(std::is_sorted(result.list.begin(), result.list.end()));
  EXPECT_EQ(result.list.end(), std::adjacent_find(result.list.begin(), result.list.end()));
  EXPECT_GE(result.list.back()[0], 0x80);  // signed bytes would come first
}

TEST_P(SignatureSelection, ATextWithoutASelectedWindowHasNoList) {
  const Selection result = of(std::string(1500, 'a'));
  EXPECT_EQ(kOk, result.status);
  EXPECT_TRUE(result.list.empty());
  EXPECT_TRUE(log_.has("oh shit, we get a unsuitable prime, j = 0"));
}

// Every allocation that has a message, in the order they are made.
TEST_P(SignatureSelection, EveryLostBlockOfMemoryIsToldAndLeavesNoListBehind) {
  const std::string text = documents::letters(3000, 12);
  struct Message {
    std::string word;
    std::string text;
  };
  std::vector<Message> messages;
  if (server()) {
    messages = {{"Info", "normalizeText error"},
                {"Info", "no memory for hvs"},
                {"Info", "no memory for sigs"},
                {"Info", "no memory for piece_hvs"},
                {"Info", "no memory for piece_sigs"},
                {"Info", "no memory for per_piece_pick_idx"},
                {"Error", "no mem for signature (sig_num: 6)"}};
  } else {
    messages = {
        {"Error", "normlizeText error"},
        {"Info", "no mem for hvs"},
        {"Info", "no mem for sigs"},
        {"Error", "no mem for signature (sig_num: " +
                      std::to_string(twin::selected(Family::kKarpRabin, text, 0, 2940).size()) +
                      ")"}};
  }
  FailPoint point;
  for (size_t n = 0; n < messages.size(); ++n) {
    SCOPED_TRACE(messages[n].text);
    log_.clear();
    point.fail(Call::kAllocate, static_cast<int>(n) + 1);
    const Selection result = of(text);
    EXPECT_TRUE(point.failed());
    EXPECT_EQ(kErrMem, result.status);
    EXPECT_TRUE(result.list.empty());
    const auto lines = log_.lines();
    ASSERT_EQ(n == 0 ? 2u : 1u, lines.size());
    if (n == 0) {
      EXPECT_EQ("#<normalizeText>#no mem for text2", lines[0].text);
    }
    EXPECT_EQ(3, lines.back().level);
    EXPECT_EQ("null", lines.back().tag);
    EXPECT_EQ(messages[n].word, lines.back().word);
    EXPECT_EQ("#<" + function() + ">#" + messages[n].text, lines.back().text);
  }
  point.fail(Call::kAllocate, static_cast<int>(messages.size()) + 1);
  EXPECT_EQ(kOk, of(text).status);
  EXPECT_FALSE(point.failed());
}

TEST_P(SignatureSelection, AFailedScanIsPassedUp) {
  const std::string text = documents::letters(3000, 12);
  const RangeScanner failing = [](const unsigned char*, const unsigned char*, const ScanOutput&) {
    return -77;
  };
  Signature dirty;
  Signature* list = &dirty;
  int count = 5;
  EXPECT_EQ(-77, server() ? getSignatureServer(bytes(text), 3000, &list, &count, nullptr, failing,
                                               getHashValuesNoHorner_KR)
                          : getSignatureClient(bytes(text), 3000, &list, &count, nullptr, failing));
  EXPECT_EQ(nullptr, list);
  EXPECT_EQ(0, count);
  if (server()) {
    expectLog("Error", "#<getSignatureServer>#getHashValues error");
  } else {
    expectLog("Info", "#<getSignatureClient>#get hashvalues error");
  }
}

TEST_F(Generation, AFailedContinuedScanIsPassedUp) {
  const std::string text = documents::letters(3000, 12);
  const ContinuingRangeScanner failing = [](const unsigned char*, const unsigned char*, uint64_t,
                                            unsigned char, const ScanOutput&) { return -78; };
  Signature dirty;
  Signature* list = &dirty;
  int count = 5;
  EXPECT_EQ(-78, getSignatureServer(bytes(text), 3000, &list, &count, nullptr, getHashValues_KR,
                                    failing));
  EXPECT_EQ(nullptr, list);
  EXPECT_EQ(0, count);
  expectLog("Error", "#<getSignatureServer>#getHashValuesNoHorner error");
}

TEST_F(Generation, AFullClientListIsTenThousandWindowsLong) {
  EXPECT_EQ(1u, select(kClient, std::string(10059, '\x89')).list.size());
  EXPECT_TRUE(log_.lines().empty());
  EXPECT_EQ(1u, select(kClient, std::string(10060, '\x89')).list.size());
  EXPECT_EQ(std::vector<std::string>{"oh shit, we get a unsuitable prime, j = 10000"},
            log_.messages());
}

// ---- The server's pieces and picks ----

// Scanners that select numbered windows: the signature of window n of a piece
// bears the piece and n. `piece_count` windows are found in every piece.
int piece_number = 0;
uint32_t piece_count = 0;
std::vector<std::pair<size_t, size_t>> scanned;  // offset and size of each range
const unsigned char* scanned_text = nullptr;

int fakeScan(const unsigned char* start, const unsigned char* end, const ScanOutput& out) {
  if (scanned_text == nullptr) scanned_text = start;
  scanned.emplace_back(start - scanned_text, end > start ? end - start : 0);
  if (start >= end) return kOk;
  EXPECT_EQ(5000u, out.capacity);
  for (uint32_t i = 0; i < piece_count; ++i) {
    out.hvs[i] = i;
    out.sigs[i] = documents::signature(
        {piece_number, static_cast<int>(i / 256), static_cast<int>(i % 256), 0, 0, 0, 0, 0});
  }
  ++piece_number;
  *out.count = piece_count;
  *out.last_hash = 1000 + static_cast<uint64_t>(piece_number);
  *out.last_byte = static_cast<unsigned char>(piece_number);
  return kOk;
}

int fakeScanOn(const unsigned char* start, const unsigned char* end, uint64_t last_hash,
               unsigned char last_byte, const ScanOutput& out) {
  EXPECT_EQ(1000 + static_cast<uint64_t>(piece_number), last_hash);
  EXPECT_EQ(static_cast<unsigned char>(piece_number), last_byte);
  return fakeScan(start, end, out);
}

using Picks = std::vector<std::pair<int, int>>;  // piece, window

Picks picksOf(size_t normalised, uint32_t selected_per_piece) {
  piece_number = 0;
  piece_count = selected_per_piece;
  scanned.clear();
  scanned_text = nullptr;
  const std::string text = documents::letters(normalised, 1);
  Signature* list = nullptr;
  int count = 0;
  EXPECT_EQ(kOk, getSignatureServer(bytes(text), length(text), &list, &count, nullptr, fakeScan,
                                    fakeScanOn));
  const MallocArray<Signature> owner(list);
  Picks picks;
  for (int i = 0; i < count; ++i) {
    picks.emplace_back(list[i].bytes[0], list[i].bytes[1] * 256 + list[i].bytes[2]);
  }
  return picks;
}

TEST_F(Generation, ShorterDocumentsGetMorePicksPerPiece) {
  EXPECT_EQ(8u, picksOf(1023, 100).size());
  EXPECT_EQ(8u, picksOf(1084 + 1, 100).size());
  EXPECT_EQ(8u, picksOf(2047, 100).size());
  EXPECT_EQ(6u, picksOf(3071, 100).size());
  EXPECT_EQ(8u, picksOf(4095, 100).size());
  EXPECT_EQ(5u, picksOf(4096 + 61, 100).size());
  EXPECT_EQ(8u, picksOf(8191, 100).size());
  EXPECT_EQ(9u, picksOf(8192 + 61, 100).size());
}

TEST_F(Generation, PicksAreSpreadEvenlyOverThePiece) {
  EXPECT_EQ((Picks{{0, 11}, {0, 22}, {0, 33}, {0, 44}, {0, 55}, {0, 66}, {0, 77}, {0, 88}}),
            picksOf(1000, 100));
  EXPECT_EQ((Picks{{0, 1}, {0, 2}, {0, 3}, {0, 4}, {0, 5}, {0, 6}, {0, 7}, {0, 8}}),
            picksOf(1000, 9));
  EXPECT_EQ((Picks{{0, 2}, {0, 4}, {0, 6}, {0, 8}, {1, 2}, {1, 4}, {1, 6}, {1, 8}}),
            picksOf(2000, 10));
  EXPECT_EQ((Picks{{0, 3}, {0, 6}, {1, 3}, {1, 6}, {2, 3}, {2, 6}}), picksOf(3000, 10));
  EXPECT_EQ((Picks{{0, 5}, {1, 5}, {2, 5}, {3, 5}, {4, 5}}), picksOf(5000, 10));
}

TEST_F(Generation, APieceWithNoMoreWindowsThanPicksGivesThemAll) {
  EXPECT_EQ((Picks{{0, 0}, {0, 1}, {0, 2}}), picksOf(1000, 3));
  EXPECT_EQ((Picks{{0, 0}, {0, 1}, {0, 2}, {0, 3}, {0, 4}, {0, 5}, {0, 6}, {0, 7}}),
            picksOf(1000, 8));
  EXPECT_EQ(Picks{}, picksOf(1000, 0));
}

using Ranges = std::vector<std::pair<size_t, size_t>>;

TEST_F(Generation, PiecesHold1024WindowStartsAndTheLastOneTheRest) {
  picksOf(61, 1);
  EXPECT_EQ((Ranges{{0, 1}}), scanned);
  picksOf(1023, 1);
  EXPECT_EQ((Ranges{{0, 963}}), scanned);
  picksOf(1085, 1);
  EXPECT_EQ((Ranges{{0, 1024}, {1024, 1}}), scanned);
  picksOf(3000, 1);
  EXPECT_EQ((Ranges{{0, 1024}, {1024, 1024}, {2048, 892}}), scanned);
}

TEST_F(Generation, APieceWithoutAWindowOfItsOwnIsScannedAsAnEmptyRange) {
  picksOf(1024, 1);
  EXPECT_EQ((Ranges{{0, 964}, {1024, 0}}), scanned);
  picksOf(1084, 1);
  EXPECT_EQ((Ranges{{0, 1024}, {1024, 0}}), scanned);
  picksOf(2048, 1);
  EXPECT_EQ((Ranges{{0, 1024}, {1024, 964}, {2048, 0}}), scanned);
}

// The empty last piece still counts as a piece: it lowers the picks of all.
TEST_F(Generation, AnEmptyLastPieceAddsNothing) {
  EXPECT_EQ((Picks{{0, 3}, {0, 6}, {1, 3}, {1, 6}}), picksOf(2048, 10));
  EXPECT_EQ((Picks{{0, 2}, {0, 4}, {0, 6}, {0, 8}}), picksOf(1024, 10));
}

// The picks of the piece before it are made a second time, which the room for
// the document's list tells.
TEST_F(Generation, AnEmptyLastPieceRepeatsThePicksBeforeIt) {
  const std::string text = documents::letters(2048, 12);
  FailPoint point;
  piece_number = 0;
  piece_count = 10;
  scanned_text = nullptr;
  point.fail(Call::kAllocate, 7);
  Signature* list = nullptr;
  int count = 0;
  EXPECT_EQ(kErrMem,
            getSignatureServer(bytes(text), 2048, &list, &count, nullptr, fakeScan, fakeScanOn));
  expectLog("Error", "#<getSignatureServer>#no mem for signature (sig_num: 6)");
}

// ---- Known lists ----

// A text of blanks, lines, dots, letters and digits, 2871 of which stay.
std::string knownText() {
  static const char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZ abcdefghijklmnopqrstuvwxyz.0123456789\n";
  std::string text;
  uint32_t state = 12345;
  for (int i = 0; i < 3000; ++i) {
    state = (state * 1103515245u + 12345u) & 0x7fffffff;
    text += kAlphabet[(state >> 16) % 65];
  }
  return text;
}

std::vector<std::string> hex(const twin::List& list) {
  std::vector<std::string> texts;
  for (const twin::Bytes& bytes : list) {
    std::string text;
    for (const unsigned char byte : bytes) {
      text += "0123456789abcdef"[byte / 16];
      text += "0123456789abcdef"[byte % 16];
    }
    texts.push_back(text);
  }
  return texts;
}

using Texts = std::vector<std::string>;

TEST_F(Generation, TheClientsListOfAKnownText) {
  EXPECT_EQ(2871, select(kClient, knownText()).normalized_length);
  EXPECT_EQ((Texts{"132c1ec402fb7459", "60a5d4a16e6ea274", "6fa8f486c3681306", "76c7d8edb44c5f4a",
                   "7990870c9921682d", "7fb87f828c0b9ecd", "9791ede2bd3859d0", "9995dab8987d9019",
                   "9bc3ede67f401238", "9bcb15f1371d5577", "a4888f64dc76a3b1", "b25bde21778f7e6b",
                   "be8d9cd4646c189f", "c58de9c1c7639baf", "cdbb9384b8822f31", "d6839ce712490c3d",
                   "f19ba494d7ac344f"}),
            hex(select(kClient, knownText()).list));
}

TEST_F(Generation, TheServersListOfAKnownTextIsAPartOfIt) {
  EXPECT_EQ((Texts{"6fa8f486c3681306", "76c7d8edb44c5f4a", "9995dab8987d9019", "9bc3ede67f401238",
                   "d6839ce712490c3d", "f19ba494d7ac344f"}),
            hex(select(kServer, knownText()).list));
}

TEST_F(Generation, TheAdlerListsOfAKnownText) {
  EXPECT_EQ((Texts{"03887b035e5f45a5", "0ea8f4ff7458b489", "25ba81cad96e7279", "54fae295aa9b3b5a",
                   "56c66ead847e61a7", "7e5b661e12796171", "817bccb4c8d70b8d", "93c858f1b0a0e512",
                   "a149a7e1656f20ae", "a8a17e888ca5c86b", "b36a7be7929b4666", "b5e2bc7a7aa87124",
                   "b6bfcc81cf584990", "c5d902a7a7a66a70", "c7efdedc4c3f746a", "cde28cb91e781bfb",
                   "d2d9f4bfb985a781", "d860cfd3c4a93de6", "d902a7a7d66a7056"}),
            hex(select(kClient, knownText(), Family::kAdler).list));
  EXPECT_EQ((Texts{"56c66ead847e61a7", "a149a7e1656f20ae", "a8a17e888ca5c86b", "b5e2bc7a7aa87124",
                   "b6bfcc81cf584990", "d902a7a7d66a7056"}),
            hex(select(kServer, knownText(), Family::kAdler).list));
}

}  // namespace
