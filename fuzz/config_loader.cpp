// The configuration loader against its twin: the input is the file.
#include <cstring>
#include <string>

#include "config_twin.h"
#include "harness.h"
#include "status.h"

namespace {

void checkName(const char (&expected)[kFileNameSize], const char (&actual)[kFileNameSize]) {
  FUZZ_CHECK(std::memchr(actual, '\0', kFileNameSize) != nullptr);
  FUZZ_EQUAL(0, std::strcmp(expected, actual));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string content(reinterpret_cast<const char*>(data), size);
  MemorySystem& system = fuzz::freshSystem();
  system.write("settings.txt", content);

  IndexSysConfiguration expected;
  IndexSysConfiguration actual;
  FUZZ_EQUAL(config_twin::load(content, &expected), actual.Load("settings.txt"));

  // A failure leaves what the lines before it assigned, in both.
  FUZZ_EQUAL(8, actual.sig_length);
  FUZZ_EQUAL(expected.sig_page_size, actual.sig_page_size);
  FUZZ_EQUAL(expected.fid_chunk_size, actual.fid_chunk_size);
  FUZZ_EQUAL(expected.max_fid_num_load, actual.max_fid_num_load);
  FUZZ_EQUAL(expected.max_fid_num_save, actual.max_fid_num_save);
  FUZZ_EQUAL(expected.max_sig_num_load, actual.max_sig_num_load);
  FUZZ_EQUAL(expected.max_sig_num_save, actual.max_sig_num_save);
  FUZZ_EQUAL(expected.max_fid_num, actual.max_fid_num);
  FUZZ_EQUAL(expected.max_ele_num_load, actual.max_ele_num_load);
  FUZZ_EQUAL(expected.max_ele_num_save, actual.max_ele_num_save);
  checkName(expected.fid_index_fname, actual.fid_index_fname);
  checkName(expected.index_list_fname, actual.index_list_fname);
  checkName(expected.search_table_fname, actual.search_table_fname);

  FUZZ_CHECK(system.read("settings.txt") == content);
  FUZZ_EQUAL(1, system.names(".").size());
  return 0;
}
