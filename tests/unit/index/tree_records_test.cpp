// The orders of the three record types.
#include "tree_records.h"

#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "documents.h"

namespace {

using documents::signature;

// Every record is less than those after it, and than no other.
template <typename Less, typename Record>
void expectAscending(const std::vector<Record>& records) {
  for (size_t i = 0; i < records.size(); ++i) {
    for (size_t j = 0; j < records.size(); ++j) {
      EXPECT_EQ(i < j, Less()(records[i], records[j])) << i << " and " << j;
    }
  }
}

const std::vector<int32_t> kSigned = {INT32_MIN, INT32_MIN + 1, -1, 0, 1, INT32_MAX};

// Ascending as bytes; as little-endian numbers the order would be another one.
const std::vector<Signature> kSignatures = {signature({0, 0, 0, 0, 0, 0, 0, 0}),
                                            signature({0, 0, 0, 0, 0, 0, 0, 255}),
                                            signature({0, 255, 0, 0, 0, 0, 0, 0}),
                                            signature({1, 0, 0, 0, 0, 0, 0, 0}),
                                            signature({127, 0, 0, 0, 0, 0, 0, 9}),
                                            signature({128, 0, 0, 0, 0, 0, 0, 1}),
                                            signature({255, 255, 255, 255, 255, 255, 255, 255})};

TEST(TreeRecords, TheFidSigTreeOrdersByFidThenSourceThenSignature) {
  std::vector<FidSigRecord> records;
  for (const int32_t fid : kSigned) {
    for (const int32_t source : kSigned) {
      for (const Signature& s : kSignatures) records.push_back({fid, source, s});
    }
  }
  expectAscending<FidSigLess>(records);
}

TEST(TreeRecords, TheSrcFidTreeOrdersBySourceThenFid) {
  std::vector<SrcFidRecord> records;
  for (const int32_t source : kSigned) {
    for (const int32_t fid : kSigned) records.push_back({source, fid});
  }
  expectAscending<SrcFidLess>(records);
}

TEST(TreeRecords, TheSigFidTreeOrdersBySignatureThenFidThenSource) {
  std::vector<SigFidRecord> records;
  for (const Signature& s : kSignatures) {
    for (const int32_t fid : kSigned) {
      for (const int32_t source : kSigned) records.push_back({s, fid, source});
    }
  }
  expectAscending<SigFidLess>(records);
}

}  // namespace
