// The search tables: what the index writes and the match side reads.
//
// Four files share a base name. All integers are little-endian; signatures
// ascend in the order of memcmp.
//
// NAME.wtbl, the weak table: every distinct signature once.
//
//   0            8            16
//   +------------+------------+--
//   | signature  | signature  | ...          count = size / 8
//   +------------+------------+--
//
// NAME.stbl, the strong table: every (signature, document) pair, one signature's
// elements ordered by fid and then by source, both as signed numbers.
//
//   0            8       12       16
//   +------------+-------+--------+--
//   | signature  | fid   | source | ...      count = size / 16
//   |            | i32   | i32    |
//   +------------+-------+--------+--
//
// NAME.wmeta and NAME.smeta, one for each table, 524300 bytes: the meta data
// record and the prefix directory of its table.
//
//   0          8           12                                 524300
//   +----------+-----------+----------------------------------+
//   | fid_base | sig_gen_  | PrefixRange[65536]               |
//   | i64      | level u32 | { u32 start, u32 end }           |
//   +----------+-----------+----------------------------------+
//
// Entry p covers the elements of the table whose signature begins with the
// bytes p / 256, p % 256: positions [start, end), in elements, not bytes. An
// occurring prefix has end >= 1, so end == 0 alone says "absent".
//
// An index without signatures has four files of length 0.
#pragma once

#include <bit>
#include <cstdint>

#include "signature.h"

// The structures below are written and read as they stand.
static_assert(std::endian::native == std::endian::little, "the files are little-endian");

inline constexpr char kWeakTableSuffix[] = ".wtbl";
inline constexpr char kStrongTableSuffix[] = ".stbl";
inline constexpr char kWeakMetaSuffix[] = ".wmeta";
inline constexpr char kStrongMetaSuffix[] = ".smeta";

struct StrongElement {
  Signature signature;
  int32_t fid;     // the file ID's distance from fid_base
  int32_t source;  // source ID
};
static_assert(sizeof(StrongElement) == 16, "an element is its bytes in the file");

struct PrefixRange {
  uint32_t start;
  uint32_t end;
};
static_assert(sizeof(PrefixRange) == 8, "65536 of them are read in one call");

inline constexpr uint32_t kPrefixCount = 65536;
inline constexpr size_t kPrefixDirectoryBytes = kPrefixCount * sizeof(PrefixRange);
