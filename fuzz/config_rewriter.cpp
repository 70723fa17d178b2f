// Reading and rewriting of "key=value" lines. The input is a few pairs and the
// file. What holds for every file:
//
//   - lines whose key is in no pair stay, in their order
//   - a line whose key is in a pair becomes "key=value", with its own spelling
//   - keys without a line follow at the end, in the order of the pairs
//   - a value that was written is read back, without the blanks around it
//   - writing the same pairs again changes nothing
//
// A pair whose key bears blanks around it, "=" or a line's end could not be read
// back, and with two pairs of one key the second would be added every time. No
// caller has any, so the input is made to have none.
#include <string>
#include <utility>
#include <vector>

#include "config_lines.h"
#include "harness.h"
#include "input.h"

namespace {

using Lines = std::vector<std::string>;

// What follows the last line feed is a line only if there is something.
Lines linesOf(const std::string& content) {
  Lines lines;
  std::string line;
  for (const char c : content) {
    if (c == '\n') {
      lines.push_back(line);
      line.clear();
    } else {
      line += c;
    }
  }
  if (!line.empty()) lines.push_back(line);
  return lines;
}

bool isBlank(char c) { return c == ' ' || c == '\n' || c == '\r' || c == '\t'; }

std::string withoutBlanksAround(std::string text) {
  while (!text.empty() && isBlank(text.back())) text.pop_back();
  while (!text.empty() && isBlank(text.front())) text.erase(0, 1);
  return text;
}

std::string withoutCase(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  }
  return text;
}

bool isSetting(const std::string& line) { return line.find('=') != std::string::npos; }
std::string keyOf(const std::string& line) {
  return withoutBlanksAround(line.substr(0, line.find('=')));
}

// A key ends at a NUL for the reader, who takes it as a C string.
std::string madeKey(const std::string& raw) {
  std::string key;
  for (const char c : raw) {
    if (c != '=' && c != '\n' && c != '\0') key += c;
  }
  return withoutBlanksAround(key);
}

std::string madeValue(const std::string& raw) {
  std::string value;
  for (const char c : raw) {
    if (c != '\n') value += c;
  }
  return value;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input(data, size);
  const bool elsewhere = input.below(4) == 3;
  const uint32_t pairs = input.below(4);
  std::vector<tessera::ConfigValue> values;
  for (uint32_t i = 0; i < pairs; ++i) {
    std::string key = madeKey(input.bytes(input.below(20)));
    const std::string value = madeValue(input.bytes(input.below(20)));
    for (const auto& [other, unused] : values) {
      if (withoutCase(other) == withoutCase(key)) key += '_';
    }
    bool distinct = true;
    for (const auto& [other, unused] : values) {
      if (withoutCase(other) == withoutCase(key)) distinct = false;
    }
    if (distinct) values.push_back({key, value});
  }
  const std::string content = input.rest();
  const Lines before = linesOf(content);

  MemorySystem& system = fuzz::freshSystem();
  const std::string source = elsewhere ? "other.txt" : tessera::kConfigFileName;
  system.write(source, content);
  for (const auto& [key, value] : values) {
    std::string expected;
    for (const std::string& line : before) {
      if (!isSetting(line) || withoutCase(keyOf(line)) != withoutCase(key)) continue;
      expected = withoutBlanksAround(line.substr(line.find('=') + 1));
      break;
    }
    std::string read = "something";
    tessera::readConfigValue(source.c_str(), key.c_str(), &read);
    FUZZ_CHECK(read == expected);
  }

  FUZZ_EQUAL(0, tessera::writeConfigValues(source.c_str(), values));

  const std::string written = system.read(tessera::kConfigFileName);
  FUZZ_CHECK(written.empty() || written.back() == '\n');
  const Lines after = linesOf(written);
  std::vector<bool> found(values.size());
  FUZZ_CHECK(after.size() >= before.size());
  for (size_t i = 0; i < before.size(); ++i) {
    std::string expected = before[i];
    for (size_t k = 0; k < values.size() && isSetting(before[i]); ++k) {
      if (withoutCase(keyOf(before[i])) != withoutCase(values[k].first)) continue;
      expected = keyOf(before[i]) + "=" + values[k].second;
      found[k] = true;
    }
    FUZZ_CHECK(after[i] == expected);
  }
  size_t next = before.size();
  for (size_t k = 0; k < values.size(); ++k) {
    if (found[k]) continue;
    FUZZ_CHECK(next < after.size());
    FUZZ_CHECK(after[next++] == values[k].first + "=" + values[k].second);
  }
  FUZZ_EQUAL(after.size(), next);

  for (const auto& [key, value] : values) {
    std::string read;
    tessera::readConfigValue(tessera::kConfigFileName, key.c_str(), &read);
    FUZZ_CHECK(read == withoutBlanksAround(value));
  }
  FUZZ_EQUAL(0, tessera::writeConfigValues(tessera::kConfigFileName, values));
  FUZZ_CHECK(system.read(tessera::kConfigFileName) == written);

  // Nothing else was touched, and nothing is left lying about.
  FUZZ_EQUAL(elsewhere ? 2 : 1, system.names(".").size());
  FUZZ_CHECK(!elsewhere || system.read(source) == content);
  return 0;
}
