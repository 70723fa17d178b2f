// The tunable sizes and file names that the index and match systems share.
//
// They are read from a text file with one assignment a line:
//
//   max_fid_num = 4000
//   fid_index_fname = "my_index"
//
// Keys are exact, twelve of them are known and may stand once each; others are
// checked for form and ignored. A value is a decimal number or a quoted word
// without blanks. Lines are shorter than 259 bytes, their end included.
// Tests: tests/unit/tables/vn_config_test.cpp.
#pragma once

#include <cstdint>

inline constexpr uint32_t kFileNameSize = 30;  // 29 characters and the NUL

class IndexSysConfiguration {
 public:
  // Overwrites the fields that the file names. Returns 0; -3 without a path,
  // -5 when the file cannot be opened or read, -8 when a line is malformed, too
  // long, or repeats a key. A failure leaves the lines before it assigned.
  int Load(const char* path);

  uint32_t sig_length = 8;             // bytes per signature, fixed
  uint32_t sig_page_size = 64;         // signatures; kept for the file's sake, unused
  uint32_t fid_chunk_size = 128;       // file IDs; unused
  uint32_t max_fid_num_load = 2096;    // unused
  uint32_t max_fid_num_save = 4192;    // unused
  uint32_t max_sig_num_load = 209600;  // unused
  uint32_t max_sig_num_save = 419200;  // unused
  uint32_t max_fid_num = 2096;         // the collector holds four times as many documents
  char fid_index_fname[kFileNameSize] = "fid_index";    // base name of the trees
  char index_list_fname[kFileNameSize] = "index_list";  // unused
  uint32_t max_ele_num_load = 209600;                   // elements the search loads at once
  uint32_t max_ele_num_save = 209600;                   // elements in the table writer's buffers
  char search_table_fname[kFileNameSize] = "search_table";  // base name of the tables
};
