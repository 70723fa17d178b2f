// What text signatures are made with: fixed parameters, the tables that
// initTextSignaturer() builds, and the level table.
//
// The host initialises once and then generates from any number of threads;
// nothing here changes in between, so nothing here is locked.
// Tests: tests/unit/generation/fpeSigGenTable_test.cpp.
#pragma once

#include <cstdint>

inline constexpr int DLP_PRIME = 137;        // a window counts when this divides its hash
inline constexpr int DLP_BASE = 8;           // of the Karp-Rabin polynomial
inline constexpr int DLP_PIECE_NUMBER = 8;   // signatures aimed at for a short server document
inline constexpr int DLP_PIECE_SIZE = 1024;  // window positions per server piece
inline constexpr int DLP_SLIDE_WINDOW = 61;  // bytes per window, and the shortest document

enum Platform : int {
  kServer = 1,  // a few evenly spread windows per piece
  kClient = 2,  // every selected window
};

// Letters and digits carry a text. Bytes from 128 up do in every encoding but
// ASCII, so they stay without a look at what they encode.
constexpr bool carriesText(int c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c >= 128;
}

// Parameters for documents of one class of size. The classes leave no gap;
// the last one is open, which its upper bound 0 says.
struct SigGenRow {
  uint32_t bound_low;
  uint32_t bound_high;
  uint32_t param_a;
  uint32_t param_b;
  uint32_t param_c;
};

inline constexpr uint32_t kSigGenRows = 9;

struct SigGenTable {
  int32_t level;
  uint32_t row_count;
  SigGenRow rows[kSigGenRows];
};
static_assert(sizeof(SigGenTable) == 188, "47 values of 32 bits without a gap");

inline constexpr uint32_t kUnknownByteOrder = 0xFFFFFFFF;

// The module's state. The filter and the two out-tables outlive a release.
struct TextSignaturer {
  int platform = 0;                          // the last valid one asked for
  unsigned char character_filter[256] = {};  // 1: the byte survives normalisation
  bool karp_rabin_ready = false;             // the two out-tables are built once per process
  bool adler_ready = false;
  uint64_t karp_rabin_out[256] = {};  // what a byte takes along when it leaves the window
  uint64_t adler_out[256] = {};
  uint32_t byte_order = kUnknownByteOrder;  // then 1 on a big-endian host, 2 on a little-endian one
  SigGenTable* sig_gen_table = nullptr;     // null while not initialised
  uint32_t table_step = 0;                  // param_a of the first row
};

extern TextSignaturer text_signaturer;

// Prepares the generation of text signatures for a platform and a level of -1
// to 6. Returns 0; -3 for another platform, which changes nothing; the status
// of initSigGenTable(). A level table that is there already is not freed.
int initTextSignaturer(int platform, int level);

// Hands out a new malloc block with the rows of a level. Returns 0; -3 without
// `sig_gen_table` or for a level outside -1 to 6; -4 when memory is out.
int initSigGenTable(SigGenTable** sig_gen_table, int level);

// Frees the level table. Always 0.
int releaseTextSignaturer();
