#include "posting_store.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t kBuffered = 209600;  // elements, as many as the table writer has

void storeBig32(unsigned char* bytes, uint32_t value) {
  for (int i = 0; i < 4; ++i) bytes[i] = static_cast<unsigned char>(value >> (24 - 8 * i));
}

uint32_t loadBig32(const unsigned char* bytes) {
  return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
}

uint64_t loadBig64(const unsigned char* bytes) {
  return uint64_t{loadBig32(bytes)} << 32 | loadBig32(bytes + 4);
}

// Documents and sources are ordered as signed numbers.
constexpr uint32_t kSign = 0x80000000u;

}  // namespace

void require(bool success, const char* what) {
  if (success) return;
  std::fprintf(stderr, "%s failed\n", what);
  std::exit(1);
}

Key fidSigKey(uint32_t fid, uint32_t source, const Signature& signature) {
  Key key;
  storeBig32(key.bytes, fid ^ kSign);
  storeBig32(key.bytes + 4, source ^ kSign);
  std::memcpy(key.bytes + 8, signature.bytes, 8);
  return key;
}

Key sigFidKey(const Signature& signature, uint32_t fid, uint32_t source) {
  Key key;
  std::memcpy(key.bytes, signature.bytes, 8);
  storeBig32(key.bytes + 8, fid ^ kSign);
  storeBig32(key.bytes + 12, source ^ kSign);
  return key;
}

SourceKey srcFidKey(uint32_t source, uint32_t fid) {
  SourceKey key;
  storeBig32(key.bytes, source ^ kSign);
  storeBig32(key.bytes + 4, fid ^ kSign);
  return key;
}

void sortKeys(std::vector<Key>* keys) {
  std::sort(keys->begin(), keys->end(), [](const Key& left, const Key& right) {
    const uint64_t l = loadBig64(left.bytes);
    const uint64_t r = loadBig64(right.bytes);
    return l != r ? l < r : loadBig64(left.bytes + 8) < loadBig64(right.bytes + 8);
  });
}

TableFiles::TableFiles(const std::string& directory)
    : base_(directory + "/search_table"),
      weak_file_(platform::current().open((base_ + kWeakTableSuffix).c_str(),
                                          platform::OpenMode::kRewrite)),
      strong_file_(platform::current().open((base_ + kStrongTableSuffix).c_str(),
                                            platform::OpenMode::kRewrite)),
      weak_ranges_(kPrefixCount),
      strong_ranges_(kPrefixCount) {
  require(weak_file_ && strong_file_, "opening the tables");
  weak_.reserve(kBuffered);
  strong_.reserve(kBuffered);
}

void TableFiles::append(const Key& sig_fid) {
  StrongElement element;
  std::memcpy(element.signature.bytes, sig_fid.bytes, 8);
  element.fid = static_cast<int32_t>(loadBig32(sig_fid.bytes + 8) ^ kSign);
  element.source = static_cast<int32_t>(loadBig32(sig_fid.bytes + 12) ^ kSign);
  const uint32_t prefix = signaturePrefix(element.signature);
  if (strong_count_ == 0) {
    prefix_ = prefix;
  } else if (prefix != prefix_) {
    weak_ranges_[prefix_].end = weak_ranges_[prefix].start = weak_count_;
    strong_ranges_[prefix_].end = strong_ranges_[prefix].start = strong_count_;
    prefix_ = prefix;
  }
  if (strong_count_ == 0 || !(element.signature == last_)) {
    if (weak_.size() == kBuffered) flushWeak();
    weak_.push_back(element.signature);
    ++weak_count_;
    last_ = element.signature;
  }
  if (strong_.size() == kBuffered) flushStrong();
  strong_.push_back(element);
  ++strong_count_;
}

void TableFiles::flushWeak() {
  require(weak_file_->write(weak_.data(), weak_.size() * sizeof(Signature)), "writing a table");
  weak_.clear();
}

void TableFiles::flushStrong() {
  require(strong_file_->write(strong_.data(), strong_.size() * sizeof(StrongElement)),
          "writing a table");
  strong_.clear();
}

void TableFiles::finish() {
  weak_ranges_[prefix_].end = weak_count_;
  strong_ranges_[prefix_].end = strong_count_;
  flushWeak();
  flushStrong();
  require(weak_file_->sync() && strong_file_->sync(), "syncing the tables");
  // File ID base -1 and level 3, as in an index that the exports make.
  const unsigned char meta[12] = {255, 255, 255, 255, 255, 255, 255, 255, 3, 0, 0, 0};
  for (const bool weak : {true, false}) {
    const std::string path = base_ + (weak ? kWeakMetaSuffix : kStrongMetaSuffix);
    const auto file = platform::current().open(path.c_str(), platform::OpenMode::kRewrite);
    const auto& ranges = weak ? weak_ranges_ : strong_ranges_;
    require(file && file->write(meta, sizeof meta) &&
                file->write(ranges.data(), kPrefixDirectoryBytes) && file->sync(),
            "writing a meta file");
  }
}

void SortedBatchStore::add(uint32_t fid, uint32_t source,
                           const std::vector<Signature>& signatures) {
  for (const Signature& signature : signatures) {
    fid_sig_.push_back(fidSigKey(fid, source, signature));  // come in ascending order
    sig_fid_.push_back(sigFidKey(signature, fid, source));
  }
  src_fid_.push_back(srcFidKey(source, fid));
}

void SortedBatchStore::commit() {
  sortKeys(&sig_fid_);
  insert(fid_sig_, sig_fid_, src_fid_);
  fid_sig_.clear();
  sig_fid_.clear();
  src_fid_.clear();
}
