#include "config_lines.h"

#include <algorithm>
#include <string_view>

#include "platform.h"
#include "scoped.h"
#include "vn_win32_charset_chg.h"

namespace tessera {

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
// cannot be read.
bool readFile(const char* name, std::string* content) {
  const auto file = platform::current().open(name, platform::OpenMode::kRead);
  if (!file) return !dlp_btree::vn_exists(name);
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

  const auto file = platform::current().open(kConfigFileName, platform::OpenMode::kRewrite);
  if (file) file->write(rewritten.data(), rewritten.size());
  return 0;
}

}  // namespace tessera
