#include "documents.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <system_error>

namespace fs = std::filesystem;

namespace tool {

namespace {

constexpr size_t kFirstBytes = 8192;  // where a file shows whether it is text

struct GzipCloser {
  void operator()(gzFile file) const { gzclose_r(file); }
};
using ScopedGzip = std::unique_ptr<gzFile_s, GzipCloser>;

// Opens a file for reading through zlib, which passes on content that is not
// compressed as it stands. Null with *reason set when that is not possible.
ScopedGzip openDocument(const fs::path& path, std::string* reason) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    *reason = std::strerror(errno);
    return nullptr;
  }
  struct stat status;
  if (::fstat(descriptor, &status) == 0 && S_ISDIR(status.st_mode)) {
    *reason = std::strerror(EISDIR);
    ::close(descriptor);
    return nullptr;
  }
  ScopedGzip file(gzdopen(descriptor, "rb"));
  if (!file) {
    *reason = "out of memory";
    ::close(descriptor);
    return nullptr;
  }
  gzbuffer(file.get(), 128 << 10);
  return file;
}

// The reason why reading stopped, or null when the file just ended. A
// compressed file that breaks off is told by the pending Z_BUF_ERROR alone.
const char* readError(gzFile file) {
  int error = Z_OK;
  const char* message = gzerror(file, &error);
  if (error == Z_OK || error == Z_STREAM_END) return nullptr;
  if (error == Z_ERRNO) return std::strerror(errno);
  return error == Z_BUF_ERROR ? "the compressed data break off" : message;
}

}  // namespace

ReadOutcome readDocument(const fs::path& path, std::string* content, std::string* reason) {
  content->clear();
  const ScopedGzip file = openDocument(path, reason);
  if (!file) return ReadOutcome::kUnreadable;

  size_t length = 0;
  for (size_t room = kFirstBytes; length < kMaxDocumentBytes; room = size_t{1} << 20) {
    room = std::min(room, kMaxDocumentBytes - length);
    content->resize(length + room);
    const int got = gzread(file.get(), content->data() + length, static_cast<unsigned>(room));
    if (got > 0) length += static_cast<size_t>(got);
    if (const char* error = readError(file.get())) {
      *reason = error;
      return ReadOutcome::kUnreadable;
    }
    if (std::memchr(content->data(), '\0', std::min(length, kFirstBytes))) {
      return ReadOutcome::kNotText;
    }
    if (static_cast<size_t>(got) < room) break;
  }
  content->resize(length);
  return ReadOutcome::kText;
}

}  // namespace tool
