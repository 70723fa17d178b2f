// The entry to signature generation: sends a document to the text or the binary
// path and keeps the bound on a text's length.
// Tests: tests/unit/generation/fpeSignatureGenerator_test.cpp.
#pragma once

#include "signature.h"

inline constexpr int kBinaryContent = 20;  // generation type; any other one means text
inline constexpr int kTextContent = 21;

// The signatures of `length` bytes. Selects windows with the Karp-Rabin hash.
//
//   signatures         out: malloc block of *count signatures in ascending
//                      order, no two equal; null when *count is 0
//   count              out: signatures
//   generation_type    kBinaryContent, or anything else for a text
//   normalized_length  out, may be null: bytes of text that were hashed over
//
// The outputs are cleared first. Returns 0, also when there is no document, or
// -4 when memory is out. Calls may run side by side.
int generateVornetSignature_KR(const char* content, int length, Signature** signatures, int* count,
                               int generation_type, int* normalized_length);

// The same with the Adler hash, which selects other windows. No export uses it.
int generateVornetSignature_Adler(const char* content, int length, Signature** signatures,
                                  int* count, int generation_type, int* normalized_length);

// Bounds the normalised text that is hashed, in bytes. The range is the
// caller's affair; generation must not run beside the setter.
void setMaxContentSize(int bytes);
int maxContentSize();
