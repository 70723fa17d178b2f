#include "config_lines.h"

#include <algorithm>
#include <cerrno>
#include <string_view>

#include "paths.h"
#include "scoped.h"
#include "vn_win32_charset_chg.h"

namespace tessera {

std::unique_ptr<platform::File> openConfigFile(const char* file_name) {
  std::string path;
  platform::System& system = platform::current();
  if (!system.finalPath(file_name, &path)) return nullptr;
  return system.open(path.c_str(), platform::OpenMode::kRead);
}

namespace {

constexpr std::string_view kBlanks = " \n\r\t";

std::string_view trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool sameKey(std::string_view left, std::string_view right) {
  return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                    [](char l, char r) { return lower(l) == lower(r); });
}

// Takes over the whole file; a missing one is empty. False when it is there but
// cannot be read, also when that cannot be found out.
bool readFile(const char* name, std::string* content) {
  const auto file = openConfigFile(name);
  if (!file) return !dlp_btree::vn_exists(name) && dlp_btree::vn_last_error() == ENOENT;
  char part[4096];
  int64_t got;
  while ((got = file->read(part, sizeof part)) > 0) content->append(part, static_cast<size_t>(got));
  return got == 0;
}

// Calls visit(line) for each line, without its "\n", until it returns false.
// What follows the last "\n" is a line only if it is not empty.
template <typename Visit>
void forEachLine(std::string_view content, Visit visit) {
  while (!content.empty()) {
    const size_t end = content.find('\n');
    if (!visit(content.substr(0, end)) || end == std::string_view::npos) return;
    content.remove_prefix(end + 1);
  }
}

bool writeAndSync(platform::File* file, const std::string& content) {
  return file->write(content.data(), content.size()) && file->sync();
}

// Creates a file beside `path` and gives it its name. A writer that was killed
// leaves its file behind, so there is more than one name to try.
std::unique_ptr<platform::File> createBeside(const std::string& path, std::string* name) {
  constexpr int kNames = 10;
  for (int i = 0; i < kNames; ++i) {
    *name = path + ".tmp" + std::to_string(i);
    auto file = platform::current().open(name->c_str(), platform::OpenMode::kNew);
    if (file) return file;
  }
  return nullptr;
}

// What becomes of a file that is to be replaced.
enum class Outcome {
  kDone,
  kFailed,      // it is as it was, and writing to it would fare no better
  kImpossible,  // it is as it was, but no other file can take its place
};

Outcome replaceFile(const std::string& path, const std::string& content) {
  platform::System& system = platform::current();
  const std::string directory = directoryOf(path);
  std::string beside;
  auto file = createBeside(path, &beside);
  if (!file) return Outcome::kImpossible;
  Outcome outcome = Outcome::kImpossible;
  if (system.copyRights(path.c_str(), beside.c_str())) {
    // On a full disk the old content is better than half of the new one.
    outcome = Outcome::kFailed;
    if (writeAndSync(file.get(), content)) {
      file.reset();
      outcome = Outcome::kImpossible;
      if (system.rename(beside.c_str(), path.c_str())) {
        system.syncDirectory(directory.c_str());
        return Outcome::kDone;
      }
    }
  }
  file.reset();
  system.remove(beside.c_str());
  return outcome;
}

void writeConfigFile(const char* name, const std::string& content) {
  platform::System& system = platform::current();
  std::string path;
  if (!system.finalPath(name, &path)) return;
  if (replaceFile(path, content) != Outcome::kImpossible) return;
  const auto file = system.open(path.c_str(), platform::OpenMode::kRewrite);
  if (file) writeAndSync(file.get(), content);
}

}  // namespace

void trim(std::string* text) { *text = std::string(trimmed(*text)); }

void readConfigValue(const char* file_name, const char* key, std::string* value) {
  value->clear();
  std::string content;
  if (!readFile(file_name, &content)) return;
  forEachLine(content, [&](std::string_view line) {
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos) return true;
    if (!sameKey(trimmed(line.substr(0, equals)), key)) return true;
    *value = trimmed(line.substr(equals + 1));
    return false;
  });
}

int writeConfigValues(const char* file_name, const std::vector<ConfigValue>& values) {
  const auto found = mallocArray<bool>(values.size());
  if (!found) return 1;
  std::fill_n(found.get(), values.size(), false);

  // Settings that could not be read must not be overwritten.
  std::string content;
  if (!readFile(file_name, &content)) return 0;

  std::string rewritten;
  forEachLine(content, [&](std::string_view line) {
    const size_t equals = line.find('=');
    if (equals != std::string_view::npos) {
      const std::string_view key = trimmed(line.substr(0, equals));
      for (size_t i = 0; i < values.size(); ++i) {
        if (!sameKey(key, values[i].first)) continue;
        found[i] = true;
        rewritten.append(key).append("=").append(values[i].second).append("\n");
        return true;
      }
    }
    rewritten.append(line).append("\n");
    return true;
  });
  for (size_t i = 0; i < values.size(); ++i) {
    if (found[i]) continue;
    rewritten.append(values[i].first).append("=").append(values[i].second).append("\n");
  }

  writeConfigFile(kConfigFileName, rewritten);
  return 0;
}

}  // namespace tessera
