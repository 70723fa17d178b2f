// The reader of the search tables: finds the documents that share signatures
// with a query.
//
// Only the two prefix directories are kept in memory. A search opens the strong
// table anew and goes through it in three steps:
//
//   query signatures --range search--> a run of elements for each that occurs
//     --build_sig_fid_info_tbl--> one (file, source) pair for every hit
//     --process_fid_info--> the files with their hit counts, five per source
//
// vn_fid_search_engine.cpp has the loading, _range.cpp and signature_locator.cpp
// the first step, _rank.cpp the other two. What is loaded never changes and is
// counted: a copy of the engine shares it, and searches with it while the original
// is released or loads other tables. The engine has no lock: loading, releasing and
// copying must not run beside each other, while searches only read it and may run
// side by side. The steps are public for the tests.
//
// The strong table on disk may be rewritten at any time, by another process
// too. Its element count must be the one of the loading, both when a step opens
// it and after the last read, or the step fails: a directory and a table that
// do not belong together must not give an answer.
// Tests: tests/unit/match/vn_fid_search_engine_*.
#pragma once

#include <cstdint>
#include <memory>

#include "meta_data.h"
#include "platform.h"
#include "scoped.h"
#include "signature_locator.h"
#include "table_format.h"
#include "vn_config.h"

// The answers, one entry for each query signature. Elements [st_pos, en_pos)
// bear the signature where bFind is 1. Where it is 0 the other two tell nothing
// to rely on: the place where the signature would stand, if it was looked for.
struct QueryRanges {
  uint32_t* bFind;
  uint32_t* st_pos;
  uint32_t* en_pos;
};

// What a search needs to know of tables that it does not hold in memory.
struct LoadedTables {
  MetaData meta;                              // the weak side's record
  uint32_t ele_num = 0;                       // elements of the strong table
  MallocArray<PrefixRange> weak_sig_block;    // kPrefixCount entries
  MallocArray<PrefixRange> strong_sig_block;  // kPrefixCount entries
  Spread spread;                              // of the strong table
};

inline constexpr uint32_t kTableNameSize = 40;
inline constexpr uint32_t kTablePathSize = 210;
using TableName = char[kTableNameSize];
using TablePath = char[kTablePathSize];

class FidIndexSearchEngine {
 public:
  // Takes the limits and the tables' base name, at most 31 characters. What was
  // loaded is released. Returns 0, or -9: nothing is configured then. The second
  // form takes another name than the configuration's.
  int setConfig(const IndexSysConfiguration& configuration);
  int setConfig(const IndexSysConfiguration& configuration, const char* search_table_fname);

  // Writes `directory`, "/" and the file's name to each destination that is not
  // null. Returns 0, or -3 when the length test fails.
  int gen_search_table_path(const char* directory, TablePath* wtbl, TablePath* wmeta,
                            TablePath* stbl, TablePath* smeta) const;

  // Loads both prefix directories and checks the tables against them; *meta
  // becomes the weak side's record. Loads anew when it had loaded before.
  // Returns 0; -1 when not configured, -4, -5, -112 or -113: nothing is loaded
  // then. Meta records that differ are only reported: the strong directory is
  // then empty, so that nothing is found.
  int Init(MetaData* meta);

  // Reads the weak side's meta data record; needs no Init. Returns 0, -1, -3 or
  // -5.
  int getSearchTableMetaData(MetaData* meta) const;

  void release();  // undoes Init; copies of the engine keep what it had loaded
  bool initialised() const { return tables_ != nullptr; }
  const MetaData& meta() const { return tables_->meta; }  // what Init stored; needs Init

  // The whole search; needs Init. Fills `ranges` for `sig_num` signatures,
  // ascending, of which *sig_find_num were found, and hands out *fid_num files
  // with their hit counts: by source, then falling count, then file. No file is
  // a success, with both arrays null.
  int SearchSignatures(uint32_t sig_num, const Signature* signatures, uint32_t* sig_find_num,
                       const QueryRanges& ranges, uint32_t* fid_num,
                       MallocArray<FsidPair>* fid_info, MallocArray<uint32_t>* freq) const;

  // Its first step alone.
  int SearchSignatures(uint32_t sig_num, const Signature* signatures, uint32_t* sig_find_num,
                       const QueryRanges& ranges) const;

  // All signatures of `query` against the elements [low, high) of the locator's
  // table, as far as they have the signature's prefix.
  int dbinary_find_signature_range(SignatureLocator* locator, const QuerySpan& query, uint32_t low,
                                   uint32_t high, uint32_t* found_num,
                                   const QueryRanges& ranges) const;

  // Reads the pairs of all found ranges, in the order of the query: *fsid_num of
  // them. Returns 0; -1 when there is none, -4 or -5: *fsid is null then.
  int build_sig_fid_info_tbl(uint32_t sig_num, const QueryRanges& ranges, uint32_t* fsid_num,
                             MallocArray<FsidPair>* fsid) const;

  // Turns *fid_num pairs into the relevant files and their hit counts, and
  // *fid_num into their number. After a failure *freq is null.
  int process_fid_info(uint32_t* fid_num, MallocArray<FsidPair>* fsid,
                       MallocArray<uint32_t>* freq) const;

  // By file, then source.
  int quick_sort_fsid_pair(uint32_t n, FsidPair* fsid) const;

  // By source, then falling count, then file; the two arrays go together.
  int quick_sort_fsid_freq_pair(uint32_t n, FsidPair* fsid, uint32_t* freq) const;

  // Sorts the *n files and keeps the five with the most hits of every source.
  int select_relevant_fid(uint32_t* n, MallocArray<FsidPair>* fsid,
                          MallocArray<uint32_t>* freq) const;

 private:
  // The two steps as the whole search runs them: what the first reads of the hits
  // on its way is kept for the second. `kept` may be null.
  int SearchSignatures(uint32_t sig_num, const Signature* signatures, uint32_t* sig_find_num,
                       const QueryRanges& ranges, KeptPairs* kept) const;
  int build_sig_fid_info_tbl(uint32_t sig_num, const QueryRanges& ranges, KeptPairs* kept,
                             uint32_t* fsid_num, MallocArray<FsidPair>* fsid) const;

  uint32_t loadLimit() const;
  int countElements(platform::File* strong_table, uint32_t* ele_num) const;

  uint32_t configured_ = 0;
  uint32_t sig_length_ = 0;        // kept, not used
  uint32_t max_sig_num_load_ = 0;  // kept, not used
  uint32_t max_ele_num_load_ = 0;  // elements
  TableName wtbl_name_ = "";
  TableName wmeta_name_ = "";
  TableName stbl_name_ = "";
  TableName smeta_name_ = "";
  TablePath wtbl_path_ = "";
  TablePath wmeta_path_ = "";
  TablePath stbl_path_ = "";
  TablePath smeta_path_ = "";
  std::shared_ptr<const LoadedTables> tables_;  // null when nothing is loaded
};

// The elements that a batch spans and a read takes, at most. A configured 0 or 1
// acts as 2.
inline uint32_t FidIndexSearchEngine::loadLimit() const {
  return max_ele_num_load_ < 2 ? 2 : max_ele_num_load_;
}
