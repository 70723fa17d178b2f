// Everything the library asks of the operating system, in one contract.
//
// `System` is implemented once per system (platform_posix.cpp,
// platform_win32.cpp; the build chooses). The library only ever talks to
// current(), so a test can put a System of its own in front of the native one
// to count calls, to let the n-th one fail, or to keep files in memory.
// Nothing here logs or throws: a failure is a plain result, and the caller
// knows what it means. Tests: tests/unit/platform/.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <memory>

// A statically initialised mutex that reports an unlock by a thread that does
// not hold it instead of leaving that undefined.
#if defined(PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP)
#define TESSERA_MUTEX_INITIALIZER PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP
#else
#define TESSERA_MUTEX_INITIALIZER PTHREAD_ERRORCHECK_MUTEX_INITIALIZER
#endif

namespace platform {

// What the system's directory calls take: UTF-16 on Windows, UTF-8 elsewhere.
#ifdef _WIN32
using PathChar = wchar_t;
inline constexpr char kSeparator = '\\';
#else
using PathChar = char;
inline constexpr char kSeparator = '/';
#endif

enum class OpenMode {
  kRead,     // an existing file, reading only
  kRewrite,  // writing only; created, or cut to length 0
  kUpdate,   // reading and writing; created empty when absent
  kOwn,      // as kUpdate, and refused while anyone else has it open with kOwn;
             // Windows keeps every other writer out as well
};

// An open regular file with a position of its own; destruction closes it. One
// thread at a time.
class File {
 public:
  virtual ~File() = default;

  // Sets the position, in bytes from the start. May lie past the end.
  virtual bool seek(uint64_t offset) = 0;

  // Reads up to `bytes` and moves the position. Returns the bytes read: fewer
  // than asked only at the end of the file, -1 on an error.
  virtual int64_t read(void* buffer, size_t bytes) = 0;

  // Writes all `bytes` and moves the position, or fails; a part may have been
  // written then.
  virtual bool write(const void* data, size_t bytes) = 0;

  virtual int64_t size() = 0;                // bytes; -1 on an error
  virtual bool truncate(uint64_t size) = 0;  // cuts or extends with zeros
  virtual bool sync() = 0;                   // data and length reach the disk
};

class System {
 public:
  virtual ~System() = default;

  // Null when the file cannot be opened, is no regular file, or is owned by
  // somebody else. `path` is narrow and passed on as it stands. On POSIX systems
  // new files are readable and writable by their owner only; on Windows they
  // inherit the rights of their directory.
  virtual std::unique_ptr<File> open(const char* path, OpenMode mode) = 0;

  // Windows refuses both while the file is open.
  virtual bool remove(const char* path) = 0;
  virtual bool rename(const char* from, const char* to) = 0;  // replaces `to`
  virtual bool syncDirectory(const char* path) = 0;           // its entries reach the disk

  // Converts a whole NUL-terminated UTF-8 path into `units` units at `native`,
  // NUL included. False when it cannot be converted or does not fit.
  virtual bool toNativePath(const char* utf8, PathChar* native, size_t units) = 0;

  // Both return 0 or the C runtime's error number.
  virtual int access(const PathChar* path) = 0;         // does it exist?
  virtual int makeDirectory(const PathChar* path) = 0;  // one level, rights as for files

  virtual uint32_t allocationGranularity() = 0;           // bytes: the unit of block files
  virtual const char* environment(const char* name) = 0;  // null when not set
  virtual int64_t time() = 0;                             // seconds since 1970

  // A malloc block, or null; the caller frees it with free(). 0 bytes give
  // what malloc gives. All large blocks come from here.
  virtual void* allocate(size_t bytes) = 0;
};

System& native();   // the operating system itself
System& current();  // what the library uses: native() unless replaced

// Puts `system` in the place of the native one, or takes it away with null.
// For tests, while no library call is under way.
void replace(System* system);

}  // namespace platform
