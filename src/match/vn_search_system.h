// The search system: the life of the one search engine of the process, and the
// grading of what it finds.
//
//   load --vnInitSearchSystem--> initialised --vnStartSearchEngine--> started
//                                     ^                                  |
//                                     +-------vnStopSearchEngine---------+
//
// It stays initialised for the life of the process, so the configuration file
// is read once. Searches run side by side without a lock, also beside a stop and
// a new start: they end with the tables that they began with. All functions
// return 0, or a negative status: -1 for a wrong state or a mutex that fails,
// else what the step that failed returned.
// Tests: tests/unit/match/vn_search_system_test.cpp.
#pragma once

#include <pthread.h>

#include <cstdint>

#include "scoped.h"
#include "signature.h"

// Never held together. A mutex that its own thread holds already cannot be
// locked, which is how the tests make one fail.
extern pthread_mutex_t search_sys_init_mutex;  // guards the initialised flag
extern pthread_mutex_t search_engine_mutex;    // guards the started flag, loading and releasing

// What a search finds. The arrays belong to the caller, also after a failure.
struct SearchResult {
  uint32_t sig_find_num = 0;          // query signatures found
  uint32_t fid_num = 0;               // candidate files
  MallocArray<int64_t> fileID;        // fid_num: file IDs as the host knows them
  MallocArray<uint32_t> srcID;        // fid_num: source IDs
  MallocArray<uint32_t> freq;         // fid_num: hits
  MallocArray<uint32_t> match_level;  // fid_num: 2 strong, 1 weak, 0 a trace
  MallocArray<uint32_t> bFind;        // per query signature: was it found?
  MallocArray<uint32_t> st_pos;       // per query signature: its elements of the strong
  MallocArray<uint32_t> en_pos;       // table are [st_pos, en_pos), when found
};

// Loads the configuration and hands it to the engine, unless that is done.
int vnInitSearchSystem();

// Stores the generation level of the tables on disk. The index name and the
// number steer nothing, here and below.
int vnGetSearchTableSigGenLevel(uint32_t* level, const char* index_name, int number);

// Loads the tables and stores their generation level, if `level` is not null. A
// started engine is left as it is, and so is *level.
int vnStartSearchEngine(const char* index_name, int number, uint32_t* level);

// Searches `sig_num` ascending signatures and overwrites *search_ret; `fsz` is
// that of calc_matching_level2(). Nothing found is a success: the four candidate
// arrays are null then.
int vnSearchSignatures(uint32_t sig_num, const Signature* signatures, int fsz,
                       SearchResult* search_ret);

// Releases the tables, once the searches under way are done with them; a stopped
// engine is left as it is.
int vnStopSearchEngine();

int is_search_system_init(int* inited);

// Grades the candidates by their share of the query's `sig_num` signatures: level
// 2 from a tenth or 9 hits on, 1 from a twentieth or 3, else 0. With `fsz` 0
// every candidate is a 2.
int calc_matching_level2(uint32_t sig_num, int fsz, SearchResult* search_ret);
