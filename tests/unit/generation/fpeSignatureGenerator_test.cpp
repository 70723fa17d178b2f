// The dispatch between the text paths and the binary one.
#include "fpeSignatureGenerator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <string>
#include <vector>

#include "documents.h"
#include "fail_point.h"
#include "fpeSigGenTable.h"
#include "generator_twin.h"
#include "log_capture.h"
#include "scoped.h"
#include "status.h"

namespace {

using twin::Family;

struct Entry {
  const char* name;
  Family family;
  decltype(&generateVornetSignature_KR) generate;
};

// A name instead of addresses in the names of the tests.
void PrintTo(const Entry& parameter, std::ostream* out) { *out << parameter.name; }

struct Result {
  int status = 0;
  twin::List list;
  int normalized_length = -1;
};

class VornetSignature : public testing::TestWithParam<Entry> {
 protected:
  ~VornetSignature() override {
    releaseTextSignaturer();
    setMaxContentSize(previous_limit_);
  }

  static Result run(const std::string& content, int type) {
    Signature dirty;
    Signature* list = &dirty;
    int count = -1;
    Result result;
    result.status = GetParam().generate(content.data(), static_cast<int>(content.size()), &list,
                                        &count, type, &result.normalized_length);
    const MallocArray<Signature> owner(list);
    EXPECT_EQ(count == 0, list == nullptr);
    for (int i = 0; i < count; ++i) {
      twin::Bytes bytes;
      std::copy_n(list[i].bytes, 8, bytes.begin());
      result.list.push_back(bytes);
    }
    return result;
  }

  const int previous_limit_ = maxContentSize();
};

INSTANTIATE_TEST_SUITE_P(
    Families, VornetSignature,
    testing::Values(Entry{"KR", Family::kKarpRabin, generateVornetSignature_KR},
                    Entry{"Adler", Family::kAdler, generateVornetSignature_Adler}),
    [](const auto& test) { return test.param.name; });

TEST_P(VornetSignature, NoDocumentIsASuccessWithoutSignatures) {
  LogCapture log;
  for (const int length : {0, -1, 5}) {
    log.clear();
    Signature dirty;
    Signature* list = &dirty;
    int count = 7;
    int normalized_length = 8;
    const char* const content = length == 5 ? nullptr : "text";
    EXPECT_EQ(kOk, GetParam().generate(content, length, &list, &count, 21, &normalized_length));
    EXPECT_EQ(nullptr, list);
    EXPECT_EQ(0, count);
    EXPECT_EQ(0, normalized_length);
    ASSERT_EQ(1u, log.lines().size());
    EXPECT_EQ(3, log.lines()[0].level);
    EXPECT_EQ("Info", log.lines()[0].word);
    EXPECT_EQ("null", log.lines()[0].tag);
    EXPECT_EQ(std::string("#<generateVornetSignature_") + GetParam().name + ">#docLen (" +
                  std::to_string(length) + ") <= 0 || docContent == NULL",
              log.lines()[0].text);
  }
}

TEST_P(VornetSignature, TheNormalisedLengthMayBeLeftOut) {
  Signature* list = nullptr;
  int count = 0;
  EXPECT_EQ(kOk, GetParam().generate(nullptr, 0, &list, &count, 21, nullptr));
  EXPECT_EQ(kOk, GetParam().generate("abc", 3, &list, &count, 21, nullptr));
}

TEST_P(VornetSignature, TypeTwentyIsBinaryAndEveryOtherOneText) {
  ASSERT_EQ(kOk, initTextSignaturer(kClient, 3));
  setMaxContentSize(5000);
  const std::string content = documents::bytes(4000, 2);
  EXPECT_EQ(twin::binary(content), run(content, 20).list);
  const twin::List text = twin::client(GetParam().family, content, 5000);
  ASSERT_FALSE(text.empty());
  for (const int type : {21, 0, 19, -20, 22}) EXPECT_EQ(text, run(content, type).list);
}

TEST_P(VornetSignature, TheMaximumContentSizeDoesNotBoundBinaryContent) {
  ASSERT_EQ(kOk, initTextSignaturer(kClient, 3));
  setMaxContentSize(100);
  const std::string content = documents::bytes(4000, 2);
  EXPECT_EQ(twin::binary(content), run(content, 20).list);
  EXPECT_EQ(0, run(content, 20).normalized_length);
}

TEST_P(VornetSignature, EachPlatformHasItsOwnSelection) {
  setMaxContentSize(1 << 20);
  const std::string text = documents::letters(20000, 3);
  ASSERT_EQ(kOk, initTextSignaturer(kServer, 3));
  const twin::List server = run(text, 21).list;
  releaseTextSignaturer();
  ASSERT_EQ(kOk, initTextSignaturer(kClient, 3));
  const Result client = run(text, 21);
  EXPECT_EQ(20000, client.normalized_length);
  EXPECT_EQ(twin::server(GetParam().family, text, 1 << 20), server);
  EXPECT_EQ(twin::client(GetParam().family, text, 1 << 20), client.list);
  EXPECT_GT(client.list.size(), server.size());
  EXPECT_LE(server.size(), 20u);  // 20 pieces with one pick each
  EXPECT_TRUE(std::includes(client.list.begin(), client.list.end(), server.begin(), server.end()));
}

TEST_P(VornetSignature, AFailureIsPassedUpWithNoListAndNoCount) {
  ASSERT_EQ(kOk, initTextSignaturer(kClient, 3));
  FailPoint point;
  for (const int type : {20, 21}) {
    point.fail(Call::kAllocate, 1);
    const Result result = run(documents::letters(500, 1), type);
    EXPECT_EQ(kErrMem, result.status);
    EXPECT_TRUE(result.list.empty());
  }
}

// Two pieces of one letter have no selected window, and behind them the sums that
// leave are larger than what is left.
TEST_P(VornetSignature, AListenerHearsEveryMessageAndTheListIsTheSame) {
  ASSERT_EQ(kOk, initTextSignaturer(kServer, 3));
  setMaxContentSize(1 << 20);
  const std::string text = std::string(2500, 'z') + documents::letters(3000, 3);
  const Result unheard = run(text, 21);
  LogCapture log;
  EXPECT_EQ(unheard.list, run(text, 21).list);
  const std::vector<std::string> messages = log.messages();
  EXPECT_EQ(
      2, std::count(messages.begin(), messages.end(), "oh shit, we get a unsuitable prime, j = 0"));
  const bool overflows = std::any_of(messages.begin(), messages.end(), [](const auto& message) {
    return message.starts_with("overflow occurs");
  });
  EXPECT_EQ(GetParam().family == Family::kKarpRabin, overflows);
}

TEST_P(VornetSignature, CaseMatters) {
  ASSERT_EQ(kOk, initTextSignaturer(kClient, 3));
  setMaxContentSize(1 << 20);
  std::string text = documents::letters(5000, 3);
  const twin::List mixed = run(text, 21).list;
  std::transform(text.begin(), text.end(), text.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
  EXPECT_NE(mixed, run(text, 21).list);
}

}  // namespace
