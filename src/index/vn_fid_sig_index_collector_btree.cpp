#define LOG_TAG "fpe_sig_index"

#include "vn_fid_sig_index_collector_btree.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <numeric>
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

// What a tree refused of a batch. Its memory is taken at once.
class Refusals {
 public:
  explicit Refusals(size_t records) : refused_(records) { in_order_.reserve(records); }

  std::vector<bool>* answer() { return &in_order_; }  // of the tree, in its order

  // From the tree's order to that of addition, in which record i was number
  // placeOf(i).
  template <typename PlaceOf>
  void assign(PlaceOf placeOf) {
    for (size_t i = 0; i < in_order_.size(); ++i) {
      if (in_order_[i]) refused_[placeOf(i)] = true;
    }
  }
  bool at(size_t place) const { return refused_[place]; }

 private:
  std::vector<bool> in_order_;
  std::vector<bool> refused_;
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
  // By source there is one record for each document.
  std::vector<uint32_t> by_source(documents.size());
  std::iota(by_source.begin(), by_source.end(), 0);
  const auto srcFidRecord = [&](size_t i) {
    const PendingDocument& document = documents[by_source[i]];
    return SrcFidRecord{static_cast<int32_t>(document.source_id),
                        static_cast<int32_t>(document.fid_offset)};
  };
  std::sort(by_source.begin(), by_source.end(), [&](uint32_t left, uint32_t right) {
    return documents[left].source_id != documents[right].source_id
               ? static_cast<int32_t>(documents[left].source_id) <
                     static_cast<int32_t>(documents[right].source_id)
               : left < right;
  });

  // All memory but that of the trees is taken before the first of them changes.
  PendingBatch batch(documents, pending_signatures_);
  Refusals fid_sig(batch.size());
  Refusals sig_fid(batch.size());
  Refusals src_fid(documents.size());

  batch.orderByDocument();
  bool saved = fid_sig_tree_->insertBatchFrom([&](size_t i) { return batch.fidSigRecord(i); },
                                              batch.size(), fid_sig.answer());
  if (saved) {
    fid_sig.assign([&](size_t i) { return batch.place(i); });
    batch.orderBySignature();
    saved = sig_fid_tree_->insertBatchFrom([&](size_t i) { return batch.sigFidRecord(i); },
                                           batch.size(), sig_fid.answer());
  }
  if (saved) {
    sig_fid.assign([&](size_t i) { return batch.place(i); });
    saved = src_fid_tree_->insertBatchFrom(srcFidRecord, documents.size(), src_fid.answer());
  }
  if (!saved || !store_->commit()) {
    store_->rollback();
    return kErrFile;
  }
  src_fid.assign([&](size_t i) { return by_source[i]; });

  // Reported as if the documents had been inserted one by one.
  for (size_t i = 0; i < documents.size(); ++i) {
    const size_t d = (first_in_map + i) % documents.size();
    for (uint32_t place = documents[d].first; place < documents[d].end; ++place) {
      if (fid_sig.at(place)) LOG_ERROR("duplicated fid_sig value");
      if (sig_fid.at(place)) LOG_ERROR("duplicated sig_fid value");
    }
    if (src_fid.at(d)) {
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

  // All memory but that of the trees is taken before the first of them changes. The
  // sources ascend, as the found records do.
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
