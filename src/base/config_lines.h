// Reading and rewriting "key=value" lines of the configuration file.
//
// A line with "=" is a setting: the key is the text before the first "=", the
// value the text after it, both trimmed of " \n\r\t"; keys compare without
// regard to ASCII case, and the first matching line wins. Lines without "="
// carry no setting and are kept. Nobody locks the file: of two concurrent
// writers one loses its changes. Tests: tests/unit/base/config_lines_test.cpp.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace tessera {

inline constexpr char kConfigFileName[] = "index_sys_config.txt";

// Removes leading and trailing " \n\r\t" in place.
void trim(std::string* text);

// Sets *value to the value of the first line for `key`, or to "" when the file
// cannot be read or has no such line.
void readConfigValue(const char* file_name, const char* key, std::string* value);

using ConfigValue = std::pair<std::string, std::string>;  // key, value

// Replaces every line of `file_name` whose key is in `values` and appends the
// keys that had no line; a missing file reads as no lines. A replaced line
// bears its own spelling of the key; the others stay as they are. Whatever
// file was read, the result is written to kConfigFileName, each line ended by
// one "\n". Returns 1 when memory for the work is out (nothing is written
// then), else 0: a failed write is not told.
int writeConfigValues(const char* file_name, const std::vector<ConfigValue>& values);

}  // namespace tessera
