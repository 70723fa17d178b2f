#include "corpus.h"

#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string_view>
#include <unordered_set>

namespace corpus {

namespace {

namespace fs = std::filesystem;

constexpr size_t kShortest = 2000;  // bytes: shorter ones say little
constexpr size_t kLargestFile = 16 << 20;

// A file's content, decompressed if it is compressed; empty when it cannot be read.
std::string content(const fs::path& path) {
  std::string all;
  const gzFile file = gzopen(path.c_str(), "rb");
  if (file == nullptr) return all;
  char buffer[65536];
  for (int got; (got = gzread(file, buffer, sizeof buffer)) > 0 && all.size() < kLargestFile;) {
    all.append(buffer, static_cast<size_t>(got));
  }
  gzclose(file);
  return all;
}

std::vector<fs::path> filesBelow(const std::vector<const char*>& directories) {
  std::vector<fs::path> paths;
  for (const char* const directory : directories) {
    std::error_code error;
    const fs::recursive_directory_iterator all(
        directory, fs::directory_options::skip_permission_denied, error);
    if (error) continue;
    for (const fs::directory_entry& entry : all) {
      if (entry.is_regular_file(error) && !entry.is_symlink(error)) paths.push_back(entry.path());
    }
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

bool isText(std::string_view content) {
  return content.size() >= kShortest && content.find('\0') == std::string_view::npos;
}

// The pieces one after the other, again and again, up to `bytes`.
std::string repeated(size_t bytes, const std::vector<std::string>& pieces) {
  std::string all;
  all.reserve(bytes);
  for (size_t i = 0; all.size() < bytes; ++i) {
    all.append(pieces[i % pieces.size()], 0, bytes - all.size());
  }
  return all;
}

[[noreturn]] void nothingIn(const char* where) {
  std::fprintf(stderr, "nothing to read below %s\n", where);
  std::exit(1);
}

}  // namespace

const std::vector<std::string>& texts() {
  static const std::vector<std::string> all = [] {
    std::vector<std::string> found;
    std::unordered_set<size_t> seen;
    for (const fs::path& path : filesBelow({"/usr/share/common-licenses", "/usr/share/doc",
                                            "/usr/share/info", "/usr/share/man"})) {
      std::string text = content(path);
      if (!isText(text) || !seen.insert(std::hash<std::string>()(text)).second) continue;
      found.push_back(std::move(text));
    }
    if (found.empty()) nothingIn("/usr/share");
    return found;
  }();
  return all;
}

std::string english(size_t bytes) { return repeated(bytes, texts()); }

std::string binary(size_t bytes) {
  static const std::vector<std::string> all = [] {
    std::vector<std::string> found;
    size_t together = 0;
    for (const fs::path& path : filesBelow({"/usr/lib/x86_64-linux-gnu"})) {
      if (path.filename().string().find(".so") == std::string::npos) continue;
      found.push_back(content(path));
      together += found.back().size();
      if (together > (64u << 20)) break;
    }
    if (together == 0) nothingIn("/usr/lib/x86_64-linux-gnu");
    return found;
  }();
  return repeated(bytes, all);
}

}  // namespace corpus
