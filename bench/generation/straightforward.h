// Text signatures as one would first write them down: the text compacted byte by byte,
// one chain of hashes with a division in each step, every selected window folded when it
// is met, everything sorted. What the kernels are measured against.
#pragma once

#include <cstddef>
#include <vector>

#include "fpeSigGenTable.h"
#include "signature.h"

// The list of `length` bytes of text on either platform, ascending, no two equal.
std::vector<Signature> straightforwardSignatures(Platform platform, const unsigned char* text,
                                                 size_t length);
