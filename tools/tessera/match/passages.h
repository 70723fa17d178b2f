// Where a text says what a document of the index says, too.
// Tests: tests/tool/match_test.py.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "library/signature_list.h"

namespace tool {

// A run of the text, of whole characters, from `begin` up to `end` in bytes.
struct Passage {
  uint64_t begin = 0;
  uint64_t end = 0;
  std::string before;  // a little of what precedes it
  std::string text;    // the passage, or the beginning of a long one
  std::string after;
};

struct Passages {
  std::vector<Passage> shown;  // the longest ones, in the order of the text
  size_t count = 0;            // of all
  uint64_t bytes = 0;          // in all
};

// A selected window of a text.
struct Window {
  uint64_t begin;
  uint64_t end;
  Signature signature;
};

std::vector<Window> findWindows(std::string_view text);

// The passages of a canonical text, of these windows, whose signatures are `shared`.
// Windows that are shared and follow each other closely are one passage; one that is not
// shared between them, or a long gap, ends it.
Passages findPassages(std::string_view text, const std::vector<Window>& windows,
                      const SignatureList& shared);

}  // namespace tool
