#define LOG_TAG "fpe_sig_index"

#include "index_rebuild.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "index_verify.h"
#include "journalled_files.h"
#include "log.h"
#include "meta_data.h"
#include "paths.h"
#include "record_scan.h"
#include "status.h"
#include "table_format.h"
#include "vn_fid_sig_index_collector_btree.h"
#include "vn_win32_charset_chg.h"

namespace dlp_btree {

namespace {

using platform::OpenMode;

constexpr size_t kCopyBytes = size_t{1} << 20;
constexpr uint64_t kMetaFileBytes = kMetaDataBytes + kPrefixDirectoryBytes;

// No longer than the trees' own names, whose length has a limit.
std::string newBaseName(const std::string& base_name) { return base_name + ".new"; }
std::vector<std::string> newSuffixes() { return {"1", "2", "3"}; }

bool anyExists(const std::vector<std::string>& paths) {
  return std::any_of(paths.begin(), paths.end(),
                     [](const std::string& path) { return vn_exists(path.c_str()); });
}

// The old files, made ours, and brought back to their last commit.
bool takeIndex(const std::string& base_name, JournalledFiles* index) {
  const std::vector<std::string> paths = TreeStore::filePaths(base_name, treeSuffixes());
  for (const size_t of_tree : {0, 1, 2, 3}) {  // the leaf blocks first, as every owner does
    for (size_t i = of_tree; i < paths.size(); i += 4) {
      if (index->open(i, paths[i], of_tree == 0 ? OpenMode::kOwn : OpenMode::kUpdate)) continue;
      LOG_ERROR("file %s is in use or cannot be opened", paths[i].c_str());
      return false;
    }
  }
  if (index->recover(false)) return true;
  LOG_ERROR("the batch that was broken off cannot be undone");
  return false;
}

// Three new trees, filled in any order.
class TreeBuilder {
 public:
  TreeBuilder(const std::string& base_name, size_t batch_records)
      : store_(base_name, newSuffixes(), AccessType::kReadWrite, {}),
        fid_sig_(&store_, 0),
        src_fid_(&store_, 1),
        sig_fid_(&store_, 2),
        batch_records_(std::max<size_t>(1, batch_records)) {}

  bool add(const FidSigRecord& record) {
    postings_.push_back(record);
    ++count_;
    return postings_.size() < batch_records_ || flush();
  }

  bool flush() {
    std::sort(postings_.begin(), postings_.end(), FidSigLess());
    std::vector<SrcFidRecord> documents;
    std::vector<SigFidRecord> by_signature;
    by_signature.reserve(postings_.size());
    for (const FidSigRecord& r : postings_) {
      if (documents.empty() || documents.back().fid != r.fid || documents.back().source != r.source)
        documents.push_back({r.source, r.fid});
      by_signature.push_back({r.signature, r.fid, r.source});
    }
    std::sort(documents.begin(), documents.end(), SrcFidLess());
    std::sort(by_signature.begin(), by_signature.end(), SigFidLess());
    std::vector<bool> refused;  // a document may go on in the next batch
    const bool done = fid_sig_.insertBatch(postings_.data(), postings_.size(), &refused) &&
                      sig_fid_.insertBatch(by_signature.data(), by_signature.size(), &refused) &&
                      src_fid_.insertBatch(documents.data(), documents.size(), &refused) &&
                      store_.commit();
    postings_.clear();
    return done;
  }

  uint64_t count() const { return count_; }  // records added

 private:
  TreeStore store_;
  FidSigTree fid_sig_;
  SrcFidTree src_fid_;
  SigFidTree sig_fid_;
  const size_t batch_records_;
  std::vector<FidSigRecord> postings_;
  uint64_t count_ = 0;
};

FidSigRecord asFidSig(const FidSigRecord& r) { return r; }
FidSigRecord asFidSig(const SigFidRecord& r) { return {r.fid, r.source, r.signature}; }

// A tree of the index, opened without the others.
template <typename Tree>
struct SourceTree {
  SourceTree(const std::string& base_name, const char* suffix)
      : store(base_name, {suffix}, AccessType::kReadOnly, {}), tree(&store, 0) {}

  bool isWhole() { return tree.is_valid() && tree.verify(); }
  std::pair<uint64_t, uint64_t> rank() const { return {store.transaction(), tree.size()}; }

  TreeStore store;
  Tree tree;
};

template <typename Tree>
int copyTree(const std::string& base_name, const char* suffix, TreeBuilder* builder) {
  SourceTree<Tree> source(base_name, suffix);
  if (!source.isWhole()) {
    LOG_ERROR("the tree %s is not there or damaged", suffix);
    return kErrState;
  }
  TreeScan scan(&source.tree);
  while (const auto* record = scan.next()) {
    if (!builder->add(asFidSig(*record))) return kErrFile;
  }
  return builder->count() == source.tree.size() ? kOk : kErrFile;
}

int copyNewestTree(const std::string& base_name, TreeBuilder* builder) {
  bool sig_fid = true;
  {
    SourceTree<FidSigTree> by_fid(base_name, kFidSigSuffix);
    SourceTree<SigFidTree> by_signature(base_name, kSigFidSuffix);
    if (by_fid.isWhole()) {
      sig_fid = by_signature.isWhole() && by_signature.rank() > by_fid.rank();
    }
  }
  return sig_fid ? copyTree<SigFidTree>(base_name, kSigFidSuffix, builder)
                 : copyTree<FidSigTree>(base_name, kFidSigSuffix, builder);
}

// The table must be a whole one: one that was broken off would pass as smaller.
int copyStrongTable(const std::string& table_name, TreeBuilder* builder) {
  const auto table =
      platform::current().open((table_name + kStrongTableSuffix).c_str(), OpenMode::kRead);
  const auto meta =
      platform::current().open((table_name + kStrongMetaSuffix).c_str(), OpenMode::kRead);
  const int64_t bytes = table && meta ? table->size() : -1;
  if (bytes < 0) {
    LOG_ERROR("the strong table is not there");
    return kErrState;
  }
  if (bytes == 0) {
    LOG_ERROR("the strong table is empty");
    return VN_NO_INDEX_DATA_ERR;
  }
  std::vector<PrefixRange> directory(kPrefixCount);
  std::vector<PrefixRange> found(kPrefixCount);
  if (!meta->seek(kMetaDataBytes) ||
      meta->read(directory.data(), kPrefixDirectoryBytes) != int64_t{kPrefixDirectoryBytes}) {
    LOG_ERROR("the directory of the strong table cannot be read");
    return kErrStrongTable;
  }
  TableScan<SigFidRecord> scan(table.get());
  SigFidRecord before = {};
  uint32_t count = 0;
  while (const SigFidRecord* element = scan.next()) {
    if (count > 0 && !SigFidLess()(before, *element)) {
      LOG_ERROR("the strong table is out of order");
      return kErrStrongTable;
    }
    if (!builder->add(asFidSig(*element))) return kErrFile;
    PrefixRange& range = found[signaturePrefix(element->signature)];
    if (range.end == 0) range.start = count;
    range.end = ++count;
    before = *element;
  }
  if (uint64_t{count} * sizeof(SigFidRecord) == static_cast<uint64_t>(bytes) &&
      std::memcmp(directory.data(), found.data(), kPrefixDirectoryBytes) == 0) {
    return kOk;
  }
  LOG_ERROR("the strong table is not what its directory says");
  return kErrStrongTable;
}

int buildTrees(const std::string& base_name, const std::string& table_name, RebuildSource source,
               size_t batch_records) {
  const std::string new_base = newBaseName(base_name);
  uint64_t count = 0;
  {
    TreeBuilder builder(new_base, batch_records);
    int status = kErrParam;
    switch (source) {
      case RebuildSource::kNewestTree:
        status = copyNewestTree(base_name, &builder);
        break;
      case RebuildSource::kFidSigTree:
        status = copyTree<FidSigTree>(base_name, kFidSigSuffix, &builder);
        break;
      case RebuildSource::kSigFidTree:
        status = copyTree<SigFidTree>(base_name, kSigFidSuffix, &builder);
        break;
      case RebuildSource::kStrongTable:
        status = copyStrongTable(table_name, &builder);
        break;
      case RebuildSource::kSrcFidTree:
        break;
    }
    if (status == kOk && !builder.flush()) status = kErrFile;
    if (status != kOk) return status;
    count = builder.count();
  }
  Verification built;
  if (verifyTrees(new_base, newSuffixes(), &built) && !built.isDamaged() &&
      built.postings == count) {
    return kOk;
  }
  LOG_ERROR("the new trees are not what was written");
  return kErrFile;
}

bool copyOver(const std::vector<std::string>& new_paths, JournalledFiles* index) {
  // Saved before anything is written, so that one sync of the journal serves all.
  for (size_t i = 0; i < new_paths.size(); ++i) {
    for (uint64_t at = 0; at < index->length(i); at += kCopyBytes) {
      if (!index->saveOld(i, at, kCopyBytes)) return false;
    }
  }
  if (!index->barrier()) return false;
  std::vector<char> buffer(kCopyBytes);
  for (size_t i = 0; i < new_paths.size(); ++i) {
    const auto from = platform::current().open(new_paths[i].c_str(), OpenMode::kRead);
    if (!from) return false;
    const int64_t size = from->size();
    for (int64_t at = 0; at < size;) {
      const int64_t bytes = from->read(buffer.data(), buffer.size());
      if (bytes <= 0 ||
          !index->write(i, static_cast<uint64_t>(at), buffer.data(), static_cast<size_t>(bytes))) {
        return false;
      }
      at += bytes;
    }
    if (size < 0 || !index->setLength(i, static_cast<uint64_t>(size))) return false;
  }
  return index->commit();
}

void removeFiles(const std::vector<std::string>& paths) {
  for (const std::string& path : paths) platform::current().remove(path.c_str());
}

// The record at the head of a whole meta file.
bool readMetaFile(const std::string& path, MetaData* meta) {
  const auto file = platform::current().open(path.c_str(), OpenMode::kRead);
  unsigned char record[kMetaDataBytes];
  if (!file || file->size() != static_cast<int64_t>(kMetaFileBytes) ||
      file->read(record, sizeof record) != int64_t{sizeof record}) {
    return false;
  }
  *meta = decodeMetaData(record);
  return true;
}

bool sameRecord(const MetaData& left, const MetaData& right) {
  return left.fid_base == right.fid_base && left.sig_gen_level == right.sig_gen_level;
}

}  // namespace

std::vector<std::string> rebuildFiles(const std::string& base_name) {
  const std::string new_base = newBaseName(base_name);
  std::vector<std::string> paths = TreeStore::filePaths(new_base, newSuffixes());
  paths.push_back(new_base + kJournalSuffix);
  return paths;
}

int rebuildTrees(const std::string& directory, const IndexSysConfiguration& configuration,
                 RebuildSource source, size_t batch_records) try {
  if (source == RebuildSource::kSrcFidTree) {
    LOG_ERROR("the tree by source holds no signatures to rebuild from");
    return kErrParam;
  }
  const std::string base_name = filePath(directory, configuration.fid_index_fname);
  const std::string table_name = filePath(directory, configuration.search_table_fname);
  std::vector<std::string> sources = TreeStore::filePaths(base_name, treeSuffixes());
  if (source == RebuildSource::kStrongTable) sources = {table_name + kStrongTableSuffix};
  if (!anyExists(sources)) {  // a wrong directory must not be littered
    LOG_ERROR("no index in %s", directory.c_str());
    return kErrState;
  }
  JournalledFiles index(base_name);
  if (!takeIndex(base_name, &index)) return kErrFile;
  const std::vector<std::string> new_files = rebuildFiles(base_name);
  removeFiles(new_files);
  int status = buildTrees(base_name, table_name, source, batch_records);
  if (status == kOk) {
    const std::vector<std::string> new_paths =
        TreeStore::filePaths(newBaseName(base_name), newSuffixes());
    bool copied = false;
    try {
      copied = copyOver(new_paths, &index);
    } catch (const std::bad_alloc&) {
      status = kErrMem;
    }
    if (!copied) {
      LOG_ERROR("the new trees cannot be copied over the old ones");
      if (status == kOk) status = kErrFile;
      index.rollback();  // if that fails, the next opening does it
    }
  }
  removeFiles(new_files);
  return status;
} catch (const std::bad_alloc&) {
  return kErrMem;
}

int rebuildMetaData(const std::string& directory, const IndexSysConfiguration& configuration) try {
  MetaData present;
  const bool is_present = load_meta_data(directory, kMetaDataFileName, &present) == kOk;
  const std::string table_name = filePath(directory, configuration.search_table_fname);
  MetaData meta;
  MetaData other;
  const bool weak = readMetaFile(table_name + kWeakMetaSuffix, &meta);
  const bool strong = readMetaFile(table_name + kStrongMetaSuffix, &other);
  const bool agree = weak && strong && sameRecord(meta, other);
  if (is_present && (!agree || sameRecord(present, meta))) return kOk;
  if (!agree && weak == strong) {
    LOG_ERROR("the meta files have no meta data record, or two");
    return kErrState;
  }
  if (!weak) meta = other;
  unsigned char record[kMetaDataBytes];
  encodeMetaData(meta, &record);
  const std::string path = filePath(directory, kMetaDataFileName);
  const std::string new_path = path + ".new";
  auto file = platform::current().open(new_path.c_str(), OpenMode::kRewrite);
  const bool written = file && file->write(record, sizeof record) && file->sync();
  file.reset();
  if (written && platform::current().rename(new_path.c_str(), path.c_str()) &&
      platform::current().syncDirectory(directoryOf(path).c_str())) {
    return kOk;
  }
  LOG_ERROR("write meta data file fail");
  return kErrFile;
} catch (const std::bad_alloc&) {
  return kErrMem;
}

int rebuildTables(const std::string& directory, const IndexSysConfiguration& configuration) try {
  // Before the collector is let near: it would make missing trees, and the
  // tables are lost once it writes them.
  const std::string base_name = filePath(directory, configuration.fid_index_fname);
  if (!anyExists(TreeStore::filePaths(base_name, treeSuffixes()))) {
    LOG_ERROR("no index in %s", directory.c_str());
    return kErrState;
  }
  {
    JournalledFiles index(base_name);
    if (!takeIndex(base_name, &index)) return kErrFile;
  }
  Verification trees;
  verifyTrees(base_name, treeSuffixes(), &trees);
  if (std::any_of(trees.findings.begin(), trees.findings.end(), [](const Finding& finding) {
        return finding.severity == Severity::kDamage && finding.remedy != Remedy::kOpenForWriting;
      })) {
    LOG_ERROR("the trees are damaged");
    return kErrState;
  }
  int status = rebuildMetaData(directory, configuration);
  if (status != kOk) return status;
  MetaData meta;
  status = load_meta_data(directory, kMetaDataFileName, &meta);
  if (status != kOk) return status;
  FidSigIndexCollector collector;
  status = collector.Init(configuration, directory.c_str());
  return status == kOk ? collector.CreateSearchTable(directory.c_str(), meta) : status;
} catch (const std::bad_alloc&) {
  return kErrMem;
}

}  // namespace dlp_btree
