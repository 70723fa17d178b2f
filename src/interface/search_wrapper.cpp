// The counting search of tessera_search.h: the search of MatchSignature(), of which
// more is handed out.
// Tests: tests/unit/search/search_test.cpp.
#define LOG_TAG "TESSERA_MODULE"

#include <cstdlib>

#include "export_guard.h"
#include "log.h"
#include "scoped.h"
#include "signature.h"
#include "tessera_search.h"
#include "vn_search_system.h"

extern "C" int tessera_search(unsigned char (*signatures)[8], int count, int fsz,
                              tessera_hit** result, int* result_count) try {
  if (result != nullptr) *result = nullptr;
  if (result_count != nullptr) *result_count = 0;
  if (result == nullptr || result_count == nullptr) return kFailure;
  if (count < 0 || signatures == nullptr) return kFailure;

  SearchResult found;
  const int status = vnSearchSignatures(
      static_cast<uint32_t>(count), reinterpret_cast<const Signature*>(signatures), fsz, &found);
  if (status != 0) {
    LOG_ERROR("Search signature fail!");
    return kFailure;
  }
  if (found.fid_num == 0) return kSuccess;
  auto records = mallocArray<tessera_hit>(found.fid_num);
  if (!records) {
    LOG_ERROR("No enough space for match result");
    return kFailure;
  }
  for (uint32_t i = 0; i < found.fid_num; ++i) {
    records[i] = {found.fileID[i], static_cast<int32_t>(found.match_level[i]), found.freq[i]};
  }
  *result_count = static_cast<int>(found.fid_num);
  *result = records.release();
  return kSuccess;
} catch (...) {
  return kFailure;
}

extern "C" void tessera_free_hits(tessera_hit* result) { std::free(result); }
