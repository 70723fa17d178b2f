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

constexpr size_t kLongestPath = 32768;

struct HandleCloser {
  using pointer = HANDLE;
  void operator()(HANDLE handle) const { ::CloseHandle(handle); }
};
using ScopedHandle = std::unique_ptr<void, HandleCloser>;

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

// How CreateFile is to open a file. A rewritten file is cut afterwards, once it
// is known to be one.
struct Opening {
  DWORD access = GENERIC_READ | GENERIC_WRITE;
  DWORD share = FILE_SHARE_READ | FILE_SHARE_WRITE;
  DWORD disposition = OPEN_ALWAYS;
};

Opening openingOf(OpenMode mode) {
  Opening opening;
  switch (mode) {
    case OpenMode::kRead:
      opening.access = GENERIC_READ;
      opening.disposition = OPEN_EXISTING;
      break;
    case OpenMode::kShare:
      opening.access = GENERIC_READ;
      opening.share = FILE_SHARE_READ;
      opening.disposition = OPEN_EXISTING;
      break;
    case OpenMode::kRewrite:
      opening.access = GENERIC_WRITE;
      break;
    case OpenMode::kUpdate:
      break;
    case OpenMode::kNew:
      opening.disposition = CREATE_NEW;
      break;
    case OpenMode::kOwn:
      opening.share = FILE_SHARE_READ;  // refuses every other writer for as long as it is open
      break;
  }
  return opening;
}

HANDLE createFile(const char* path, const Opening& opening, DWORD flags) {
  return ::CreateFileA(path, opening.access, opening.share, nullptr, opening.disposition,
                       FILE_ATTRIBUTE_NORMAL | flags, nullptr);
}

bool sameFile(const BY_HANDLE_FILE_INFORMATION& left, const BY_HANDLE_FILE_INFORMATION& right) {
  return left.dwVolumeSerialNumber == right.dwVolumeSerialNumber &&
         left.nFileIndexHigh == right.nFileIndexHigh && left.nFileIndexLow == right.nFileIndexLow;
}

// Opens the file itself. A reparse point that stands for another name, as links
// and junctions do, is refused. Any other kind is a plain file whose content is
// kept in a way of its own, compressed or elsewhere: it is opened once more
// without the flag, so that its keeper gets to see the open.
HANDLE openHandle(const char* path, const Opening& opening) {
  const HANDLE handle = createFile(path, opening, FILE_FLAG_OPEN_REPARSE_POINT);
  FILE_ATTRIBUTE_TAG_INFO tag;
  if (handle == INVALID_HANDLE_VALUE ||
      !::GetFileInformationByHandleEx(handle, FileAttributeTagInfo, &tag, sizeof tag) ||
      (tag.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) {
    return handle;
  }
  BY_HANDLE_FILE_INFORMATION before;
  const bool known = ::GetFileInformationByHandle(handle, &before);
  ::CloseHandle(handle);
  if (!known || IsReparseTagNameSurrogate(tag.ReparseTag)) {
    ::SetLastError(ERROR_CANT_ACCESS_FILE);
    return INVALID_HANDLE_VALUE;
  }
  Opening again = opening;
  again.disposition = OPEN_EXISTING;
  const HANDLE plain = createFile(path, again, 0);
  BY_HANDLE_FILE_INFORMATION after;
  if (plain == INVALID_HANDLE_VALUE ||
      (::GetFileInformationByHandle(plain, &after) && sameFile(before, after))) {
    return plain;
  }
  ::CloseHandle(plain);
  ::SetLastError(ERROR_CANT_ACCESS_FILE);
  return INVALID_HANDLE_VALUE;
}

class Win32System final : public System {
 public:
  std::unique_ptr<File> open(const char* path, OpenMode mode) override {
    const HANDLE handle = openHandle(path, openingOf(mode));
    if (handle == INVALID_HANDLE_VALUE) return nullptr;
    std::unique_ptr<File> file(new (std::nothrow) Win32File(handle));
    if (!file) {
      ::CloseHandle(handle);
      if (mode == OpenMode::kNew) ::DeleteFileA(path);  // nobody else knows of it
      return nullptr;
    }
    if (::GetFileType(handle) != FILE_TYPE_DISK) return nullptr;
    if (mode == OpenMode::kRewrite && !file->truncate(0)) return nullptr;
    return file;
  }

  bool finalPath(const char* path, std::string* final_path) override try {
    const DWORD attributes = ::GetFileAttributesA(path);
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) {
      *final_path = path;
      return true;
    }
    const HANDLE handle =
        ::CreateFileA(path, 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                      OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (handle == INVALID_HANDLE_VALUE) return false;
    const ScopedHandle closer(handle);
    std::string name(kLongestPath, '\0');
    const DWORD length =
        ::GetFinalPathNameByHandleA(handle, name.data(), static_cast<DWORD>(name.size()), 0);
    if (length == 0 || length >= name.size()) return false;
    final_path->assign(name, 0, length);
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }

  bool copyRights(const char* from, const char* to) override {
    Opening opening;
    opening.disposition = OPEN_EXISTING;
    const HANDLE handle = openHandle(from, opening);
    if (handle == INVALID_HANDLE_VALUE) return ::GetLastError() == ERROR_FILE_NOT_FOUND;
    const bool is_file = ::GetFileType(handle) == FILE_TYPE_DISK;
    ::CloseHandle(handle);
    if (!is_file) return false;
    DWORD bytes = 0;
    ::GetFileSecurityA(from, DACL_SECURITY_INFORMATION, nullptr, 0, &bytes);
    const std::unique_ptr<unsigned char[]> rights(new (std::nothrow) unsigned char[bytes]);
    return rights != nullptr &&
           ::GetFileSecurityA(from, DACL_SECURITY_INFORMATION, rights.get(), bytes, &bytes) &&
           ::SetFileSecurityA(to, DACL_SECURITY_INFORMATION, rights.get());
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
