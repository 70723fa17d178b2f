// Tells where signatures stand in the strong table, with few and small reads.
//
// The prefix directory bounds each of them before the file is touched. A short
// range is read whole, together with the ranges of the next signatures while they
// lie close by: a read costs as much as some hundred elements that are read in
// vain. In a long range a window is read where the signature is to be expected.
// Real ones crowd, so a guess that missed is followed by a halving, and the number
// of reads is logarithmic whatever the table holds, also for the two ends of a run
// that is longer than any window.
//
// What was read last is kept, so neighbours and repeated signatures are answered
// without a read. A table that is not sorted gets answers of no meaning, but
// nothing outside the bounds is looked at. Tests:
// tests/unit/match/signature_locator_test.cpp.
#pragma once

#include <array>
#include <cstdint>

#include "platform.h"
#include "scoped.h"
#include "table_format.h"
#include "vn_search_table_data.h"

struct FsidPair {
  int32_t fid;     // distance from fid_base
  int32_t source;  // source ID
};
static_assert(sizeof(FsidPair) == 8, "hits are counted by the million");

// The strong table as a search has opened it.
struct StrongTable {
  platform::File* file;
  uint32_t ele_num;  // elements: nothing beyond is read
};

// Some of the query's signatures, ascending; equal ones may repeat.
struct QuerySpan {
  uint32_t n;
  const Signature* signatures;
  const uint32_t* bOut;  // n marks: 1 for a signature whose prefix does not occur
};

// How the signatures of one prefix are likely to spread. All bytes of a signature
// are sums of the same kind, so the later ones are taken to be distributed as the
// second is, which the directory tells.
class Spread {
 public:
  Spread() = default;
  explicit Spread(const PrefixRange* directory);

  // The share of a prefix's signatures that is less than the key: from 0 to 1.
  double below(uint64_t key) const;

 private:
  std::array<double, 257> below_ = {};  // by the byte's value
};

// The pairs of runs that were read while they were located, in the order of the
// query, so that they need not be read again. There is room for as many as a query
// is likely to have; runs that do not fit are left out.
class KeptPairs {
 public:
  explicit KeptPairs(uint32_t sig_num) : sig_num_(sig_num) {}

  bool allocate();  // once; false when memory is out. Comes before the first keep().

  void keep(uint32_t first, uint32_t last, const StrongElement* elements);

  // The pairs of the run [first, last), if it is the next one that was kept.
  const FsidPair* take(uint32_t first, uint32_t last);

 private:
  struct Run {
    uint32_t first;
    uint32_t last;
  };

  static constexpr uint32_t kPairsPerSignature = 4;

  const uint32_t sig_num_;
  const uint64_t capacity_ = uint64_t{sig_num_} * kPairsPerSignature;  // pairs
  MallocArray<FsidPair> pairs_;
  MallocArray<Run> runs_;
  uint64_t pair_num_ = 0;
  uint64_t pairs_taken_ = 0;
  uint32_t run_num_ = 0;
  uint32_t runs_taken_ = 0;
};

class SignatureLocator {
 public:
  // What is passed outlives the locator: the file, open for reading; `directory`,
  // of kPrefixCount entries; `kept`, which gets what is read of runs and may be
  // null. A read takes at most `load_limit` elements, 1 or more.
  SignatureLocator(const StrongTable& table, const PrefixRange* directory, const Spread& spread,
                   uint32_t load_limit, KeptPairs* kept);

  // Makes room for what is read, once; false when memory is out. Comes first.
  bool allocate();

  // Stores for each signature that is not marked where its run begins and ends
  // within the elements [low, high); the place where it would stand, twice, if it
  // is absent. A range that the table does not have fails as a read.
  ReadResult locate(const QuerySpan& query, uint32_t low, uint32_t high, uint32_t* first,
                    uint32_t* last);

 private:
  struct Bounds {
    uint32_t low;
    uint32_t high;
  };

  // Where the first element of a key or more can be: those before `low` are less,
  // those from `high` on are not. `below_low` and `below_high` are what the spread
  // has at the two ends.
  struct Bracket {
    uint32_t low;
    uint32_t high;
    double below_low;
    double below_high;
  };

  Bounds boundsOf(const Signature& signature) const;
  ReadResult lowerBound(uint64_t key, Bracket bracket, uint32_t next, uint32_t* position);
  uint32_t expectedPlace(uint64_t key, const Bracket& bracket) const;
  ReadResult readWindow(uint64_t key, const Bracket& bracket, uint32_t next, bool guess);
  uint32_t placeInWindow(uint64_t key, uint32_t from, uint32_t to) const;
  uint32_t joinedEnd(const Bracket& bracket, uint32_t next) const;
  uint64_t keyAt(uint32_t position) const {
    return signatureKey(window_[position - begin_].signature);
  }

  const StrongTable table_;
  const PrefixRange* const directory_;
  const Spread& spread_;
  KeptPairs* const kept_;
  const uint32_t capacity_;  // elements that the window can hold
  MallocArray<StrongElement> window_;
  uint32_t begin_ = 0;  // the window holds the elements [begin_, end_)
  uint32_t end_ = 0;
  QuerySpan query_ = {};
  Bounds bounds_ = {};
};
