#include "files/input.h"

#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "files/regular_file.h"

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
    std::string problem;
    descriptor_ = openRegularFile(file.path.native(), &problem);
    if (!problem.empty()) giveUp(Reason::kUnreadable, problem);
  }
}

// What comes in may be what nobody may see: it is not written to any disk.
void Input::spoolStandardInput(uint64_t most_bytes) {
  descriptor_ = Descriptor(::memfd_create("standard input", MFD_CLOEXEC));
  if (!descriptor_) return giveUp(Reason::kUnreadable, std::strerror(errno));
  std::array<char, 64 << 10> buffer;
  uint64_t bytes = 0;
  while (true) {
    const ssize_t got = ::read(STDIN_FILENO, buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got == 0) return;
    if (got < 0 || !writeAll(descriptor_.get(), buffer.data(), static_cast<size_t>(got))) {
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
