// The pending documents as a batch for the trees: every posting once, in the order
// of one tree after the other, and for each tree which of them it refused.
//
// A posting is known by its place among the pending signatures, in the order of
// addition. Of equal ones the one added first comes first. All memory is taken by
// the constructor.
// Tests: tests/unit/index/pending_batch_test.cpp.
#pragma once

#include <cstdint>
#include <vector>

#include "signature.h"
#include "tree_records.h"

namespace dlp_btree {

struct PendingDocument {  // its signatures: the pending ones from first to end - 1
  uint32_t fid_offset;
  uint32_t source_id;
  uint32_t first;
  uint32_t end;
};

class PendingBatch {
 public:
  // Documents in the order of the trees, that of their fids as signed numbers;
  // both lists must outlive this. Throws std::bad_alloc.
  PendingBatch(const std::vector<PendingDocument>& documents,
               const std::vector<Signature>& signatures);

  size_t size() const { return postings_.size(); }

  // Puts the postings into the order of a tree; from then on posting i is its
  // record number i.
  void orderByDocument();
  void orderBySignature();
  FidSigRecord fidSigRecord(size_t i) const;
  SigFidRecord sigFidRecord(size_t i) const;
  uint32_t place(size_t i) const { return postings_[i].place; }

 private:
  // `document` counts in the list, so key and document, in the order that a tree
  // wants, stand for the whole record.
  struct Posting {
    uint64_t key;
    uint32_t document;
    uint32_t place;
  };

  Posting make(uint32_t document, uint32_t place) const;
  static bool before(const Posting& left, const Posting& right);

  const std::vector<PendingDocument>& documents_;
  const std::vector<Signature>& signatures_;
  std::vector<Posting> postings_;
  std::vector<uint32_t> bounds_;
};

}  // namespace dlp_btree
