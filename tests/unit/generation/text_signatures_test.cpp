// Lists made with a kernel: memory that runs out, and limits that leave no text. What
// they hold is held against the twin in tests/property/text_kernel_property_test.cpp.
#include "text_signatures.h"

#include <gtest/gtest.h>

#include <string>

#include "documents.h"
#include "fail_point.h"
#include "fpeSignatureGenerator.h"
#include "scoped.h"
#include "status.h"

namespace {

class TextSignatures : public testing::Test {
 protected:
  TextSignatures() {
    EXPECT_EQ(kOk, initTextSignaturer(kClient, 3));
    setMaxContentSize(6 << 20);
  }
  ~TextSignatures() override {
    setMaxContentSize(previous_limit_);
    releaseTextSignaturer();
  }

  struct Result {
    int status;
    int count = -1;
    int normalized_length = -1;
    MallocArray<Signature> list;
  };

  static Result sign(Platform platform, const std::string& text) {
    Signature dirty;
    Signature* list = &dirty;
    Result result;
    result.status = signText(
        *supportedKernels().front(), platform, reinterpret_cast<const unsigned char*>(text.data()),
        static_cast<int>(text.size()), &list, &result.count, &result.normalized_length);
    result.list.reset(list);
    return result;
  }

 private:
  const int previous_limit_ = maxContentSize();
};

// All windows of 0x89 are selected, so that a client's list grows, more than once.
TEST_F(TextSignatures, EveryAllocationThatFailsLeavesNoList) {
  const std::string text(9000, '\x89');
  FailPoint point;
  for (const Platform platform : {kServer, kClient}) {
    point.fail(Call::kAllocate, 0);
    EXPECT_EQ(kOk, sign(platform, text).status);
    const int allocations = point.count();
    EXPECT_GE(allocations, platform == kClient ? 5 : 3);
    for (int n = 1; n <= allocations; ++n) {
      point.fail(Call::kAllocate, n);
      const Result result = sign(platform, text);
      EXPECT_EQ(kErrMem, result.status) << n;
      EXPECT_EQ(nullptr, result.list.get()) << n;
      EXPECT_EQ(0, result.count) << n;
    }
  }
}

TEST_F(TextSignatures, ALimitBelowZeroLeavesNoText) {
  const std::string text = documents::letters(5000, 1);
  for (const int limit : {-1, -2147483647 - 1, 0}) {
    setMaxContentSize(limit);
    for (const Platform platform : {kServer, kClient}) {
      const Result result = sign(platform, text);
      EXPECT_EQ(kOk, result.status) << limit;
      EXPECT_EQ(nullptr, result.list.get()) << limit;
      EXPECT_EQ(0, result.count) << limit;
      EXPECT_EQ(0, result.normalized_length) << limit;
    }
  }
}

TEST_F(TextSignatures, ATextShorterThanAWindowLeavesTheLengthAlone) {
  const Result result = sign(kServer, documents::letters(60, 1));
  EXPECT_EQ(kOk, result.status);
  EXPECT_EQ(0, result.count);
  EXPECT_EQ(-1, result.normalized_length);
}

}  // namespace
