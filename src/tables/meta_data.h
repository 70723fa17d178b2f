// The meta data record of an index: the file-ID base and the generation level.
//
// It fills "meta_data.bin" in the index directory and heads both meta files of
// the search tables, 12 bytes each time:
//
//   0          8           12
//   +----------+-----------+
//   | fid_base | sig_gen_  |   little-endian, no gap
//   | i64      | level u32 |
//   +----------+-----------+
//
// Tests: tests/unit/tables/meta_data_test.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

inline constexpr size_t kMetaDataBytes = 12;
inline constexpr char kMetaDataFileName[] = "meta_data.bin";

struct MetaData {        // 16 bytes in memory, 12 on disk: crosses only through encode and decode
  int64_t fid_base = 0;  // the file ID of the first document ever added
  uint32_t sig_gen_level = 0;  // declared by the host when the index was made
};

void encodeMetaData(const MetaData& meta, unsigned char (*record)[kMetaDataBytes]);
MetaData decodeMetaData(const unsigned char (&record)[kMetaDataBytes]);

namespace dlp_btree {

// Reads the first 12 bytes of the file into *meta. Returns 0; -1 when the file
// does not exist, -5 when it cannot be opened or is shorter: *meta is left
// alone then.
int load_meta_data(const std::string& directory, const char* file_name, MetaData* meta);

// Writes the record over the old one, cuts the file behind it and sees both and
// the file's name to the disk, where the trees' first commit, which depends on
// the base, must not come before it. The file is never empty in between unless
// it was. Always 0: a failure is logged and must not stop the addition of the
// document that caused it.
int save_meta_data(const std::string& directory, const char* file_name, const MetaData& meta);

}  // namespace dlp_btree
