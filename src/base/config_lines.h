// Reading and rewriting "key=value" lines of the configuration file.
//
// A line with "=" is a setting: the key is the text before the first "=", the
// value the text after it, both trimmed of " \n\r\t"; keys compare without
// regard to ASCII case, and the first matching line wins. Lines without "="
// carry no setting and are kept. Nobody locks the file: of two concurrent
// writers one loses its changes.
//
// The file may be a link, unlike the files of an index: hosts share one
// configuration that way. Its target is read, and replaced, and the link stays.
// Tests: tests/unit/base/config_lines_test.cpp.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform.h"

namespace tessera {

inline constexpr char kConfigFileName[] = "index_sys_config.txt";

// Removes leading and trailing " \n\r\t" in place.
void trim(std::string* text);

// Opens the file, or what it links to, for reading. Null when it cannot be had.
std::unique_ptr<platform::File> openConfigFile(const char* file_name);

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
//
// An empty file would read as all defaults, under which an index under another
// name seems lost. So the lines go into a file beside it, which takes its place
// and its rights once it is on the disk: a kill or a loss of power leaves the
// old lines or the new ones, and at worst the file beside. Only where no file
// can take its place is it rewritten as it is.
int writeConfigValues(const char* file_name, const std::vector<ConfigValue>& values);

}  // namespace tessera
