// The persistent index of signatures by document.
//
// Documents wait in memory, by their fid offset, until SaveFidSignature()
// writes them together into three B-trees that hold the same postings in three
// orders (tree_records.h). Each tree gets the whole batch in its own order,
// which makes one pass over the disk of what would be a random walk; what it
// refuses as present is remembered and reported afterwards, document by
// document. Deletions go to the trees at once and do not see pending documents.
//
// The search tables are written from the sig-fid tree
// (vn_fid_sig_index_collector_btree_tables.cpp; their format is in
// table_format.h).
//
// Not thread-safe: the index system's collector mutex guards it.
// Tests: tests/unit/index/vn_fid_sig_index_collector_btree*_test.cpp,
// tests/unit/index/out_of_memory_test.cpp, tests/property/index_property_test.cpp.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "meta_data.h"
#include "pending_batch.h"
#include "signature.h"
#include "tree_records.h"
#include "vn_config.h"

namespace dlp_btree {

class FidSigIndexCollector {
 public:
  FidSigIndexCollector() = default;
  ~FidSigIndexCollector();
  FidSigIndexCollector(const FidSigIndexCollector&) = delete;
  FidSigIndexCollector& operator=(const FidSigIndexCollector&) = delete;

  // Opens the trees in `index_dir`, creating directory (one level) and trees
  // when they are missing; resets the collector first when it is initialised.
  // Returns 0; -1 for a bad signature length, name or directory, -4 without
  // memory, -5 when the directory or a tree cannot be had. A failure leaves the
  // collector reset.
  int Init(const IndexSysConfiguration& configuration, const char* index_dir);

  // Queues a document with its `sig_num` signatures, which are copied, saving
  // the pending ones first when the collector is full. Returns 0; -3 without
  // signatures, -1 before Init, -12 when this fid offset is pending (the first
  // addition stands), -4 without memory, or the status of the save. Nothing is
  // queued unless 0 is returned.
  int AddFidSignature(uint32_t fid_offset, uint32_t source_id, uint32_t sig_num,
                      const Signature* sigs);

  // Writes the pending documents into the trees and commits: all of them, or
  // none. Records that are there already are logged and no failure. Returns 0;
  // -1 before Init, -4 without memory, -5 after an I/O error: the documents stay
  // pending then and nothing is logged as duplicated. -5 also once, with the
  // documents saved, when deletions before could not be made lasting.
  int SaveFidSignature();

  // Removes a document's records. Returns 0, also when there are none, or -1
  // before Init. Throws std::bad_alloc. Any number of deletions is followed by
  // one of the next two.
  int DeleteFidSignature(uint32_t fid_offset);

  // Makes the deletions lasting, all of them or none. An I/O error, now or
  // while deleting, is told by the next save.
  void CommitDeletions();
  void RollBackDeletions();

  // Writes the four search tables anew, `meta_data` at the head of both meta
  // files. Returns 0; -1 before Init, -3 without a directory, -4 or -5, leaving
  // incomplete files behind.
  int CreateSearchTable(const char* sch_table_dir, const MetaData& meta_data);

  // The same four files with length 0, which stand for an empty index.
  int CreateEmptySearchTable(const char* sch_table_dir);

  // Closes the trees and forgets everything, pending documents included.
  void Reset() noexcept;

 private:
  int make_dir(const std::string& directory);
  int gen_btree();

  bool initialised_ = false;
  uint64_t pending_capacity_ = 0;     // documents; tested for equality
  uint32_t batch_element_count_ = 0;  // of each buffer of the table writer
  std::string search_table_name_;
  std::string fid_index_name_;
  std::string index_dir_;  // ends in a separator

  std::map<uint32_t, PendingDocument> pending_documents_;  // by fid offset
  std::vector<Signature> pending_signatures_;              // in the order added

  bool deletion_failed_ = false;  // and no save has told it yet

  std::unique_ptr<TreeStore> store_;  // of the three trees
  std::unique_ptr<FidSigTree> fid_sig_tree_;
  std::unique_ptr<SrcFidTree> src_fid_tree_;
  std::unique_ptr<SigFidTree> sig_fid_tree_;
};

}  // namespace dlp_btree
