// Tells where signatures stand in the strong table, with few and small reads.
//
// The prefix directory bounds each of them before the file is touched. A short
// range is read whole, together with the ranges of the next signatures while they
// lie close by: a read costs as much as some hundred elements that are read in
// vain. In a long range a window is read where the signature would stand if all
// below the prefix were spread evenly. Real ones crowd, so a guess that missed is
// followed by a halving, and the number of reads is logarithmic whatever the table
// holds, also for the two ends of a run that is longer than any window.
//
// What was read last is kept, so neighbours and repeated signatures are answered
// without a read. A table that is not sorted gets answers of no meaning, but
// nothing outside the bounds is looked at. Tests:
// tests/unit/match/signature_locator_test.cpp.
#pragma once

#include <cstdint>

#include "platform.h"
#include "scoped.h"
#include "table_format.h"
#include "vn_search_table_data.h"

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

class SignatureLocator {
 public:
  // The file is open for reading and outlives the locator, as does `directory`, of
  // kPrefixCount entries. A read takes at most `load_limit` elements, 1 or more.
  SignatureLocator(const StrongTable& table, const PrefixRange* directory, uint32_t load_limit);

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
  // those from `high` on are not, and those between have keys from `least` to
  // `most`.
  struct Bracket {
    uint32_t low;
    uint32_t high;
    uint64_t least;
    uint64_t most;
  };

  Bounds boundsOf(const Signature& signature) const;
  ReadResult lowerBound(uint64_t key, Bracket bracket, uint32_t next, uint32_t* position);
  ReadResult readWindow(uint64_t key, const Bracket& bracket, uint32_t next, bool guess);
  uint32_t placeInWindow(uint64_t key, uint32_t from, uint32_t to) const;
  uint32_t joinedEnd(const Bracket& bracket, uint32_t next) const;
  uint64_t keyAt(uint32_t position) const {
    return signatureKey(window_[position - begin_].signature);
  }

  const StrongTable table_;
  const PrefixRange* const directory_;
  const uint32_t capacity_;  // elements that the window can hold
  MallocArray<StrongElement> window_;
  uint32_t begin_ = 0;  // the window holds the elements [begin_, end_)
  uint32_t end_ = 0;
  QuerySpan query_ = {};
  Bounds bounds_ = {};
};
