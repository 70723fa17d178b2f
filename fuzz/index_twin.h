// A whole index as a set of postings: what its sessions answer and leave behind.
// Signatures crowd, so that documents share them.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "index_model.h"
#include "input.h"

class IndexTwin {
 public:
  static constexpr int64_t kBase = -1;  // that of the root document, the first of every index

  // A session begins: the root document is pending. 0 pending documents at most
  // means that nothing is saved before the end.
  void open(uint64_t capacity) {
    capacity_ = capacity;
    pending_.clear();
    add(-1, 0xffffffff, {Signature{{255, 255, 255, 255, 255, 255, 255, 255}}});
  }

  // What AddDocSignature() returns for a document with signatures.
  int add(int64_t file_id, uint32_t source, const Signatures& signatures) {
    int32_t fid;
    if (!isNear(file_id, &fid)) return 1;
    if (pending_.size() == capacity_) save();
    const Document document = {static_cast<int32_t>(source), signatures};
    return pending_.try_emplace(fid, document).second ? 0 : 2;
  }

  // What DelDocSignature() returns.
  int erase(const std::vector<int64_t>& file_ids) {
    for (const int64_t file_id : file_ids) {
      int32_t fid;
      if (!isNear(file_id, &fid)) return 1;
      std::erase_if(saved_, [fid](const Element& element) { return element.fid == fid; });
    }
    return 0;
  }

  void save() {
    for (const auto& [fid, document] : pending_) {
      for (const Signature& signature : document.signatures) {
        saved_.insert({signature, fid, document.source});
      }
    }
    pending_.clear();
  }

  const std::set<Element>& saved() const { return saved_; }

 private:
  struct Document {
    int32_t source;
    Signatures signatures;
  };

  // Less than 2^31 away. Differences are taken in halves, which cannot overflow.
  static bool isNear(int64_t file_id, int32_t* fid) {
    constexpr int64_t kFar = int64_t{1} << 31;
    if (file_id / 2 >= kFar || file_id / 2 <= -kFar) return false;
    const int64_t distance = file_id - kBase;
    if (distance >= kFar || distance <= -kFar) return false;
    *fid = static_cast<int32_t>(distance);
    return true;
  }

  uint64_t capacity_ = 0;
  std::map<int32_t, Document> pending_;
  std::set<Element> saved_;
};

// One of 64 signatures under four prefixes; the last of them is the root's.
inline Signature crowdedSignature(Input* input) {
  static constexpr unsigned char kColumns[] = {0, 1, 128, 255};
  const uint8_t choice = input->byte();
  if ((choice & 63) == 63) return {{255, 255, 255, 255, 255, 255, 255, 255}};
  return {
      {kColumns[choice & 3], 0, 0, kColumns[choice >> 2 & 3], 0, 0, 0, kColumns[choice >> 4 & 3]}};
}

inline Signatures crowdedSignatures(Input* input, uint32_t count) {
  Signatures signatures;
  for (uint32_t i = 0; i < count; ++i) signatures.push_back(crowdedSignature(input));
  return signatures;
}

// The bytes of the strong and of the weak table for these postings.
inline void tableBytes(const std::set<Element>& elements, std::string* strong, std::string* weak) {
  strong->clear();
  weak->clear();
  const Signature* previous = nullptr;
  for (const Element& element : elements) {
    const std::string signature(reinterpret_cast<const char*>(element.signature.bytes), 8);
    if (previous == nullptr || !(*previous == element.signature)) *weak += signature;
    previous = &element.signature;
    *strong += signature;
    for (const int32_t number : {element.fid, element.source}) {
      for (int shift = 0; shift < 32; shift += 8) {
        *strong += static_cast<char>(static_cast<uint32_t>(number) >> shift);
      }
    }
  }
}
