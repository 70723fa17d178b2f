// The platform contract on POSIX systems. Files are read and written at
// explicit positions, so a seek costs no system call.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <new>

#include "platform.h"

namespace platform {

namespace {

class PosixFile final : public File {
 public:
  explicit PosixFile(int descriptor) : descriptor_(descriptor) {}
  ~PosixFile() override { ::close(descriptor_); }
  PosixFile(const PosixFile&) = delete;
  PosixFile& operator=(const PosixFile&) = delete;

  bool seek(uint64_t offset) override {
    if (offset > static_cast<uint64_t>(std::numeric_limits<off_t>::max())) return false;
    position_ = static_cast<off_t>(offset);
    return true;
  }

  int64_t read(void* buffer, size_t bytes) override {
    size_t done = 0;
    while (done < bytes) {
      const ssize_t got =
          ::pread(descriptor_, static_cast<char*>(buffer) + done, bytes - done, position_);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) return -1;
      if (got == 0) break;
      done += static_cast<size_t>(got);
      position_ += got;
    }
    return static_cast<int64_t>(done);
  }

  bool write(const void* data, size_t bytes) override {
    size_t done = 0;
    while (done < bytes) {
      const ssize_t put =
          ::pwrite(descriptor_, static_cast<const char*>(data) + done, bytes - done, position_);
      if (put < 0 && errno == EINTR) continue;
      if (put <= 0) return false;
      done += static_cast<size_t>(put);
      position_ += put;
    }
    return true;
  }

  int64_t size() override {
    struct stat status;
    return ::fstat(descriptor_, &status) == 0 ? static_cast<int64_t>(status.st_size) : -1;
  }

  bool truncate(uint64_t size) override {
    if (size > static_cast<uint64_t>(std::numeric_limits<off_t>::max())) return false;
    return ::ftruncate(descriptor_, static_cast<off_t>(size)) == 0;
  }

  // Times and rights reach the disk with a change of the length only: what was
  // overwritten in place costs no commit of the file system's own journal.
  bool sync() override { return ::fdatasync(descriptor_) == 0; }

 private:
  const int descriptor_;
  off_t position_ = 0;
};

int openFlags(OpenMode mode) {
  switch (mode) {
    case OpenMode::kRead:
    case OpenMode::kShare:
      return O_RDONLY;
    case OpenMode::kRewrite:
      return O_WRONLY | O_CREAT;
    case OpenMode::kUpdate:
    case OpenMode::kOwn:
      return O_RDWR | O_CREAT;
    case OpenMode::kNew:
      return O_RDWR | O_CREAT | O_EXCL;
  }
  return O_RDONLY;
}

// A descriptor of the file itself, not of what a link leads to; -1 on a failure.
// Not blocking: a pipe planted under the name of an index file must not hang its
// reader, who still has to see that it is no regular file.
int openDescriptor(const char* path, int flags) {
  return ::open(path, flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
}

bool describesRegularFile(int descriptor, struct stat* status) {
  return ::fstat(descriptor, status) == 0 && S_ISREG(status->st_mode);
}

// What the link `path` holds. False when it is no link or cannot be read.
bool readLink(const std::string& path, std::string* text) {
  char buffer[PATH_MAX];
  const ssize_t length = ::readlink(path.c_str(), buffer, sizeof buffer);
  if (length <= 0 || static_cast<size_t>(length) == sizeof buffer) return false;
  text->assign(buffer, static_cast<size_t>(length));
  return true;
}

constexpr int kMostLinks = 40;      // in a row, as the system itself has it
constexpr mode_t kModeBits = 0777;  // who may read, write and execute

class PosixSystem final : public System {
 public:
  std::unique_ptr<File> open(const char* path, OpenMode mode) override {
    const int descriptor = openDescriptor(path, openFlags(mode));
    if (descriptor < 0) return nullptr;
    std::unique_ptr<File> file(new (std::nothrow) PosixFile(descriptor));
    if (!file) {
      ::close(descriptor);
      if (mode == OpenMode::kNew) ::unlink(path);  // nobody else knows of it
      return nullptr;
    }
    struct stat status;
    if (!describesRegularFile(descriptor, &status)) return nullptr;
    // A lock of the open file, not of the process: it also keeps a second
    // handle of this process out, and it dies with its holder.
    if (mode == OpenMode::kOwn && ::flock(descriptor, LOCK_EX | LOCK_NB) != 0) return nullptr;
    if (mode == OpenMode::kShare && ::flock(descriptor, LOCK_SH | LOCK_NB) != 0) return nullptr;
    if (mode == OpenMode::kRewrite && ::ftruncate(descriptor, 0) != 0) return nullptr;
    return file;
  }

  bool finalPath(const char* path, std::string* final_path) override try {
    // The system must be willing to follow: it refuses a stranger's link in a
    // directory that everybody may write to, and so must whoever reads it.
    struct stat status;
    if (::stat(path, &status) != 0 && errno != ENOENT) return false;
    std::string current = path;
    std::string text;
    for (int links = 0; readLink(current, &text); ++links) {
      if (links == kMostLinks) return false;
      const size_t slash = current.rfind('/');
      if (text.front() != '/' && slash != std::string::npos) text.insert(0, current, 0, slash + 1);
      current.swap(text);
    }
    if (::lstat(current.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) return false;
    final_path->swap(current);
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }

  bool copyRights(const char* from, const char* to) override {
    const int source = openDescriptor(from, O_WRONLY);
    if (source < 0) return errno == ENOENT;
    struct stat rights;
    bool copied = false;
    if (describesRegularFile(source, &rights)) {
      const int target = openDescriptor(to, O_WRONLY);
      struct stat own;
      // Only where they differ: giving a file away takes a privilege, and some
      // file systems have one owner and one mode for all files.
      copied = target >= 0 && describesRegularFile(target, &own) &&
               ((own.st_uid == rights.st_uid && own.st_gid == rights.st_gid) ||
                ::fchown(target, rights.st_uid, rights.st_gid) == 0) &&
               ((own.st_mode & kModeBits) == (rights.st_mode & kModeBits) ||
                ::fchmod(target, rights.st_mode & kModeBits) == 0);
      if (target >= 0) ::close(target);
    }
    ::close(source);
    return copied;
  }

  bool remove(const char* path) override { return ::unlink(path) == 0; }

  bool rename(const char* from, const char* to) override { return std::rename(from, to) == 0; }

  bool syncDirectory(const char* path) override {
    const int descriptor = ::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0) return false;
    const bool synced = ::fsync(descriptor) == 0;
    ::close(descriptor);
    return synced;
  }

  bool toNativePath(const char* utf8, PathChar* native, size_t units) override {
    const size_t needed = std::strlen(utf8) + 1;
    if (needed > units) return false;
    std::memcpy(native, utf8, needed);
    return true;
  }

  int access(const PathChar* path) override { return ::access(path, F_OK) == 0 ? 0 : errno; }

  int makeDirectory(const PathChar* path) override { return ::mkdir(path, 0700) == 0 ? 0 : errno; }

  // Fixed, not the page size: it is the block size of the index files, and an
  // index moves between systems.
  uint32_t allocationGranularity() override { return 65536; }

  const char* environment(const char* name) override { return std::getenv(name); }

  int64_t time() override { return static_cast<int64_t>(std::time(nullptr)); }

  void* allocate(size_t bytes) override { return std::malloc(bytes); }
};

}  // namespace

System& native() {
  // Never destroyed: the index may still be closed while the process ends.
  alignas(PosixSystem) static unsigned char storage[sizeof(PosixSystem)];
  static System& system = *new (storage) PosixSystem;
  return system;
}

}  // namespace platform
