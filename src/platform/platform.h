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
#include <string>

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
  kNew,      // reading and writing; created by this call, refused when anything at
             // all has the name already
  kOwn,      // as kUpdate, and refused while anyone else has it open with kOwn;
             // Windows keeps every other writer out as well
  kShare,    // as kRead, and refused while anyone has it open with kOwn, whom it keeps
             // out in turn; any number of these go together
};

// An open regular file with a position of its own, 0 at first; destruction
// closes it. One thread at a time. It stays the file that was opened, whatever
// becomes of its name. What was written is seen by every other handle at once,
// but is on the disk only after sync(): until then a loss of power may undo any
// part of it, in any order, the length included.
class File {
 public:
  virtual ~File() = default;

  // Sets the position, in bytes from the start. May lie past the end.
  virtual bool seek(uint64_t offset) = 0;

  // Reads up to `bytes` and moves the position. Returns the bytes read: fewer
  // than asked only at the end of the file, -1 on an error.
  virtual int64_t read(void* buffer, size_t bytes) = 0;

  // Writes all `bytes` and moves the position, or fails; a part may have been
  // written then. Past the end, what lies between reads as zeros.
  virtual bool write(const void* data, size_t bytes) = 0;

  virtual int64_t size() = 0;                // bytes; -1 on an error
  virtual bool truncate(uint64_t size) = 0;  // cuts or extends with zeros; the position stays
  virtual bool sync() = 0;                   // data and length reach the disk, not the name
};

class System {
 public:
  virtual ~System() = default;

  // Null when the file cannot be opened, is no regular file, or is owned by
  // somebody else. A link as the last component of `path` is no regular file
  // either, wherever it leads; finalPath() is for those who mean to follow it.
  // Never waits, as for the other end of a pipe. `path` is narrow and passed on
  // as it stands. On POSIX systems new files are readable and writable by their
  // owner only; on Windows they inherit the rights of their directory. The name
  // of a new file reaches the disk with syncDirectory().
  virtual std::unique_ptr<File> open(const char* path, OpenMode mode) = 0;

  // Gives *final_path the path that `path` leads to: itself, as it stands,
  // unless its last component is a link, else what that link names, and so on to
  // one that is none. Nothing need be there, but on Windows behind a link. False,
  // *final_path left alone, when the links cannot be read, may not be followed or
  // go in a circle, and without memory.
  virtual bool finalPath(const char* path, std::string* final_path) = 0;

  // Lets whoever may read and write the file `from` do so with the file `to`,
  // and nobody else; for a file that is to take the place of another. There is
  // nothing to do, and that succeeds, when `from` does not exist. False when it
  // is no regular file, this process may not write it, or cannot pass its rights
  // on.
  virtual bool copyRights(const char* from, const char* to) = 0;

  // Removes a name. Windows refuses while the file is open.
  virtual bool remove(const char* path) = 0;

  // Gives the file `from` the name `to`, which may be taken by another file: who
  // looks, also after a kill or a loss of power, finds one of the two there and
  // never none. It is certain to be the new one only after syncDirectory(), and
  // its content only after a sync() before. Windows refuses while either file is
  // open. A failure changes nothing.
  virtual bool rename(const char* from, const char* to) = 0;

  // The names in a directory reach the disk: created, renamed and removed ones.
  virtual bool syncDirectory(const char* path) = 0;

  // Converts a whole NUL-terminated UTF-8 path into `units` units at `native`,
  // NUL included. False when it cannot be converted or does not fit.
  virtual bool toNativePath(const char* utf8, PathChar* native, size_t units) = 0;

  // Both return 0 or the C runtime's error number.
  virtual int access(const PathChar* path) = 0;         // does it exist? Links are followed.
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
