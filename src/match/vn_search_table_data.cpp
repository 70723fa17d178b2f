#define LOG_TAG "fpe_utility"

#include "vn_search_table_data.h"

#include "log.h"
#include "status.h"

namespace {

constexpr uint32_t kSignatureBytes = sizeof(Signature);
constexpr uint32_t kElementBytes = sizeof(StrongElement);

// File sizes are 32-bit numbers here, and the largest one means a failure.
bool tableSize(platform::File* file, uint32_t* size) {
  const int64_t bytes = file->size();
  if (bytes < 0 || bytes >= int64_t{UINT32_MAX}) return false;
  *size = static_cast<uint32_t>(bytes);
  return true;
}

}  // namespace

bool readWhole(platform::File* file, void* buffer, size_t bytes) {
  return file->read(buffer, bytes) == static_cast<int64_t>(bytes);
}

int chk_sig_num_in_weak_search_table(platform::File* file, uint32_t* sig_num) {
  uint32_t size;
  if (!tableSize(file, &size)) {
    LOG_ERROR("get size of weak search table fail");
    return kErrFile;
  }
  if (size == 0) {
    LOG_INFO("weak search table empty");
  } else if (size < kSignatureBytes) {
    LOG_ERROR("Error: no signature in weak search table");
    return kErrFile;
  } else if (size % kSignatureBytes != 0) {
    LOG_ERROR("weak search table size error");
    return kErrFile;
  }
  if (sig_num != nullptr) *sig_num = size / kSignatureBytes;
  return kOk;
}

int chk_search_table_ele_num(platform::File* file, uint32_t* ele_num) {
  uint32_t size;
  if (!tableSize(file, &size)) {
    LOG_ERROR("get size of strong search table file fail");
    return kErrFile;
  }
  *ele_num = size / kElementBytes;
  if (size < kElementBytes) {
    LOG_ERROR("Error: no element in strong search table file");
    return kErrFile;
  }
  if (size % kElementBytes != 0) {
    LOG_ERROR("strong search table size error");
    return kErrFile;
  }
  return kOk;
}

ReadResult readElements(platform::File* file, uint32_t position, uint32_t count,
                        StrongElement* elements) {
  if (!file->seek(uint64_t{position} * kElementBytes)) return ReadResult::kSeekFailed;
  return readWhole(file, elements, size_t{count} * kElementBytes) ? ReadResult::kDone
                                                                  : ReadResult::kReadFailed;
}
