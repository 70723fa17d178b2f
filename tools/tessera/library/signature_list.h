// Lists of signatures: what a document is once it is fingerprinted.
// Tests: tests/tool/store_units_test.cpp.
#pragma once

#include <algorithm>
#include <array>
#include <iterator>
#include <vector>

namespace tool {

using Signature = std::array<unsigned char, 8>;
using SignatureList = std::vector<Signature>;  // ascending, no two equal

// Signatures that were collected in any order.
inline void makeList(SignatureList* signatures) {
  std::sort(signatures->begin(), signatures->end());
  signatures->erase(std::unique(signatures->begin(), signatures->end()), signatures->end());
}

inline SignatureList without(const SignatureList& list, const SignatureList& removed) {
  SignatureList rest;
  rest.reserve(list.size());
  std::set_difference(list.begin(), list.end(), removed.begin(), removed.end(),
                      std::back_inserter(rest));
  return rest;
}

inline bool shareSignatures(const SignatureList& list, const SignatureList& few) {
  return std::any_of(few.begin(), few.end(), [&](const Signature& signature) {
    return std::binary_search(list.begin(), list.end(), signature);
  });
}

}  // namespace tool
