// The slow, obvious twin of the collector: sets of records, a map of pending
// documents, and the messages that it must have logged. Nothing of the library
// is used but the type of a signature, which is turned into a byte string at
// once (std::string compares bytes as unsigned).
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "signature.h"

class IndexModel {
 public:
  using Bytes = std::string;                           // a signature's eight bytes
  using FidSig = std::tuple<int32_t, int32_t, Bytes>;  // fid, source, signature
  using SrcFid = std::pair<int32_t, int32_t>;          // source, fid
  using SigFid = std::tuple<Bytes, int32_t, int32_t>;  // signature, fid, source

  explicit IndexModel(uint64_t max_fid_num) : capacity_(4 * max_fid_num) {}

  static Bytes bytesOf(const Signature& signature) {
    return Bytes(reinterpret_cast<const char*>(signature.bytes), 8);
  }

  // Returns the status that AddFidSignature() returns.
  int add(uint32_t fid, uint32_t source, const std::vector<Signature>& signatures) {
    if (signatures.empty()) {
      messages_.push_back("Error: sig_num <= 0. invalid para");
      return -3;
    }
    if (pending_.size() == capacity_) {
      messages_.push_back("FidSigIndexCollector is full.");
      save();
    }
    if (pending_.count(fid) != 0) return -12;
    Document document = {source, {}};
    for (const Signature& signature : signatures) document.signatures.push_back(bytesOf(signature));
    pending_[fid] = document;
    return 0;
  }

  void save() {
    for (const auto& [offset, document] : pending_) {
      const int32_t fid = static_cast<int32_t>(offset);
      const int32_t source = static_cast<int32_t>(document.source);
      for (const Bytes& signature : document.signatures) {
        if (!fid_sig_.insert({fid, source, signature}).second) {
          messages_.push_back("duplicated fid_sig value");
        }
        if (!sig_fid_.insert({signature, fid, source}).second) {
          messages_.push_back("duplicated sig_fid value");
        }
      }
      if (!src_fid_.insert({source, fid}).second) {
        messages_.push_back("duplicated src_fid value: " + std::to_string(source) + ", " +
                            std::to_string(fid));
      }
    }
    pending_.clear();
  }

  void erase(uint32_t offset) {
    const int32_t fid = static_cast<int32_t>(offset);
    for (auto record = fid_sig_.begin(); record != fid_sig_.end();) {
      const auto& [holder, source, signature] = *record;
      if (holder != fid) {
        ++record;
        continue;
      }
      src_fid_.erase({source, fid});
      sig_fid_.erase({signature, fid, source});
      record = fid_sig_.erase(record);
    }
  }

  void dropPending() { pending_.clear(); }

  const std::set<FidSig>& fidSig() const { return fid_sig_; }
  const std::set<SrcFid>& srcFid() const { return src_fid_; }
  const std::set<SigFid>& sigFid() const { return sig_fid_; }

  // What must have been logged since the last call, in order.
  std::vector<std::string> takeMessages() { return std::exchange(messages_, {}); }
  void expectMessage(const std::string& message) { messages_.push_back(message); }

 private:
  struct Document {
    uint32_t source;
    std::vector<Bytes> signatures;
  };

  const uint64_t capacity_;
  std::map<uint32_t, Document> pending_;
  std::set<FidSig> fid_sig_;
  std::set<SrcFid> src_fid_;
  std::set<SigFid> sig_fid_;
  std::vector<std::string> messages_;
};
