// The orders of a batch, against plain sorting.
#include "pending_batch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>

#include "documents.h"

namespace dlp_btree {
namespace {

struct Made {
  std::vector<PendingDocument> documents;
  std::vector<Signature> signatures;
};

// Documents -3 to 4, in the order of the trees, each with a list in any order and
// with repeats. `spread`: the number of prefixes.
Made make(uint32_t signatures_of_each, uint32_t spread) {
  Made made;
  documents::Random random(documents::seed(11));
  for (int32_t fid = -3; fid < 5; ++fid) {
    const auto first = static_cast<uint32_t>(made.signatures.size());
    std::vector<Signature> list = documents::signatures(signatures_of_each, fid % 3 + 9, spread);
    if (fid % 2 != 0) {
      std::shuffle(list.begin(), list.end(), std::mt19937_64(random.next()));
      if (list.size() > 3) list[2] = list[0];
    }
    made.signatures.insert(made.signatures.end(), list.begin(), list.end());
    made.documents.push_back({static_cast<uint32_t>(fid), static_cast<uint32_t>(fid % 4), first,
                              static_cast<uint32_t>(made.signatures.size())});
  }
  return made;
}

class PendingBatchTest : public testing::TestWithParam<std::pair<uint32_t, uint32_t>> {};

// Everything that tells one posting from another, in the order of a tree and, for
// equal records, in that of addition.
using ByDocument = std::tuple<int32_t, int32_t, uint64_t, uint32_t>;
using BySignature = std::tuple<uint64_t, int32_t, int32_t, uint32_t>;

TEST_P(PendingBatchTest, BothOrdersAreThoseOfTheTrees) {
  const Made made = make(GetParam().first, GetParam().second);
  std::vector<ByDocument> by_document;
  std::vector<BySignature> by_signature;
  for (const PendingDocument& document : made.documents) {
    for (uint32_t place = document.first; place < document.end; ++place) {
      const auto fid = static_cast<int32_t>(document.fid_offset);
      const auto source = static_cast<int32_t>(document.source_id);
      const uint64_t key = signatureKey(made.signatures[place]);
      by_document.emplace_back(fid, source, key, place);
      by_signature.emplace_back(key, fid, source, place);
    }
  }
  std::sort(by_document.begin(), by_document.end());
  std::sort(by_signature.begin(), by_signature.end());

  PendingBatch batch(made.documents, made.signatures);
  ASSERT_EQ(by_document.size(), batch.size());
  for (int round = 0; round < 2; ++round) {
    batch.orderByDocument();
    for (size_t i = 0; i < batch.size(); ++i) {
      const FidSigRecord record = batch.fidSigRecord(i);
      ASSERT_EQ(by_document[i], ByDocument(record.fid, record.source,
                                           signatureKey(record.signature), batch.place(i)));
    }
    batch.orderBySignature();
    for (size_t i = 0; i < batch.size(); ++i) {
      const SigFidRecord record = batch.sigFidRecord(i);
      ASSERT_EQ(by_signature[i], BySignature(signatureKey(record.signature), record.fid,
                                             record.source, batch.place(i)));
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Sizes, PendingBatchTest,
                         testing::Values(std::pair(1u, 65536u), std::pair(5u, 65536u),
                                         std::pair(3000u, 65536u), std::pair(3000u, 16u),
                                         std::pair(3000u, 1u)));

TEST(PendingBatchOfNothing, HasNoPostings) {
  const Made made;
  PendingBatch batch(made.documents, made.signatures);
  batch.orderByDocument();
  batch.orderBySignature();
  EXPECT_EQ(0u, batch.size());
}

}  // namespace
}  // namespace dlp_btree
