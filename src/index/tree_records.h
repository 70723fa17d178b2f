// The records of the three trees of an index and their orders.
//
// One posting says that a document (fid, its distance from the index's base)
// with a source ID holds a signature. It stands in the trees like this:
//
//   fid-sig   fid, source, signature   what a document holds: for deletion
//   src-fid   source, fid              which documents share a source
//   sig-fid   signature, fid, source   who holds a signature: for the tables
//
// A record's order is that of its fields: fids and sources as signed numbers,
// so that documents below the base come before it, signatures as memcmp orders
// them. Tests: tests/unit/index/tree_records_test.cpp.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "btree.h"
#include "signature.h"

struct FidSigRecord {
  int32_t fid;
  int32_t source;
  Signature signature;
};

struct SrcFidRecord {
  int32_t source;
  int32_t fid;
};

struct SigFidRecord {
  Signature signature;
  int32_t fid;
  int32_t source;
};

static_assert(sizeof(FidSigRecord) == 16 && sizeof(SrcFidRecord) == 8 && sizeof(SigFidRecord) == 16,
              "records are their bytes in the leaves");

// Two signed numbers as one unsigned one of the same order.
inline uint64_t signedPairKey(int32_t first, int32_t second) {
  constexpr uint32_t kSign = 0x80000000u;
  return static_cast<uint64_t>(static_cast<uint32_t>(first) ^ kSign) << 32 |
         (static_cast<uint32_t>(second) ^ kSign);
}

struct FidSigLess {
  bool operator()(const FidSigRecord& left, const FidSigRecord& right) const {
    const uint64_t l = signedPairKey(left.fid, left.source);
    const uint64_t r = signedPairKey(right.fid, right.source);
    return l != r ? l < r : left.signature < right.signature;
  }
};

struct SrcFidLess {
  bool operator()(const SrcFidRecord& left, const SrcFidRecord& right) const {
    return signedPairKey(left.source, left.fid) < signedPairKey(right.source, right.fid);
  }
};

struct SigFidLess {
  bool operator()(const SigFidRecord& left, const SigFidRecord& right) const {
    const uint64_t l = signatureKey(left.signature);
    const uint64_t r = signatureKey(right.signature);
    return l != r ? l < r
                  : signedPairKey(left.fid, left.source) < signedPairKey(right.fid, right.source);
  }
};

extern template class BTree<FidSigRecord, FidSigLess>;  // built once, in tree_records.cpp
extern template class BTree<SrcFidRecord, SrcFidLess>;
extern template class BTree<SigFidRecord, SigFidLess>;

using FidSigTree = BTree<FidSigRecord, FidSigLess>;
using SrcFidTree = BTree<SrcFidRecord, SrcFidLess>;
using SigFidTree = BTree<SigFidRecord, SigFidLess>;

// What the names of the trees end in, in the order of their numbers in a store.
inline constexpr char kFidSigSuffix[] = ".fidt";
inline constexpr char kSrcFidSuffix[] = ".sidt";
inline constexpr char kSigFidSuffix[] = ".sigt";

inline std::vector<std::string> treeSuffixes() {
  return {kFidSigSuffix, kSrcFidSuffix, kSigFidSuffix};
}
