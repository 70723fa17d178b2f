#define LOG_TAG "fpe_sig_search"

#include "vn_search_system.h"

#include <atomic>

#include "config_lines.h"
#include "log.h"
#include "meta_data.h"
#include "platform.h"
#include "status.h"
#include "vn_config.h"
#include "vn_fid_search_engine.h"

pthread_mutex_t search_sys_init_mutex = TESSERA_MUTEX_INITIALIZER;
pthread_mutex_t search_engine_mutex = TESSERA_MUTEX_INITIALIZER;

namespace {

int search_sys_inited = 0;  // guarded by search_sys_init_mutex

// Guarded by search_engine_mutex but for the initialisation, which clears it
// without.
std::atomic<int> search_engine_started = 0;

// Guarded like the flag but for its configuration, which the initialisation
// sets. A search works with a copy, so it keeps the tables that it began with
// and their meta data, whatever is stopped or started meanwhile.
FidIndexSearchEngine engine;

}  // namespace

int vnInitSearchSystem() {
  if (pthread_mutex_lock(&search_sys_init_mutex) != 0) {
    LOG_ERROR("lock search_sys_init_mutex fail");
    return kErrState;
  }
  if (search_sys_inited == 0) {
    IndexSysConfiguration configuration;
    int ret = configuration.Load(tessera::kConfigFileName);
    if (ret != kOk) {
      pthread_mutex_unlock(&search_sys_init_mutex);
      LOG_ERROR("load search sys configuration fail");
      return ret;
    }
    search_engine_started = 0;
    ret = engine.setConfig(configuration);
    if (ret != kOk) {
      LOG_ERROR("set search engine config fail");
      pthread_mutex_unlock(&search_sys_init_mutex);
      LOG_ERROR("init search system fail");
      return ret;
    }
    search_sys_inited = 1;
  }
  if (pthread_mutex_unlock(&search_sys_init_mutex) != 0) {
    LOG_ERROR("unlock search_sys_init_mutex fail");
    return kErrState;
  }
  return kOk;
}

int is_search_system_init(int* inited) {
  if (pthread_mutex_lock(&search_sys_init_mutex) != 0) {
    LOG_ERROR("lock search_sys_init_mutex fail");
    return kErrState;
  }
  *inited = search_sys_inited;
  if (pthread_mutex_unlock(&search_sys_init_mutex) != 0) {
    LOG_ERROR("unlock search_sys_init_mutex fail");
    return kErrState;
  }
  return kOk;
}

int vnGetSearchTableSigGenLevel(uint32_t* level, const char*, int) {
  int inited = 0;
  if (is_search_system_init(&inited) != kOk) {
    LOG_ERROR("is_search_system_init fail");
    return kErrState;
  }
  if (inited == 0) {
    LOG_ERROR("start search engine before init search system");
    return kErrState;
  }
  MetaData meta;
  const int ret = engine.getSearchTableMetaData(&meta);
  if (ret != kOk) {
    LOG_ERROR("getSearchTableMetaData fail");
    // Not locked here: the mutex checks its owner, so this does nothing.
    pthread_mutex_unlock(&search_engine_mutex);
    return ret;
  }
  *level = meta.sig_gen_level;
  return kOk;
}

int vnStartSearchEngine(const char*, int, uint32_t* level) {
  int inited = 0;
  if (is_search_system_init(&inited) != kOk) {
    LOG_ERROR("is_search_system_init fail");
    return kErrState;
  }
  if (inited == 0) {
    LOG_ERROR("start search engine before init search system");
    return kErrState;
  }
  if (pthread_mutex_lock(&search_engine_mutex) != 0) {
    LOG_ERROR("lock search_engine_mutex fail");
    return kErrState;
  }
  if (search_engine_started != 0) {
    LOG_INFO("search engine already started");
  } else {
    MetaData meta;
    const int ret = engine.Init(&meta);
    if (ret != kOk) {
      LOG_ERROR("init search engine fail");
      pthread_mutex_unlock(&search_engine_mutex);
      return ret;
    }
    LOG_INFO("search engine start");
    if (level != nullptr) *level = meta.sig_gen_level;
    search_engine_started = 1;
  }
  if (pthread_mutex_unlock(&search_engine_mutex) != 0) {
    LOG_ERROR("unlock search_engine_mutex fail");
    return kErrState;
  }
  return kOk;
}

int vnSearchSignatures(uint32_t sig_num, const Signature* signatures, int fsz,
                       SearchResult* search_ret) {
  SearchResult& ret = *search_ret;
  ret = SearchResult();
  if (pthread_mutex_lock(&search_engine_mutex) != 0) {
    LOG_ERROR("lock search_engine_mutex fail");
    return kErrState;
  }
  if (search_engine_started == 0) {
    LOG_ERROR("search engine not started when search");
    pthread_mutex_unlock(&search_engine_mutex);
    return kErrState;
  }
  const FidIndexSearchEngine search = engine;
  if (pthread_mutex_unlock(&search_engine_mutex) != 0) {
    LOG_ERROR("unlock search_engine_mutex fail");
    return kErrState;
  }

  const auto freeRanges = [&ret] {
    ret.bFind.reset();
    ret.st_pos.reset();
    ret.en_pos.reset();
  };
  const auto freeCandidates = [&ret, &freeRanges] {
    ret.fileID.reset();
    ret.srcID.reset();
    ret.freq.reset();
    freeRanges();
  };
  ret.bFind = mallocArray<uint32_t>(sig_num);
  if (!ret.bFind) {
    LOG_ERROR("no mem for search_ret.bFind");
    return kErrMem;
  }
  ret.st_pos = mallocArray<uint32_t>(sig_num);
  if (!ret.st_pos) {
    LOG_ERROR("no mem for search_ret.st_pos");
    freeRanges();
    return kErrMem;
  }
  ret.en_pos = mallocArray<uint32_t>(sig_num);
  if (!ret.en_pos) {
    LOG_ERROR("no mem for search_ret.en_pos");
    freeRanges();
    return kErrMem;
  }

  const QueryRanges ranges = {ret.bFind.get(), ret.st_pos.get(), ret.en_pos.get()};
  MallocArray<FsidPair> pairs;
  int status = search.SearchSignatures(sig_num, signatures, &ret.sig_find_num, ranges, &ret.fid_num,
                                       &pairs, &ret.freq);
  if (status != kOk) {
    LOG_ERROR("search engine fail");
    LOG_ERROR("sig_num = %u   sig_find_num = %u   fid_num = %u", sig_num, ret.sig_find_num,
              ret.fid_num);
    freeRanges();
    return status;
  }
  if (ret.fid_num == 0) return kOk;

  ret.fileID = mallocArray<int64_t>(ret.fid_num);
  if (!ret.fileID) {
    LOG_ERROR("no mem for search_ret.fileID");
    freeCandidates();
    return kErrMem;
  }
  ret.srcID = mallocArray<uint32_t>(ret.fid_num);
  if (!ret.srcID) {
    LOG_ERROR("no mem for search_ret.srcID");
    freeCandidates();
    return kErrMem;
  }
  for (uint32_t i = 0; i < ret.fid_num; ++i) {
    // Unsigned: a base near the end of the numbers must not overflow.
    ret.fileID[i] = static_cast<int64_t>(static_cast<uint64_t>(search.meta().fid_base) +
                                         static_cast<uint64_t>(int64_t{pairs[i].fid}));
    ret.srcID[i] = static_cast<uint32_t>(pairs[i].source);
  }
  status = calc_matching_level2(sig_num, fsz, search_ret);
  if (status != kOk) {
    LOG_ERROR("calc_matching_level fail (fsz = %d)", fsz);
    freeCandidates();
    return status;
  }
  return kOk;
}

int calc_matching_level2(uint32_t sig_num, int fsz, SearchResult* search_ret) {
  if (sig_num == 0) {
    LOG_ERROR("no sig_num");
    return kOk;
  }
  search_ret->match_level = mallocArray<uint32_t>(search_ret->fid_num);
  if (!search_ret->match_level) {
    LOG_ERROR("no mem for match_level");
    return kErrMem;
  }
  for (uint32_t i = 0; i < search_ret->fid_num; ++i) {
    uint32_t level = 0;
    if (fsz == 0) {
      level = 2;
    } else {
      const uint32_t hits = search_ret->freq[i];
      if (10 * hits >= sig_num || hits >= 9) {
        level = 2;
      } else if (20 * hits >= sig_num || hits >= 3) {
        level = 1;
      }
    }
    search_ret->match_level[i] = level;
  }
  return kOk;
}

int vnStopSearchEngine() {
  int inited = 0;
  if (is_search_system_init(&inited) != kOk) {
    LOG_ERROR("is_search_system_init fail");
    return kErrState;
  }
  if (inited == 0) {
    LOG_ERROR("stop search engine before init search system");
    return kErrState;
  }
  if (pthread_mutex_lock(&search_engine_mutex) != 0) {
    LOG_ERROR("lock search_engine_mutex fail");
    return kErrState;
  }
  if (search_engine_started != 0) {
    engine.release();
    search_engine_started = 0;
  } else {
    LOG_INFO("search engine already stopped");
  }
  if (pthread_mutex_unlock(&search_engine_mutex) != 0) {
    LOG_ERROR("unlock search_engine_mutex fail");
    return kErrState;
  }
  return kOk;
}
