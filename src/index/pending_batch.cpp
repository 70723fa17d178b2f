// By document, the postings are nearly in order as they come: the documents are,
// and a list of signatures usually ascends. By signature, they are dealt into
// buckets by the leading bits, which leaves each bucket so few that sorting it
// stays in the processor's nearest cache; signatures that crowd into few buckets
// only bring back the sorting of all.
#include "pending_batch.h"

#include <algorithm>

namespace dlp_btree {

namespace {

constexpr uint32_t kBucketBits = 14;
constexpr size_t kBuckets = size_t{1} << kBucketBits;

size_t bucketOf(uint64_t key) { return key >> (64 - kBucketBits); }

uint64_t pairOf(uint32_t high, uint32_t low) { return uint64_t{high} << 32 | low; }

}  // namespace

PendingBatch::PendingBatch(const std::vector<PendingDocument>& documents,
                           const std::vector<Signature>& signatures)
    : documents_(documents),
      signatures_(signatures),
      postings_(signatures.size()),
      bounds_(kBuckets + 1) {}

PendingBatch::Posting PendingBatch::make(uint32_t document, uint32_t place) const {
  return {signatureKey(signatures_[place]), document, place};
}

bool PendingBatch::before(const Posting& left, const Posting& right) {
  if (left.key != right.key) return left.key < right.key;
  return pairOf(left.document, left.place) < pairOf(right.document, right.place);
}

void PendingBatch::orderByDocument() {
  const auto sorts = [](const Posting& left, const Posting& right) { return before(left, right); };
  auto next = postings_.begin();
  for (uint32_t d = 0; d < documents_.size(); ++d) {
    const auto first = next;
    for (uint32_t i = documents_[d].first; i < documents_[d].end; ++i) *next++ = make(d, i);
    if (!std::is_sorted(first, next, sorts)) std::sort(first, next, sorts);
  }
}

void PendingBatch::orderBySignature() {
  std::fill(bounds_.begin(), bounds_.end(), 0);
  for (const Signature& signature : signatures_) ++bounds_[bucketOf(signatureKey(signature)) + 1];
  for (size_t i = 0; i < kBuckets; ++i) bounds_[i + 1] += bounds_[i];
  // The bound of a bucket moves from its begin to its end while it is filled.
  for (uint32_t d = 0; d < documents_.size(); ++d) {
    for (uint32_t i = documents_[d].first; i < documents_[d].end; ++i) {
      const Posting posting = make(d, i);
      postings_[bounds_[bucketOf(posting.key)]++] = posting;
    }
  }
  auto first = postings_.begin();
  for (size_t bucket = 0; bucket < kBuckets; ++bucket) {
    const auto end = postings_.begin() + bounds_[bucket];
    std::sort(first, end,
              [](const Posting& left, const Posting& right) { return before(left, right); });
    first = end;
  }
}

FidSigRecord PendingBatch::fidSigRecord(size_t i) const {
  const Posting& posting = postings_[i];
  const PendingDocument& document = documents_[posting.document];
  return {static_cast<int32_t>(document.fid_offset), static_cast<int32_t>(document.source_id),
          signatureOf(posting.key)};
}

SigFidRecord PendingBatch::sigFidRecord(size_t i) const {
  const FidSigRecord record = fidSigRecord(i);
  return {record.signature, record.fid, record.source};
}

}  // namespace dlp_btree
