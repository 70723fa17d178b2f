// A file that is about to be inspected: opened, or read from the standard input.
// Tests: tests/tool/match_test.py.
#pragma once

#include <cstdint>
#include <string>

#include "extract/descriptor.h"
#include "extract/part.h"
#include "files/walk.h"

namespace tool {

class Input {
 public:
  // The standard input is kept in memory, as far as `most_bytes`.
  Input(const FoundFile& file, uint64_t most_bytes);

  int descriptor() const { return descriptor_.get(); }  // of a regular file

  // kNone: all is well. kUnreadable, kSizeLimit: there is nothing to be inspected.
  Reason reason() const { return reason_; }
  const std::string& detail() const { return detail_; }

 private:
  void spoolStandardInput(uint64_t most_bytes);
  void giveUp(Reason reason, const std::string& detail);

  Descriptor descriptor_;
  Reason reason_ = Reason::kNone;
  std::string detail_;
};

}  // namespace tool
