// The lists of getSignatureClient() and getSignatureServer() for the Karp-Rabin hash,
// made with a kernel, many times faster, and without a word: what those report on
// the way is known only to who goes window by window.
//
// The text is normalised and scanned in turn, piece by piece, so that it costs no
// more memory than a piece and is still in the cache when it is scanned. Windows
// across two pieces are scanned with the second one, whose buffer begins with what
// the first one left over.
// Tests: tests/unit/generation/text_signatures_test.cpp and
// tests/property/text_kernel_property_test.cpp.
#pragma once

#include "fpeSigGenTable.h"
#include "signature.h"
#include "text_kernel.h"

inline constexpr uint32_t kClientWindows = 10000;  // selected windows kept of a client document
// Normalised bytes per piece. No power of two, or the streams of a kernel would all lie
// in the same sets of the cache; and so few that a call's memory does not make malloc()
// give it back to the system each time.
inline constexpr size_t kPieceBytes = 40 << 10;

// The list of `length` bytes of text, as a malloc block; null when it is empty.
// `normalized_length` may be null, which spares the client the rest of a text whose
// list is full, and keeps its value when the text is shorter than a window. Returns 0,
// or -4 when memory is out; the list is then null and the count 0.
int signText(const TextKernel& kernel, Platform platform, const unsigned char* text, int length,
             Signature** signatures, int* count, int* normalized_length);
