#include "files/input.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace tool {

namespace {

bool writeAll(int file, const char* bytes, size_t count) {
  while (count > 0) {
    const ssize_t written = ::write(file, bytes, count);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    bytes += written;
    count -= static_cast<size_t>(written);
  }
  return true;
}

}  // namespace

Input::Input(const FoundFile& file, uint64_t most_bytes) {
  if (file.path.empty()) {
    spoolStandardInput(most_bytes);
  } else {
    open(file.path.native());
  }
}

Input::~Input() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

// Without waiting: a pipe may have taken the place of the file that was found.
void Input::open(const std::string& path) {
  descriptor_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  struct stat status;
  if (descriptor_ < 0 || ::fstat(descriptor_, &status) != 0) {
    giveUp(Reason::kUnreadable, std::strerror(errno));
  } else if (!S_ISREG(status.st_mode)) {
    giveUp(Reason::kUnreadable, "not a regular file");
  }
}

// What comes in may be what nobody may see: it is not written to any disk.
void Input::spoolStandardInput(uint64_t most_bytes) {
  descriptor_ = ::memfd_create("standard input", MFD_CLOEXEC);
  if (descriptor_ < 0) return giveUp(Reason::kUnreadable, std::strerror(errno));
  std::array<char, 64 << 10> buffer;
  uint64_t bytes = 0;
  while (true) {
    const ssize_t got = ::read(STDIN_FILENO, buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got == 0) return;
    if (got < 0 || !writeAll(descriptor_, buffer.data(), static_cast<size_t>(got))) {
      return giveUp(Reason::kUnreadable, std::strerror(errno));
    }
    bytes += static_cast<uint64_t>(got);
    if (bytes > most_bytes) {
      return giveUp(Reason::kSizeLimit, fmt::format("more than {} bytes", most_bytes));
    }
  }
}

void Input::giveUp(Reason reason, const std::string& detail) {
  reason_ = reason;
  detail_ = detail;
}

}  // namespace tool
