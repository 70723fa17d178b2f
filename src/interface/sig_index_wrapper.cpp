// The exports of the index family: the fixed directory and level of the host's
// one index, and the limit on the size of its strong table.
// Tests: tests/unit/interface/index_test.cpp.
#define LOG_TAG "TESSERA_MODULE"

#include <atomic>
#include <string>

#include "addition_limit.h"
#include "export_guard.h"
#include "log.h"
#include "paths.h"
#include "platform.h"
#include "signature.h"
#include "status.h"
#include "tessera.h"
#include "vn_index_system_btree.h"

namespace {

constexpr char kIndexDirectory[] = "sig_index_DB";
constexpr uint32_t kFixedLevel = 3;
constexpr int kPendingAlready = 2;

constexpr int64_t kRootFileId = -1;
constexpr uint32_t kRootSource = 0xFFFFFFFF;
constexpr Signature kRootSignature = {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}};

// Bytes. Set from any thread, and by several at once.
std::atomic<uint32_t> max_stbl_size = 0x80000000;

// The size of the table that an earlier session wrote, 0 when there is none.
// It bears this name only when the configuration says so.
uint32_t strongTableSize() {
  const std::string path = filePath(kIndexDirectory, kLimitedTable);
  const auto file = platform::current().open(path.c_str(), platform::OpenMode::kRead);
  return file ? static_cast<uint32_t>(file->size()) : 0;
}

}  // namespace

int InitIndexSystem(void) try {
  if (dlp_btree::vnInitIndexSystem(kIndexDirectory, kFixedLevel, nullptr) != kOk) {
    LOG_ERROR("init index system fail");
    return kFailure;
  }
  if (dlp_btree::vnStartDocIndex() != kOk) {
    dlp_btree::vnDestroyIndexSystem();
    LOG_ERROR("start doc crawl fail");
    return kFailure;
  }
  if (dlp_btree::vnAddDocSignature(kRootFileId, kRootSource, 1, &kRootSignature) != kOk) {
    dlp_btree::vnDestroyIndexSystem();
    LOG_ERROR("add root node fail");
    return kFailure;
  }
  return kSuccess;
} catch (...) {
  dlp_btree::vnDestroyIndexSystem();  // what was opened before memory ran out
  return kFailure;
}

int AddDocSignature(int64_t file_id, unsigned char (*signatures)[8], int count) try {
  if (file_id == kRootFileId) {
    LOG_ERROR("FID invalid!");
    return kFailure;
  }
  if (strongTableSize() >= max_stbl_size) {
    LOG_ERROR("DB is too large, add sigs fail!");
    return kFailure;
  }
  // A negative count must not become a large unsigned one; a null list is
  // refused further down without being looked at.
  const int status =
      count < 0 ? kErrParam
                : dlp_btree::vnAddDocSignature(file_id, static_cast<uint32_t>(file_id),
                                               static_cast<uint32_t>(count),
                                               reinterpret_cast<const Signature*>(signatures));
  if (status == kOk) return kSuccess;
  LOG_ERROR("Add doc signature fail");
  return status == kErrPending ? kPendingAlready : kFailure;
} catch (...) {
  return kFailure;
}

int DelDocSignature(int64_t* file_ids, int count) try {
  if (count < 0) return kFailure;
  const int status = dlp_btree::vnDelDocSignature(static_cast<uint32_t>(count), file_ids);
  return status == kOk ? kSuccess : kFailure;
} catch (...) {
  return kFailure;
}

int ExitIndexSystem(void) try {
  if (dlp_btree::vnStopDocIndex() != kOk) {
    // The index is closed now, so what follows fails as well and the host is told.
    dlp_btree::vnDestroyIndexSystem();
    LOG_ERROR("stop doc crawl fail");
  }
  if (dlp_btree::vnCreateSearchTable(kIndexDirectory) != kOk) {
    LOG_ERROR("create search table fail");
  }
  if (dlp_btree::vnDestroyIndexSystem() != kOk) {
    LOG_ERROR("destroy index system fail");
    return kFailure;
  }
  return kSuccess;
} catch (...) {
  return kFailure;
}

uint32_t maxStblSize() { return max_stbl_size; }

int setMaxStblSize(unsigned int bytes) {
  max_stbl_size = bytes;
  return kSuccess;
}
