#include "index_verify.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "bte_stream_base.h"
#include "index_rebuild.h"
#include "index_verify_parts.h"
#include "meta_data.h"
#include "paths.h"
#include "record_scan.h"
#include "undo_journal.h"

namespace dlp_btree {

namespace {

bool isAbsentOrEmpty(const std::string& path) {
  if (!vn_exists(path.c_str())) return true;
  const auto file = platform::current().open(path.c_str(), platform::OpenMode::kRead);
  return file != nullptr && file->size() == 0;
}

bool headerIsSound(const IndexFile& opened, const std::string& path, BlockFileHeader* header,
                   Verification* v) {
  BlockFileHeaderBytes bytes;
  if (opened.bytes == 0) {
    reportDamage(v, Remedy::kRebuildTrees, path, "is empty");
  } else if (!readWhole(opened.file.get(), bytes.data(), bytes.size()) ||
             !decodeBlockFileHeader(bytes, header)) {
    reportDamage(v, Remedy::kRebuildTrees, path, "has a damaged header");
  } else if (header->os_block_size != platform::current().allocationGranularity()) {
    reportDamage(v, Remedy::kRebuildTrees, path,
                 "has blocks of " + number(header->os_block_size) + " bytes");
  } else if (header->fileLength() != opened.bytes) {
    reportDamage(
        v, Remedy::kRebuildTrees, path,
        "has " + number(opened.bytes) + " bytes instead of " + number(header->fileLength()));
  } else {
    return true;
  }
  return false;
}

// What one tree holds, in a form that the others can be compared with.
struct TreeAudit {
  std::string name;
  bool sound = false;
  uint64_t transaction = 0;
  PostingDigest postings;
  PostingDigest documents;  // its pairs of fid and source
};

// The tree has a store of its own, so that damage of another does not hide it.
template <typename Tree, typename Visit>
void auditTree(const std::string& base_name, const std::string& suffix, Visit visit,
               TreeAudit* audit, Verification* v) {
  audit->name = base_name + suffix;
  const std::vector<std::string> paths = TreeStore::filePaths(base_name, {suffix});
  std::vector<IndexFile> files;
  for (const std::string& path : paths) {  // an opening for writing makes stacks anew
    const bool is_stack = files.size() % 2 == 1;
    files.push_back(openFile(path, is_stack ? Remedy::kOpenForWriting : Remedy::kRebuildTrees, v));
  }
  if (!std::all_of(files.begin(), files.end(),
                   [](const IndexFile& f) { return f.file != nullptr; })) {
    return;
  }
  BlockFileHeader leaves;
  BlockFileHeader nodes;
  const bool leaves_sound = headerIsSound(files[0], paths[0], &leaves, v);
  if (!headerIsSound(files[2], paths[2], &nodes, v) || !leaves_sound) return;
  audit->transaction = leaves.transaction;
  v->transaction = std::max(v->transaction, leaves.transaction);

  TreeStore store(base_name, {suffix}, AccessType::kReadOnly, {});
  if (!store.valid()) {
    reportDamage(v, Remedy::kRebuildTrees, audit->name,
                 "has headers that contradict each other (commits " + number(leaves.transaction) +
                     " and " + number(nodes.transaction) + ")");
    return;
  }
  v->used_blocks += leaves.used_blocks + nodes.used_blocks;
  v->free_blocks += leaves.freeBlocks() + nodes.freeBlocks();

  Tree tree(&store, 0);
  std::string problem;
  if (!tree.verify(&problem)) {
    // Free blocks that nobody knows are found last, so all else is sound then,
    // and the next opening for writing makes the stack anew.
    const bool stack_only = (store.leaves(0).stackIsDamaged() || store.nodes(0).stackIsDamaged()) &&
                            problem.starts_with("lost blocks");
    reportDamage(v, stack_only ? Remedy::kOpenForWriting : Remedy::kRebuildTrees, audit->name,
                 (stack_only ? "has a damaged stack of free blocks: " : "is damaged: ") + problem);
    return;
  }
  uint64_t records = 0;
  TreeScan scan(&tree);
  for (auto* record = scan.next(); record != nullptr; record = scan.next(), ++records) {
    visit(*record);
  }
  audit->sound = records == tree.size();
  if (!audit->sound) {
    reportDamage(v, Remedy::kRebuildTrees, audit->name,
                 "cannot be read past record " + number(records));
  }
}

void compareTrees(const TreeAudit& left, const TreeAudit& right, const char* what,
                  const PostingDigest& of_left, const PostingDigest& of_right, Verification* v) {
  const std::string right_name = right.name.substr(right.name.find_last_of("/\\") + 1);
  if (!left.sound || !right.sound) {
    report(v, Severity::kNote, Remedy::kNone, left.name, "was not compared with " + right_name);
    return;
  }
  if (left.transaction != right.transaction) {
    reportDamage(v, Remedy::kRebuildTrees, left.name,
                 "is of commit " + number(left.transaction) + ", " + right_name + " of commit " +
                     number(right.transaction));
  }
  if (!(of_left == of_right)) {
    reportDamage(v, Remedy::kRebuildTrees, left.name,
                 "has other " + std::string(what) + " than " + right_name + ": " +
                     number(of_left.count()) + " against " + number(of_right.count()));
  }
}

// Reads the record; false without a whole one.
bool verifyMetaData(const std::string& path, unsigned char (*record)[kMetaDataBytes],
                    Verification* v) {
  if (v->postings + v->signatures == 0 && !vn_exists(path.c_str()))
    return false;  // no document so far
  const IndexFile opened = openFile(path, Remedy::kRebuildMetaData, v);
  if (!opened.file) return false;
  if (!readWhole(opened.file.get(), *record, kMetaDataBytes)) {
    reportDamage(v, Remedy::kRebuildMetaData, path,
                 opened.bytes < kMetaDataBytes ? "is cut" : "cannot be read");
    return false;
  }
  if (opened.bytes > kMetaDataBytes) {
    report(v, Severity::kWarning, Remedy::kNone, path, "is longer than its record");
  }
  return true;
}

}  // namespace

bool Verification::isDamaged() const {
  return std::any_of(findings.begin(), findings.end(),
                     [](const Finding& finding) { return finding.severity == Severity::kDamage; });
}

bool verifyTrees(const std::string& base_name, const std::vector<std::string>& suffixes,
                 Verification* v) {
  BatchBegin begin;
  const std::string journal_path = base_name + kJournalSuffix;
  const UndoJournal::State journal = UndoJournal(journal_path).open(true, &begin);
  if (journal != UndoJournal::State::kIdle) {
    const bool batch = journal == UndoJournal::State::kBatch;
    reportDamage(v, batch ? Remedy::kOpenForWriting : Remedy::kNone, journal_path,
                 batch
                     ? "interrupted: a batch was broken off; the next opening for writing undoes it"
                     : "cannot be read");
    return false;
  }
  const std::vector<std::string> paths = TreeStore::filePaths(base_name, suffixes);
  if (std::all_of(paths.begin(), paths.end(), isAbsentOrEmpty)) {
    reportDamage(v, Remedy::kNone, base_name, "no index: none of its trees is there");
    return false;
  }

  TreeAudit fid_sig;
  TreeAudit src_fid;
  TreeAudit sig_fid;
  std::optional<FidSigRecord> before;
  const auto visitFidSig = [&](const FidSigRecord& r) {
    fid_sig.postings.add(r.fid, r.source, r.signature);
    if (!before || before->fid != r.fid) ++v->documents;
    if (!before || before->fid != r.fid || before->source != r.source) {
      fid_sig.documents.add(r.fid, r.source, {});
    }
    before = r;
  };
  auditTree<FidSigTree>(base_name, suffixes[0], visitFidSig, &fid_sig, v);
  auditTree<SrcFidTree>(
      base_name, suffixes[1],
      [&](const SrcFidRecord& r) { src_fid.documents.add(r.fid, r.source, {}); }, &src_fid, v);
  std::optional<Signature> signature;
  const auto visitSigFid = [&](const SigFidRecord& r) {
    sig_fid.postings.add(r.fid, r.source, r.signature);
    if (!signature || !(*signature == r.signature)) ++v->signatures;
    signature = r.signature;
  };
  auditTree<SigFidTree>(base_name, suffixes[2], visitSigFid, &sig_fid, v);
  v->postings = fid_sig.postings.count();
  compareTrees(fid_sig, sig_fid, "postings", fid_sig.postings, sig_fid.postings, v);
  compareTrees(fid_sig, src_fid, "documents", fid_sig.documents, src_fid.documents, v);
  return sig_fid.sound;
}

// Who opens an index for writing owns the leaf blocks of its trees.
WriterBar::WriterBar(const std::string& directory, const IndexSysConfiguration& configuration) {
  const std::string base_name = filePath(directory, configuration.fid_index_fname);
  for (const std::string& suffix : treeSuffixes()) {
    const std::string path = TreeStore::filePaths(base_name, {suffix}).front();
    auto file = platform::current().open(path.c_str(), platform::OpenMode::kShare);
    if (!file && platform::current().open(path.c_str(), platform::OpenMode::kRead)) {
      in_use_ = true;
      files_.clear();
      return;
    }
    files_.push_back(std::move(file));
  }
}

Verification verifyIndex(const std::string& directory, const IndexSysConfiguration& configuration) {
  Verification v;
  const std::string base_name = filePath(directory, configuration.fid_index_fname);
  const bool sig_fid_sound = verifyTrees(base_name, treeSuffixes(), &v);
  for (const std::string& path : rebuildFiles(base_name)) {
    if (!vn_exists(path.c_str())) continue;
    report(&v, Severity::kNote, Remedy::kNone, path,
           "left by a rebuild that was broken off; the next one removes it");
  }
  const std::string meta_path = filePath(directory, kMetaDataFileName);
  unsigned char meta_data[kMetaDataBytes];
  const bool has_meta = verifyMetaData(meta_path, &meta_data, &v);

  std::optional<TreeStore> store;
  std::optional<SigFidTree> tree;
  if (sig_fid_sound) {
    store.emplace(base_name, std::vector<std::string>{kSigFidSuffix}, AccessType::kReadOnly,
                  BTreeParams{});
    tree.emplace(&*store, 0);
  }
  verifyTables(filePath(directory, configuration.search_table_fname), tree ? &*tree : nullptr,
               meta_path, has_meta ? meta_data : nullptr, &v);
  return v;
}

}  // namespace dlp_btree
