#define LOG_TAG "fpe_sig_index"

#include "vn_index_system_btree.h"

#include <atomic>
#include <new>
#include <string>

#include "config_lines.h"
#include "log.h"
#include "meta_data.h"
#include "mutex_aux.h"
#include "status.h"
#include "vn_config.h"
#include "vn_fid_sig_index_collector_btree.h"

namespace dlp_btree {

namespace {

constexpr uint64_t kLargestDistance = 0x7FFFFFFF;

pthread_mutex_t index_sys_init_mutex = TESSERA_MUTEX_INITIALIZER;  // taken first
pthread_mutex_t index_collector_mutex = TESSERA_MUTEX_INITIALIZER;

bool index_sys_inited = false;   // guarded by index_sys_init_mutex
std::string index_directory;     // guarded by index_sys_init_mutex
FidSigIndexCollector collector;  // guarded by index_collector_mutex

// Read and written without a lock. The flag is set last and read first, so
// whoever sees it sees a base.
std::atomic<int64_t> fid_base{0};
std::atomic<uint32_t> sig_gen_level{0};
std::atomic<bool> b_meta_data_load{false};  // the index has a base

bool isInitialised() {
  const Mutex_Aux lock(&index_sys_init_mutex);
  return index_sys_inited;
}

std::string indexDirectory() {
  const Mutex_Aux lock(&index_sys_init_mutex);
  return index_directory;
}

uint32_t high32(uint64_t value) { return static_cast<uint32_t>(value >> 32); }
uint32_t low32(uint64_t value) { return static_cast<uint32_t>(value); }

}  // namespace

int process_fid(int64_t fid, int64_t base, uint32_t* fid_offset) {
  // Unsigned: the distance of two 64-bit numbers needs all 64 bits.
  const uint64_t f = static_cast<uint64_t>(fid);
  const uint64_t b = static_cast<uint64_t>(base);
  const uint64_t distance = fid > base ? f - b : b - f;
  if (distance > kLargestDistance) {
    LOG_ERROR("file ID out of range (%u, %u)", high32(f), low32(f));
    LOG_ERROR("file ID base (%u, %u)", high32(b), low32(b));
    LOG_ERROR("file ID out of range (off) (%u, %u)", high32(distance), low32(distance));
    return kErrState;
  }
  *fid_offset = low32(f - b);
  return kOk;
}

int vnInitIndexSystem(const char* index_dir, uint32_t level, const char* config_path) {
  const Mutex_Aux init_lock(&index_sys_init_mutex);
  if (index_sys_inited) return kErrState;
  if (index_dir == nullptr) return kErrParam;
  index_directory = index_dir;

  // An index without a readable base is a new one.
  MetaData meta_data = {0, level};
  const bool loaded = load_meta_data(index_directory, kMetaDataFileName, &meta_data) == kOk;
  b_meta_data_load = false;
  fid_base = meta_data.fid_base;
  sig_gen_level = meta_data.sig_gen_level;
  b_meta_data_load = loaded;

  const bool path_given = config_path != nullptr && *config_path != '\0';
  IndexSysConfiguration configuration;
  int status = configuration.Load(path_given ? config_path : tessera::kConfigFileName);
  if (status != kOk) {
    LOG_ERROR("load index sys configuration fail");
    return status;
  }
  const Mutex_Aux collector_lock(&index_collector_mutex);
  status = collector.Init(configuration, index_dir);
  if (status != kOk) {
    LOG_ERROR("set collector config fail");
    return status;
  }
  index_sys_inited = true;
  return kOk;
}

int vnStartDocIndex() {
  if (!isInitialised()) {
    LOG_ERROR("vnStartDocIndex before init index system");
    return kErrState;
  }
  return kOk;
}

int vnAddDocSignature(int64_t fid, uint32_t source_id, uint32_t sig_num, const Signature* sigs) {
  if (!isInitialised()) {
    LOG_ERROR("vnAddDocSignature before init index system");
    return kErrState;
  }
  uint32_t fid_offset = 0;
  if (!b_meta_data_load) {
    const std::string directory = indexDirectory();
    fid_base = fid;
    b_meta_data_load = true;
    try {
      save_meta_data(directory, kMetaDataFileName, {fid, sig_gen_level});
    } catch (...) {
      b_meta_data_load = false;  // in memory alone the base would be another one next time
      throw;
    }
  } else if (process_fid(fid, fid_base, &fid_offset) != kOk) {
    return kErrState;
  }
  const Mutex_Aux lock(&index_collector_mutex);
  return collector.AddFidSignature(fid_offset, source_id, sig_num, sigs);
}

int vnDelDocSignature(uint32_t fid_num, const int64_t* fids) {
  if (fids == nullptr) return kErrParam;
  if (!isInitialised()) {
    LOG_ERROR("vnDelDocSignature before init index system");
    return kErrState;
  }
  if (!b_meta_data_load) {
    LOG_ERROR("no meta data, it means no index signatures");
    return kErrState;
  }
  const Mutex_Aux lock(&index_collector_mutex);
  int status = kOk;
  try {
    for (uint32_t i = 0; i < fid_num && status == kOk; ++i) {
      uint32_t fid_offset;
      status = process_fid(fids[i], fid_base, &fid_offset);
      if (status == kOk) collector.DeleteFidSignature(fid_offset);
    }
    collector.CommitDeletions();  // those before an unfit file ID stand
  } catch (const std::bad_alloc&) {
    collector.RollBackDeletions();
    status = kErrMem;
  }
  return status;
}

int vnStopDocIndex() {
  if (!isInitialised()) {
    LOG_ERROR("vnStopDocIndex before init index system");
    return kErrState;
  }
  const Mutex_Aux lock(&index_collector_mutex);
  const int status = collector.SaveFidSignature();
  if (status != kOk) LOG_ERROR("SaveFidSignature error in vnStopDocIndex");
  return status;
}

int vnCreateSearchTable(const char* sch_table_dir) {
  if (!isInitialised()) {
    LOG_ERROR("vnCreateSearchTable before init index system");
    return kErrState;
  }
  const Mutex_Aux lock(&index_collector_mutex);
  if (b_meta_data_load) {
    return collector.CreateSearchTable(sch_table_dir, {fid_base, sig_gen_level});
  }
  const int status = collector.CreateEmptySearchTable(sch_table_dir);
  LOG_ERROR("kilo_dbg b_meta_data_load == 0, create empty search table");
  return status;
}

int vnDestroyIndexSystem() {
  const Mutex_Aux init_lock(&index_sys_init_mutex);
  if (!index_sys_inited) return kErrState;
  const Mutex_Aux collector_lock(&index_collector_mutex);
  collector.Reset();
  index_sys_inited = false;
  return kOk;
}

}  // namespace dlp_btree
