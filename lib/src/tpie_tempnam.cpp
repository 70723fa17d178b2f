#include "tpie_tempnam.h"

#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include "ami_device.h"
#include "platform.h"

namespace {

constexpr size_t kBufferBytes = 512;
constexpr size_t kUniqueCharacters = 6;
constexpr int kAttempts = 1000;
constexpr char kAlphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789";  // of any case it is one name

std::minstd_rand& generator() {
  static std::minstd_rand engine;
  return engine;
}

bool exists(const char* path) {
  platform::PathChar native[kBufferBytes];
  platform::System& system = platform::current();
  return !system.toNativePath(path, native, kBufferBytes) || system.access(native) == 0;
}

}  // namespace

std::string tpie_tempnam(const char* base, const char* directory) {
  platform::System& system = platform::current();
  if (directory == nullptr) directory = system.environment(kSingleDeviceVariable);
  if (directory == nullptr) directory = system.environment(kTemporaryDirectoryVariable);
  const char current_directory[] = {'.', platform::kSeparator, '\0'};
  if (directory == nullptr) directory = current_directory;

  char name[kBufferBytes];
  const int length =
      std::snprintf(name, sizeof name, "%s%c%s_XXXXXX", directory, platform::kSeparator, base);
  if (length < 0 || static_cast<size_t>(length) >= sizeof name) return {};
  char* const unique = name + length - kUniqueCharacters;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    for (size_t i = 0; i < kUniqueCharacters; ++i) {
      unique[i] = kAlphabet[generator()() % (sizeof kAlphabet - 1)];
    }
    if (!exists(name)) return name;
  }
  return {};
}

void seedTemporaryNames(uint64_t seed) {
  generator().seed(static_cast<std::minstd_rand::result_type>(seed));
}
