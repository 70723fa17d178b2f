// The platform contract on Windows. Files are read and written at explicit
// positions through the overlapped offset, so a seek costs no system call.
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <io.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <new>

#include "platform.h"

namespace platform {

namespace {

// ReadFile and WriteFile count in 32 bits.
constexpr size_t kLargestTransfer = 1u << 30;

class Win32File final : public File {
 public:
  explicit Win32File(HANDLE handle) : handle_(handle) {}
  ~Win32File() override { ::CloseHandle(handle_); }
  Win32File(const Win32File&) = delete;
  Win32File& operator=(const Win32File&) = delete;

  bool seek(uint64_t offset) override {
    if (offset > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return false;
    position_ = offset;
    return true;
  }

  int64_t read(void* buffer, size_t bytes) override {
    size_t done = 0;
    while (done < bytes) {
      OVERLAPPED at = position();
      DWORD got = 0;
      const DWORD part = static_cast<DWORD>(std::min(bytes - done, kLargestTransfer));
      if (!::ReadFile(handle_, static_cast<char*>(buffer) + done, part, &got, &at)) {
        if (::GetLastError() == ERROR_HANDLE_EOF) break;
        return -1;
      }
      if (got == 0) break;
      done += got;
      position_ += got;
    }
    return static_cast<int64_t>(done);
  }

  bool write(const void* data, size_t bytes) override {
    size_t done = 0;
    while (done < bytes) {
      OVERLAPPED at = position();
      DWORD put = 0;
      const DWORD part = static_cast<DWORD>(std::min(bytes - done, kLargestTransfer));
      if (!::WriteFile(handle_, static_cast<const char*>(data) + done, part, &put, &at) ||
          put == 0) {
        return false;
      }
      done += put;
      position_ += put;
    }
    return true;
  }

  int64_t size() override {
    LARGE_INTEGER size;
    return ::GetFileSizeEx(handle_, &size) ? static_cast<int64_t>(size.QuadPart) : -1;
  }

  bool truncate(uint64_t size) override {
    LARGE_INTEGER end;
    end.QuadPart = static_cast<LONGLONG>(size);
    return ::SetFilePointerEx(handle_, end, nullptr, FILE_BEGIN) && ::SetEndOfFile(handle_);
  }

  bool sync() override { return ::FlushFileBuffers(handle_) != 0; }

 private:
  OVERLAPPED position() const {
    OVERLAPPED at = {};
    at.Offset = static_cast<DWORD>(position_);
    at.OffsetHigh = static_cast<DWORD>(position_ >> 32);
    return at;
  }

  const HANDLE handle_;
  uint64_t position_ = 0;
};

HANDLE openHandle(const char* path, OpenMode mode) {
  DWORD access = GENERIC_READ;
  DWORD share = FILE_SHARE_READ | FILE_SHARE_WRITE;
  DWORD disposition = OPEN_EXISTING;
  switch (mode) {
    case OpenMode::kRead:
      break;
    case OpenMode::kRewrite:
      access = GENERIC_WRITE;
      disposition = CREATE_ALWAYS;
      break;
    case OpenMode::kOwn:
      share = FILE_SHARE_READ;  // refuses every other writer for as long as it is open
      [[fallthrough]];
    case OpenMode::kUpdate:
      access = GENERIC_READ | GENERIC_WRITE;
      disposition = OPEN_ALWAYS;
      break;
  }
  return ::CreateFileA(path, access, share, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
}

class Win32System final : public System {
 public:
  std::unique_ptr<File> open(const char* path, OpenMode mode) override {
    const HANDLE handle = openHandle(path, mode);
    if (handle == INVALID_HANDLE_VALUE) return nullptr;
    std::unique_ptr<File> file(new (std::nothrow) Win32File(handle));
    if (!file) {
      ::CloseHandle(handle);
      return nullptr;
    }
    if (::GetFileType(handle) != FILE_TYPE_DISK) return nullptr;
    return file;
  }

  bool remove(const char* path) override { return ::DeleteFileA(path) != 0; }

  bool rename(const char* from, const char* to) override {
    return ::MoveFileExA(from, to, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0;
  }

  // NTFS journals its directories; there is no handle to flush.
  bool syncDirectory(const char*) override { return true; }

  bool toNativePath(const char* utf8, PathChar* native, size_t units) override {
    const int limit = static_cast<int>(std::min<size_t>(units, INT_MAX));
    return ::MultiByteToWideChar(CP_UTF8, 0, utf8, -1, native, limit) != 0;
  }

  int access(const PathChar* path) override { return ::_waccess(path, 0) == 0 ? 0 : errno; }

  int makeDirectory(const PathChar* path) override { return ::_wmkdir(path) == 0 ? 0 : errno; }

  uint32_t allocationGranularity() override {
    SYSTEM_INFO info;
    ::GetSystemInfo(&info);
    return info.dwAllocationGranularity;
  }

  const char* environment(const char* name) override { return std::getenv(name); }

  int64_t time() override { return static_cast<int64_t>(std::time(nullptr)); }

  void* allocate(size_t bytes) override { return std::malloc(bytes); }
};

}  // namespace

System& native() {
  // Never destroyed: the index may still be closed while the library unloads.
  alignas(Win32System) static unsigned char storage[sizeof(Win32System)];
  static System& system = *new (storage) Win32System;
  return system;
}

}  // namespace platform
