// The signature of content that is not text: a cheap identity of the whole.
//
//   0      1      2      3      4                       8
//   +------+------+------+------+-----------------------+
//   | sum0 | sum1 | sum2 | sum3 | length mod 65536, %04x |
//   +------+------+------+------+-----------------------+
//
// Sum k adds the bytes k behind about twenty sample positions, or one in 512
// bytes of a larger content, and keeps the low 8 bits. No sample starts in the
// last four bytes, but in a content of up to three every byte is one. The
// maximum content size does not apply.
// Tests: tests/unit/generation/fpeSigGenFromBinary_test.cpp.
#pragma once

#include "signature.h"

// `content` holds `length` bytes, at least one. Hands out a malloc block with
// the one signature and the count 1. Returns 0; -4 with null and 0 when memory
// is out.
int getBinarySignature(const unsigned char* content, int length, Signature** signatures,
                       int* count);
