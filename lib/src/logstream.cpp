#include "logstream.h"

#include <new>

#include "tpie_tempnam.h"

namespace {

constexpr char kCurrentDirectory[] = {'.', platform::kSeparator, '\0'};

}  // namespace

void logstream::write(const char* source_file, int line, std::string_view message) noexcept try {
  if (!file_) {
    seedTemporaryNames(static_cast<uint64_t>(platform::current().time()));
    const std::string name = tpie_tempnam("tpielog", kCurrentDirectory);
    if (name.empty()) return;
    const std::string path = name + ".txt";
    file_ = platform::current().open(path.c_str(), platform::OpenMode::kRewrite);
    if (!file_) return;
    path_ = path;
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
