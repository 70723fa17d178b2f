#include "logstream.h"

#include <new>

#include "tpie_tempnam.h"

namespace {

constexpr int kAttempts = 100;
constexpr char kCurrentDirectory[] = {'.', platform::kSeparator, '\0'};

}  // namespace

void logstream::write(const char* source_file, int line, std::string_view message) noexcept try {
  if (!file_) {
    // Another log of this second has had the same names, which the generator
    // does not see: it knows nothing of the suffix.
    seedTemporaryNames(static_cast<uint64_t>(platform::current().time()));
    std::string path;
    for (int attempt = 0; attempt < kAttempts && !file_; ++attempt) {
      path = tpie_tempnam("tpielog", kCurrentDirectory);
      if (path.empty()) return;
      path += ".txt";
      file_ = platform::current().open(path.c_str(), platform::OpenMode::kNew);
    }
    if (!file_) return;
    path_.swap(path);
  }
  std::string text = source_file;
  text.append(" line ").append(std::to_string(line)).append(": ").append(message).append("\n");
  file_->write(text.data(), text.size());
} catch (const std::bad_alloc&) {
}

void logstream::close() {
  file_.reset();
  path_ = std::string();
}
