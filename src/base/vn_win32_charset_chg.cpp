#define LOG_TAG "fpe_sig_index"

#include "vn_win32_charset_chg.h"

#include <atomic>
#include <cstring>

#include "log.h"
#include "scoped.h"
#include "status.h"

namespace dlp_btree {

namespace {

std::atomic<int> last_error{0};

using NativePath = MallocArray<platform::PathChar>;

// Null, with the last error set, when `path` cannot be converted.
NativePath nativePath(const char* path) {
  platform::PathChar* converted = nullptr;
  if (convert_utf8_to_wchar(path, &converted) != kOk) last_error = kConversionError;
  return NativePath(converted);
}

}  // namespace

int convert_utf8_to_wchar(const char* path, platform::PathChar** converted) {
  const size_t units = std::strlen(path) + 1;
  NativePath buffer = mallocArray<platform::PathChar>(units);
  if (!buffer) {
    LOG_ERROR("no mem for wsStr_tmp");
    return kErrMem;
  }
  std::memset(buffer.get(), 0, units * sizeof(platform::PathChar));
  if (!platform::current().toNativePath(path, buffer.get(), units)) {
    LOG_ERROR("MultiByteToWideChar on file %s", path);
    return kErrState;
  }
  *converted = buffer.release();
  return kOk;
}

bool vn_exists(const char* path) {
  const NativePath native = nativePath(path);
  if (!native) return false;
  last_error = platform::current().access(native.get());
  return last_error == 0;
}

bool vn_mkdir(const char* path) {
  const NativePath native = nativePath(path);
  if (!native) return false;
  last_error = platform::current().makeDirectory(native.get());
  return last_error == 0;
}

int vn_last_error() { return last_error; }

}  // namespace dlp_btree
