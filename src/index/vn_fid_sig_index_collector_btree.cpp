#define LOG_TAG "fpe_sig_index"

#include "vn_fid_sig_index_collector_btree.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "log.h"
#include "mm_register.h"
#include "paths.h"
#include "status.h"
#include "vn_win32_charset_chg.h"

namespace dlp_btree {

namespace {

constexpr uint32_t kSignatureBytes = sizeof(Signature);
constexpr uint32_t kFirstNegativeFid = 0x80000000u;

// One record of a batch on its way into a tree. `document` counts in the
// trees' order, so that `key` and `document`, in the order that a tree wants,
// stand for the whole record; `place` tells equal records apart.
struct Entry {
  uint64_t key;
  uint32_t document;
  uint32_t place;  // where it stood in the order of addition
};

bool byDocument(const Entry& left, const Entry& right) {
  if (left.document != right.document) return left.document < right.document;
  return left.key != right.key ? left.key < right.key : left.place < right.place;
}

bool byKey(const Entry& left, const Entry& right) {
  if (left.key != right.key) return left.key < right.key;
  return left.document != right.document ? left.document < right.document
                                         : left.place < right.place;
}

// The batch of one tree: its records in its own order, and room for its answer.
// All memory is taken here, so that none can run out between two trees.
template <typename Record>
class TreeBatch {
 public:
  template <typename MakeRecord>
  TreeBatch(const std::vector<Entry>& entries, MakeRecord makeRecord)
      : records_(entries.size()), places_(entries.size()), duplicated_(entries.size()) {
    refused_.reserve(entries.size());
    std::transform(entries.begin(), entries.end(), records_.begin(), makeRecord);
    std::transform(entries.begin(), entries.end(), places_.begin(),
                   [](const Entry& entry) { return entry.place; });
  }

  // False when the tree is or becomes invalid.
  template <typename Less>
  bool insertInto(BTree<Record, Less>* tree) {
    if (!tree->insertBatch(records_.data(), records_.size(), &refused_)) return false;
    for (size_t i = 0; i < places_.size(); ++i) duplicated_[places_[i]] = refused_[i];
    return true;
  }

  // Whether the record that was added at this place was there already.
  bool isDuplicated(size_t place) const { return duplicated_[place]; }

 private:
  std::vector<Record> records_;
  std::vector<uint32_t> places_;
  std::vector<bool> refused_;     // in the tree's order
  std::vector<bool> duplicated_;  // by place
};

template <typename Tree>
int openTree(TreeStore* store, size_t number, std::unique_ptr<Tree>* tree) {
  try {
    *tree = std::make_unique<Tree>(store, number);
  } catch (const std::bad_alloc&) {
    return kErrMem;
  }
  return (*tree)->is_valid() ? kOk : kErrFile;
}

}  // namespace

FidSigIndexCollector::~FidSigIndexCollector() { Reset(); }

int FidSigIndexCollector::Init(const IndexSysConfiguration& configuration,
                               const char* index_dir) try {
  Reset();
  if (configuration.sig_length != kSignatureBytes) {
    LOG_ERROR("Error: signature length inconsistent");
    return kErrState;
  }
  if (configuration.fid_index_fname[0] == '\0') {
    LOG_ERROR("invalid fid index file name");
    return kErrState;
  }
  if (configuration.search_table_fname[0] == '\0') {
    LOG_ERROR("invalid search table file name");
    return kErrState;
  }
  if (index_dir == nullptr || *index_dir == '\0') {
    LOG_ERROR("invalid index dir name");
    return kErrState;
  }
  pending_capacity_ = uint64_t{4} * configuration.max_fid_num;
  batch_element_count_ = std::max<uint32_t>(1, configuration.max_ele_num_save);
  fid_index_name_ = configuration.fid_index_fname;
  search_table_name_ = configuration.search_table_fname;
  index_dir_ = withSeparator(index_dir);

  int status = make_dir(index_dir_);
  if (status == kOk) {
    status = gen_btree();
    if (status != kOk) LOG_ERROR("gen_btree fail");
  }
  if (status != kOk) {
    Reset();
    return status;
  }
  initialised_ = true;
  return kOk;
} catch (const std::bad_alloc&) {
  Reset();
  return kErrMem;
}

int FidSigIndexCollector::make_dir(const std::string& directory) {
  if (vn_exists(directory.c_str()) || vn_mkdir(directory.c_str())) return kOk;
  LOG_ERROR("Error: vn_mkdir error");
  return kErrFile;
}

int FidSigIndexCollector::gen_btree() {
  // Zero sizes: the store derives them from its block size.
  const BTreeParams params = {.leaf_size_min = 0,
                              .leaf_size_max = 0,
                              .node_size_min = 0,
                              .node_size_max = 0,
                              .leaf_block_factor = 1,
                              .node_block_factor = 1,
                              .leaf_cache_size = 32,
                              .node_cache_size = 64};
  MM_register_base::instance().set_memory_limit(0);  // no limit

  try {
    store_ = std::make_unique<TreeStore>(index_dir_ + fid_index_name_, treeSuffixes(),
                                         AccessType::kReadWrite, params);
  } catch (const std::bad_alloc&) {
    LOG_ERROR("no mem for pFid_sig_tree");  // the store is what the first tree begins with
    return kErrMem;
  }
  if (!store_->valid() && !store_->rollback()) return kErrFile;
  int status = openTree(store_.get(), 0, &fid_sig_tree_);
  if (status == kErrMem) LOG_ERROR("no mem for pFid_sig_tree");
  if (status == kOk) {
    status = openTree(store_.get(), 1, &src_fid_tree_);
    if (status == kErrMem) LOG_ERROR("no mem for pSrc_fid_tree");
  }
  if (status == kOk) {
    status = openTree(store_.get(), 2, &sig_fid_tree_);
    if (status == kErrMem) LOG_ERROR("no mem for pSig_fid_tree");
  }
  return status;  // after a failure Init closes the trees that were opened
}

int FidSigIndexCollector::AddFidSignature(uint32_t fid_offset, uint32_t source_id, uint32_t sig_num,
                                          const Signature* sigs) {
  if (sig_num == 0) {
    LOG_NOTICE("Error: sig_num <= 0. invalid para");
    return kErrParam;
  }
  if (sigs == nullptr) {
    LOG_NOTICE("Error: sig is null. invalid para");
    return kErrParam;
  }
  if (!initialised_) {
    LOG_NOTICE("Error: add signature before init.");
    return kErrState;
  }
  if (pending_documents_.size() == pending_capacity_) {
    LOG_INFO("FidSigIndexCollector is full.");
    const int status = SaveFidSignature();
    if (status != kOk) return status;
  }
  if (pending_documents_.contains(fid_offset)) return kErrPending;

  // The documents' ranges are 32-bit numbers.
  const size_t first = pending_signatures_.size();
  if (sig_num > UINT32_MAX - first) return kErrMem;
  try {
    pending_signatures_.insert(pending_signatures_.end(), sigs, sigs + sig_num);
    pending_documents_[fid_offset] = {fid_offset, source_id, static_cast<uint32_t>(first),
                                      static_cast<uint32_t>(first + sig_num)};
  } catch (const std::bad_alloc&) {
    pending_signatures_.resize(first);
    return kErrMem;
  }
  return kOk;
}

int FidSigIndexCollector::SaveFidSignature() try {
  if (!initialised_) {
    LOG_NOTICE("Error: SaveFidSignature before init.");
    return kErrState;
  }
  // A rollback that lacked memory may have it now.
  if (!store_->valid() && !store_->rollback()) return kErrFile;
  if (pending_documents_.empty()) return std::exchange(deletion_failed_, false) ? kErrFile : kOk;

  // The map orders fid offsets as unsigned numbers, the trees as signed ones:
  // what the map has last, the documents below the base, comes first here.
  std::vector<PendingDocument> documents;
  documents.reserve(pending_documents_.size());
  const auto below_base = pending_documents_.lower_bound(kFirstNegativeFid);
  for (auto it = below_base; it != pending_documents_.end(); ++it) documents.push_back(it->second);
  const size_t first_in_map = documents.size();
  for (auto it = pending_documents_.begin(); it != below_base; ++it) {
    documents.push_back(it->second);
  }
  const auto fid = [&](const Entry& entry) {
    return static_cast<int32_t>(documents[entry.document].fid_offset);
  };
  const auto source = [&](const Entry& entry) {
    return static_cast<int32_t>(documents[entry.document].source_id);
  };
  const auto signature = [&](const Entry& entry) { return pending_signatures_[entry.place]; };

  std::vector<Entry> postings;
  postings.reserve(pending_signatures_.size());
  std::vector<Entry> sources;
  sources.reserve(documents.size());
  for (uint32_t d = 0; d < documents.size(); ++d) {
    const PendingDocument& document = documents[d];
    for (uint32_t i = document.first; i < document.end; ++i) {
      postings.push_back({signatureKey(pending_signatures_[i]), d, i});
    }
    sources.push_back({signedPairKey(static_cast<int32_t>(document.source_id),
                                     static_cast<int32_t>(document.fid_offset)),
                       d, d});
  }

  std::sort(postings.begin(), postings.end(), byDocument);
  TreeBatch<FidSigRecord> fid_sig(postings, [&](const Entry& entry) {
    return FidSigRecord{fid(entry), source(entry), signature(entry)};
  });
  std::sort(postings.begin(), postings.end(), byKey);
  TreeBatch<SigFidRecord> sig_fid(postings, [&](const Entry& entry) {
    return SigFidRecord{signature(entry), fid(entry), source(entry)};
  });
  std::sort(sources.begin(), sources.end(), byKey);
  TreeBatch<SrcFidRecord> src_fid(sources, [&](const Entry& entry) {
    return SrcFidRecord{source(entry), fid(entry)};
  });
  if (!fid_sig.insertInto(fid_sig_tree_.get()) || !sig_fid.insertInto(sig_fid_tree_.get()) ||
      !src_fid.insertInto(src_fid_tree_.get()) || !store_->commit()) {
    store_->rollback();
    return kErrFile;
  }

  // Reported as if the documents had been inserted one by one.
  for (size_t i = 0; i < documents.size(); ++i) {
    const size_t d = (first_in_map + i) % documents.size();
    for (uint32_t place = documents[d].first; place < documents[d].end; ++place) {
      if (fid_sig.isDuplicated(place)) LOG_ERROR("duplicated fid_sig value");
      if (sig_fid.isDuplicated(place)) LOG_ERROR("duplicated sig_fid value");
    }
    if (src_fid.isDuplicated(d)) {
      LOG_ERROR("duplicated src_fid value: %d, %d", static_cast<int32_t>(documents[d].source_id),
                static_cast<int32_t>(documents[d].fid_offset));
    }
  }
  pending_documents_.clear();
  pending_signatures_.clear();
  return std::exchange(deletion_failed_, false) ? kErrFile : kOk;
} catch (const std::bad_alloc&) {
  store_->rollback();
  return kErrMem;
}

int FidSigIndexCollector::DeleteFidSignature(uint32_t fid_offset) {
  if (!initialised_) {
    LOG_NOTICE("Error: DeleteFidSignature before init");
    return kErrState;
  }
  // No record of the document sorts before the probe.
  const FidSigRecord probe = {static_cast<int32_t>(fid_offset), INT32_MIN, {}};
  std::vector<FidSigRecord> found;
  fid_sig_tree_->query(
      probe,
      [](const FidSigRecord& record, const FidSigRecord& of) { return record.fid == of.fid; },
      [](const FidSigRecord& record, const FidSigRecord& of) { return record.fid > of.fid; },
      &found);

  // All memory is taken before the first tree changes. The sources ascend, as
  // the found records do.
  std::vector<SrcFidRecord> sources;
  std::vector<SigFidRecord> postings;
  postings.reserve(found.size());
  for (const FidSigRecord& record : found) {
    if (sources.empty() || sources.back().source != record.source) {
      sources.push_back({record.source, record.fid});
    }
    postings.push_back({record.signature, record.fid, record.source});
  }
  std::sort(postings.begin(), postings.end(), SigFidLess());

  std::vector<bool> absent;
  fid_sig_tree_->eraseBatch(found.data(), found.size(), &absent);
  src_fid_tree_->eraseBatch(sources.data(), sources.size(), &absent);
  sig_fid_tree_->eraseBatch(postings.data(), postings.size(), &absent);
  return kOk;
}

void FidSigIndexCollector::CommitDeletions() {
  if (!initialised_ || store_->commit()) return;
  store_->rollback();
  deletion_failed_ = true;
}

void FidSigIndexCollector::RollBackDeletions() {
  if (initialised_) store_->rollback();
}

void FidSigIndexCollector::Reset() noexcept {
  initialised_ = false;
  pending_capacity_ = 0;
  batch_element_count_ = 0;
  search_table_name_.clear();
  fid_index_name_.clear();
  index_dir_.clear();
  fid_sig_tree_.reset();
  src_fid_tree_.reset();
  sig_fid_tree_.reset();
  store_.reset();
  deletion_failed_ = false;
  pending_documents_.clear();
  pending_signatures_ = std::vector<Signature>();  // gives its memory back, as {} would not
}

}  // namespace dlp_btree
