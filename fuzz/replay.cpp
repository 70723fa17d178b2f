// Runs a target over every file of its corpus, so that what the fuzzer found once
// is tried by every test run, also where there is no fuzzer: replay DIRECTORY.
// Twice, the second time backwards: an input that leaves something behind in the
// library would show in another one.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "harness.h"

namespace {

bool runFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string content{std::istreambuf_iterator<char>(file), {}};
  if (!file) {
    std::fprintf(stderr, "cannot read %s\n", path.c_str());
    return false;
  }
  std::printf("%s\n", path.filename().c_str());
  std::fflush(stdout);  // a crash must not take the name with it
  // A copy of exactly this size: a byte too many is seen by the sanitizers.
  const std::unique_ptr<uint8_t[]> bytes(new uint8_t[content.size()]);
  std::copy(content.begin(), content.end(), bytes.get());
  LLVMFuzzerTestOneInput(bytes.get(), content.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
    return 2;
  }
  std::error_code error;
  std::vector<std::filesystem::path> paths;
  for (std::filesystem::directory_iterator entry(argv[1], error), end; !error && entry != end;
       entry.increment(error)) {
    paths.push_back(entry->path());
  }
  if (error || paths.empty()) {
    std::fprintf(stderr, "no inputs in %s\n", argv[1]);
    return 1;
  }
  std::sort(paths.begin(), paths.end());
  for (const auto& path : paths) {
    if (!runFile(path)) return 1;
  }
  std::reverse(paths.begin(), paths.end());
  for (const auto& path : paths) {
    if (!runFile(path)) return 1;
  }
  std::printf("%zu inputs\n", paths.size());
  return 0;
}
