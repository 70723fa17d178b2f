// From an opened document to its signatures.
//
//   text    full    every selected passage, however long the text
//           sparse  a few evenly spread ones of them
//   binary  one, of the whole content
//
// Queries are always fingerprinted in full: they find documents of either selection.
// Tests: tests/tool/index_test.py.
#pragma once

#include "commands.h"
#include "extract/part.h"
#include "library/library.h"
#include "library/signature_list.h"

namespace tool {

// One lives at a time, in a directory where the configuration may be written.
class Fingerprinter {
 public:
  explicit Fingerprinter(Selection selection) : selection_(selection), generator_(selection) {}

  // Empty: a container, or too short. May be called from any thread.
  SignatureList signatures(const Part& part) const;

 private:
  const Selection selection_;
  const Generator generator_;
};

}  // namespace tool
