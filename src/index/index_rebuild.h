// Makes the files of an index anew from those that are still whole.
//
//   rebuildTrees()     all three trees, from one of them or the strong table
//   rebuildMetaData()  "meta_data.bin", from the meta files of the tables
//   rebuildTables()    the four search tables, from the trees
//
// An index that lost everything but one source comes back by calling them in
// this order. Trees are built beside the old ones, as files with names of their
// own, and checked. Then one batch of the index's own journal copies them over
// the old files. So a kill, a crash or an I/O error at any moment leaves the old
// files or the new ones, never a mixture, and never less than the source:
//
//   killed while the new trees are built   the old files as they were
//   killed while they are copied           the next opening for writing, or the
//                                          next rebuild, undoes the copying
//   killed after the commit                the new trees
//
// In each case calling rebuildTrees() again does the rest; it begins by removing
// what an earlier one left. It needs three times the size of the index on disk.
// Tables are written in place, as always: after a kill, write them again.
//
// The trees are owned meanwhile, so no indexer works beside this; one that has
// the index open makes it fail. Memory does not grow with the index.
//
// All return a status of status.h and log what is wrong.
// Tests: tests/unit/index/index_rebuild_test.cpp.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "vn_config.h"

namespace dlp_btree {

enum class RebuildSource {
  kNewestTree,  // of the next two the whole one with the later commit, then with more records
  kFidSigTree,
  kSigFidTree,
  kSrcFidTree,   // impossible: it knows no signatures
  kStrongTable,  // the index as it was last closed; what was saved since is lost
};

inline constexpr size_t kRebuildBatch = size_t{1} << 20;  // records sorted in memory at once

// Returns 0; -1 when the source is not there or not whole, -3 for the src-fid
// tree, -4 without memory, -5 when the index is in use, a batch that a crash
// left cannot be undone, or a file fails; -16 for a strong table without an
// element, -113 for one that is not ascending or not what its directory says.
int rebuildTrees(const std::string& directory, const IndexSysConfiguration& configuration,
                 RebuildSource source, size_t batch_records = kRebuildBatch);

// The record of an index never changes, and the file has no check sum. So of three
// whole copies the two that agree are believed, with two that differ the file itself.
// Returns 0, also when there is nothing to do; -1 when the file is lost and no meta
// file is whole, or two are that differ; -5 when the file cannot be written.
int rebuildMetaData(const std::string& directory, const IndexSysConfiguration& configuration);

// With the meta data, if that is lost. Returns 0; -1 when the trees are not
// whole or the meta data cannot be had, -4, or -5.
int rebuildTables(const std::string& directory, const IndexSysConfiguration& configuration);

// The files that a rebuild may leave when it is killed.
std::vector<std::string> rebuildFiles(const std::string& base_name);

}  // namespace dlp_btree
