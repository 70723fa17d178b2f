// Which signatures stand in many documents. Tests: tests/tool/common_test.py.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "library/signature_list.h"
#include "store/catalogue.h"

namespace tool {

struct FrequentSignature {
  Signature signature;
  size_t documents = 0;           // that hold it
  std::vector<int64_t> examples;  // the first of them
};

// Those that are not common yet and stand in at least `least` documents, most frequent
// first. Memory is bounded, however large the catalogue: it is read as often as needed.
std::vector<FrequentSignature> frequentSignatures(const Catalogue& catalogue, size_t least,
                                                  size_t examples);

}  // namespace tool
