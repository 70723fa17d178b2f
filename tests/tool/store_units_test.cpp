// The small parts behind the catalogue: names, lists, and work that is taken in order.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "cli/names.h"
#include "files/in_order.h"
#include "library/signature_list.h"

namespace tool {
namespace {

// Names.

TEST(ShownName, TextInAnyScriptStandsForItself) {
  for (const char* name :
       {"", "a b.txt", "caf\xc3\xa9", "\xe5\xa5\x91\xe7\xb4\x84", "\xf0\x9f\x93\x84"}) {
    EXPECT_EQ(name, shownName(name));
  }
}

TEST(ShownName, BackslashesAreDoubledSoThatTheNameCanBeHadBack) {
  EXPECT_EQ("a\\\\x41", shownName("a\\x41"));
}

TEST(ShownName, ControlCharactersDoNotReachATerminal) {
  EXPECT_EQ("\\x1b[2J\\x0a\\x7f", shownName("\x1b[2J\n\x7f"));
  EXPECT_EQ("\\x00", shownName(std::string_view("\0", 1)));
  EXPECT_EQ("\\xc2\\x9b", shownName("\xc2\x9b")) << "a control character of two bytes";
}

TEST(ShownName, MarksThatReverseOrBreakLinesAreShownAsBytes) {
  EXPECT_EQ("\\xe2\\x80\\xaetxt", shownName("\xe2\x80\xaetxt"));
  EXPECT_EQ("\\xe2\\x81\\xa6", shownName("\xe2\x81\xa6"));
  EXPECT_EQ("\\xe2\\x80\\xa8", shownName("\xe2\x80\xa8"));
}

TEST(ShownName, BytesThatAreNoUtf8AreShownOneByOne) {
  EXPECT_EQ("caf\\xe9.txt", shownName("caf\xe9.txt"));
  EXPECT_EQ("\\xc3", shownName("\xc3")) << "cut off";
  EXPECT_EQ("\\xc0\\xaf", shownName("\xc0\xaf")) << "longer than needed";
  EXPECT_EQ("\\xe0\\x80\\xaf", shownName("\xe0\x80\xaf"));
  EXPECT_EQ("\\xed\\xa0\\x80", shownName("\xed\xa0\x80")) << "a surrogate";
  EXPECT_EQ("\\xf4\\x90\\x80\\x80", shownName("\xf4\x90\x80\x80")) << "beyond Unicode";
  EXPECT_EQ("\\xff\xc3\xa9", shownName("\xff\xc3\xa9")) << "what follows is looked at again";
}

// Lists.

Signature signature(unsigned char first) { return {first}; }

TEST(Lists, AreAscendingWithoutDoubles) {
  SignatureList list = {signature(3), signature(1), signature(3)};
  makeList(&list);
  EXPECT_EQ((SignatureList{signature(1), signature(3)}), list);
}

TEST(Lists, CanBeTakenFromEachOther) {
  const SignatureList list = {signature(1), signature(2), signature(200)};
  EXPECT_EQ((SignatureList{signature(1), signature(200)}),
            without(list, {signature(0), signature(2), signature(3)}));
  EXPECT_EQ(list, without(list, {}));
  EXPECT_TRUE(without(list, list).empty());
}

TEST(Lists, ShareWhatIsInBoth) {
  const SignatureList list = {signature(1), signature(200)};
  EXPECT_TRUE(shareSignatures(list, {signature(0), signature(200)}));
  EXPECT_FALSE(shareSignatures(list, {signature(2)}));
  EXPECT_FALSE(shareSignatures(list, {}));
}

// Work in order.

bool never() { return false; }

TEST(InOrder, ResultsAreTakenInOrderHoweverLongEachTakes) {
  const std::thread::id self = std::this_thread::get_id();
  std::vector<size_t> taken;
  const size_t count = inOrder<size_t>(
      200, 7,
      [](size_t i) {
        std::this_thread::sleep_for(std::chrono::microseconds(i % 5 * 300));
        return i * i;
      },
      [&](size_t i, size_t&& result) {
        EXPECT_EQ(self, std::this_thread::get_id());
        EXPECT_EQ(i * i, result);
        taken.push_back(i);
      },
      never);
  EXPECT_EQ(200u, count);
  ASSERT_EQ(200u, taken.size());
  for (size_t i = 0; i < taken.size(); ++i) EXPECT_EQ(i, taken[i]);
}

TEST(InOrder, NothingToDoIsDone) {
  const auto work = [](size_t) { return 1; };
  EXPECT_EQ(0u, inOrder<int>(
                    0, 4, work, [](size_t, int&&) { FAIL(); }, never));
}

TEST(InOrder, OnlyAFewResultsWaitToBeTaken) {
  std::atomic<size_t> begun = 0;
  std::atomic<size_t> most_ahead = 0;
  inOrder<int>(
      300, 2,
      [&](size_t) {
        ++begun;
        return 0;
      },
      [&](size_t i, int&&) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        most_ahead = std::max<size_t>(most_ahead, begun - i);
      },
      never);
  EXPECT_LE(most_ahead, 2 * 4u + 1);
}

TEST(InOrder, WhatWasBegunBeforeTheEndIsTaken) {
  std::atomic<size_t> begun = 0;
  std::atomic<bool> ended = false;
  size_t taken = 0;
  const size_t count = inOrder<size_t>(
      1000, 3,
      [&](size_t i) {
        ++begun;
        if (i == 20) ended = true;
        std::this_thread::sleep_for(std::chrono::microseconds(100));
        return i;
      },
      [&](size_t, size_t&&) { ++taken; }, [&] { return ended.load(); });
  EXPECT_EQ(begun, count);
  EXPECT_EQ(taken, count);
  EXPECT_GE(count, 21u);
  EXPECT_LT(count, 40u);
}

TEST(InOrder, AFailureComesOutInItsTurn) {
  std::vector<size_t> taken;
  const auto work = [](size_t i) -> size_t {
    if (i == 5) throw std::runtime_error("five");
    return i;
  };
  const auto take = [&](size_t i, size_t&&) { taken.push_back(i); };
  EXPECT_THROW(inOrder<size_t>(100, 4, work, take, never), std::runtime_error);
  EXPECT_EQ((std::vector<size_t>{0, 1, 2, 3, 4}), taken);
}

TEST(InOrder, AFailureToTakeEndsTheWork) {
  std::atomic<size_t> begun = 0;
  const auto work = [&](size_t i) {
    ++begun;
    return i;
  };
  const auto take = [](size_t i, size_t&&) {
    if (i == 3) throw std::runtime_error("full");
  };
  EXPECT_THROW(inOrder<size_t>(1000, 4, work, take, never), std::runtime_error);
  EXPECT_LT(begun, 40u);
}

}  // namespace
}  // namespace tool
