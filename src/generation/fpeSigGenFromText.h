// From a text to its signatures.
//
//   content --normalizeText--> letters, digits, bytes from 128 up
//           --range scanner--> windows of 61 bytes whose hash 137 divides
//           --selection------> all of them (client) or some per piece (server)
//           --sort-----------> ascending, no two equal
//
// The client keeps every selected window, at most 10000. The server scans
// pieces of 1024 window positions one after the other, carrying the rolling
// value on, and keeps a few evenly spread windows of each.
// Tests: tests/unit/generation/fpeSigGenFromText_test.cpp and
// tests/property/generation_property_test.cpp.
#pragma once

#include <cstdint>

#include "scoped.h"
#include "signature.h"

// Hands out a copy of the bytes that carry text, in their order and otherwise
// unchanged, upper and lower case included, up to the maximum content size; the
// text behind that is not looked at, so a huge one costs no more memory. A zero
// follows the copy. Returns 0, or -4 when memory is out.
int normalizeText(const unsigned char* text, int length, MallocArray<unsigned char>* normalized,
                  int* normalized_length);

// Where a scan leaves the windows it selects, in their order.
struct ScanOutput {
  uint64_t* hvs;             // their hash values, up to `capacity`
  Signature* sigs;           // their signatures
  uint32_t capacity;         // windows beyond it are passed over
  uint32_t* count;           // windows stored
  uint64_t* last_hash;       // may be null: the hash of the range's last window
  unsigned char* last_byte;  // may be null: the first byte of that window
};

// Scans the windows that start in [start, end) and reads up to end + 59.
// An empty range leaves every output as it is, whatever it is. Returns 0, or -3
// without an array, a count or a capacity.
using RangeScanner = int (*)(const unsigned char* start, const unsigned char* end,
                             const ScanOutput& out);

// The same for the range right behind one that left `last_hash` and `last_byte`.
using ContinuingRangeScanner = int (*)(const unsigned char* start, const unsigned char* end,
                                       uint64_t last_hash, unsigned char last_byte,
                                       const ScanOutput& out);

int getHashValues_KR(const unsigned char* start, const unsigned char* end, const ScanOutput& out);
int getHashValuesNoHorner_KR(const unsigned char* start, const unsigned char* end,
                             uint64_t last_hash, unsigned char last_byte, const ScanOutput& out);
int getHashValues_Adler(const unsigned char* start, const unsigned char* end,
                        const ScanOutput& out);
int getHashValuesNoHorner_Adler(const unsigned char* start, const unsigned char* end,
                                uint64_t last_hash, unsigned char last_byte, const ScanOutput& out);

// The list of a text on either platform, as a malloc block; null when it is
// empty. `normalized_length` may be null, and keeps its value when the text is
// shorter than a window. Both return 0, also for a text that is too short; -3
// without `signatures` or `count`; -4 when memory is out; or the scanner's
// failure. After a failure the list is null and the count 0.
int getSignatureClient(const unsigned char* text, int length, Signature** signatures, int* count,
                       int* normalized_length, RangeScanner scan);
int getSignatureServer(const unsigned char* text, int length, Signature** signatures, int* count,
                       int* normalized_length, RangeScanner scan, ContinuingRangeScanner scan_on);
