// The store's log file: lines with the place in the source that wrote them.
//
// The file is made by the first line, in the current directory, under a name
// of its own: "tpielog", six characters that make it unique, ".txt". Nothing
// that is there already is written to. A line that cannot be written is lost;
// there is nobody to tell. Through tpie_log.h there is one of them. Not
// thread-safe. Tests: tests/unit/store/logstream_test.cpp.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "platform.h"

class logstream {
 public:
  // Writes: FILE line LINE: MESSAGE
  void write(const char* source_file, int line, std::string_view message) noexcept;

  // Ends the file. The next line makes another one.
  void close();
  const std::string& path() const { return path_; }  // empty while there is no file

 private:
  std::unique_ptr<platform::File> file_;
  std::string path_;
};
