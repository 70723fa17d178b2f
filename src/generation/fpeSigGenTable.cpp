#define LOG_TAG "null"

#include "fpeSigGenTable.h"

#include <bit>
#include <cstdlib>
#include <iterator>

#include "log.h"
#include "rolling_hash.h"
#include "scoped.h"
#include "status.h"

constinit TextSignaturer text_signaturer;

namespace {

constexpr int kLowestLevel = -1;
constexpr int kHighestLevel = 6;

constexpr uint32_t kBounds[kSigGenRows] = {0, 10, 20, 30, 50, 70, 80, 100, 500};

struct LevelParameters {
  uint32_t param_a;
  uint32_t param_b[kSigGenRows];
  uint32_t param_c[kSigGenRows];
};

// Levels -1 to 6: the higher the level, the coarser the choice.
constexpr LevelParameters kLevels[] = {
    {5, {2, 2, 2, 2, 2, 2, 2, 2, 2}, {40, 40, 40, 40, 40, 40, 40, 40, 40}},
    {5, {40, 40, 40, 40, 40, 40, 40, 40, 40}, {40, 40, 40, 40, 40, 40, 40, 40, 40}},
    {4, {2, 4, 4, 4, 8, 8, 8, 16, 1024}, {32, 64, 64, 128, 128, 128, 128, 1024, 1024}},
    {4, {2, 4, 8, 8, 16, 16, 16, 64, 1024}, {32, 64, 64, 128, 128, 256, 256, 1024, 1024}},
    {4, {4, 8, 16, 16, 32, 32, 32, 128, 1024}, {32, 64, 64, 128, 256, 256, 1024, 1024, 1024}},
    {4,
     {8, 16, 16, 32, 128, 128, 128, 1024, 1024},
     {64, 256, 256, 1024, 1024, 1024, 1024, 1024, 1024}},
    {4,
     {16, 32, 32, 32, 128, 128, 128, 1024, 1024},
     {64, 256, 256, 1024, 1024, 1024, 1024, 1024, 1024}},
    {4,
     {16, 32, 32, 64, 128, 128, 128, 1024, 1024},
     {256, 256, 1024, 1024, 1024, 1024, 1024, 1024, 1024}},
};
static_assert(std::size(kLevels) == kHighestLevel - kLowestLevel + 1);

void buildCharacterFilter() {
  for (int c = 0; c < 256; ++c) text_signaturer.character_filter[c] = carriesText(c) ? 1 : 0;
}

void buildKarpRabinOutTable() {
  uint64_t leading_factor = 1;
  for (int i = 0; i < DLP_SLIDE_WINDOW; ++i) {
    leading_factor = leading_factor * DLP_BASE % kKarpRabinModulus;
  }
  for (uint64_t c = 0; c < 256; ++c) text_signaturer.karp_rabin_out[c] = c * leading_factor;
}

void buildAdlerOutTable() {
  for (uint64_t c = 0; c < 256; ++c) text_signaturer.adler_out[c] = c * DLP_SLIDE_WINDOW;
}

// Recorded only; nothing depends on it.
uint32_t hostByteOrder() { return std::endian::native == std::endian::big ? 1 : 2; }

// A host may unload the library without releasing it first; or release it from
// a static object of its own, after this.
const struct AtUnload {
  ~AtUnload() { releaseTextSignaturer(); }
} at_unload;

}  // namespace

int initTextSignaturer(int platform, int level) {
  if (platform != kServer && platform != kClient) {
    LOG_ERROR("wrong platform (%d)", platform);
    return kErrParam;
  }
  text_signaturer.platform = platform;
  buildCharacterFilter();
  const int status = initSigGenTable(&text_signaturer.sig_gen_table, level);
  if (status != kOk) {
    LOG_ERROR("initSigGenTable fail (%d)", status);
    return status;
  }
  text_signaturer.table_step = text_signaturer.sig_gen_table->rows[0].param_a;
  if (!text_signaturer.karp_rabin_ready) {
    buildKarpRabinOutTable();
    text_signaturer.karp_rabin_ready = true;
  }
  if (!text_signaturer.adler_ready) {
    buildAdlerOutTable();
    text_signaturer.adler_ready = true;
  }
  if (text_signaturer.byte_order == kUnknownByteOrder) text_signaturer.byte_order = hostByteOrder();
  LOG_INFO(
      "DLP_PRIME = %d, DLP_BASE = %d, DLP_PIECE_NUMBER = %d, DLP_PIECE_SIZE = %d, "
      "DLP_SLIDE_WINDOW = %d",
      DLP_PRIME, DLP_BASE, DLP_PIECE_NUMBER, DLP_PIECE_SIZE, DLP_SLIDE_WINDOW);
  return kOk;
}

int initSigGenTable(SigGenTable** sig_gen_table, int level) {
  if (sig_gen_table == nullptr) {
    LOG_ERROR("sig_gen_table == NULL");
    return kErrParam;
  }
  if (level < kLowestLevel || level > kHighestLevel) {
    LOG_ERROR("invalid sig gen level %d", level);
    return kErrParam;
  }
  MallocArray<SigGenTable> table = mallocArray<SigGenTable>(1);
  if (!table) {
    LOG_ERROR("no mem for sig_gen_table");
    return kErrMem;
  }
  const LevelParameters& parameters = kLevels[level - kLowestLevel];
  table[0].level = level;
  table[0].row_count = kSigGenRows;
  for (uint32_t i = 0; i < kSigGenRows; ++i) {
    table[0].rows[i] = {.bound_low = kBounds[i],
                        .bound_high = kBounds[(i + 1) % kSigGenRows],
                        .param_a = parameters.param_a,
                        .param_b = parameters.param_b[i],
                        .param_c = parameters.param_c[i]};
  }
  *sig_gen_table = table.release();
  return kOk;
}

int releaseTextSignaturer() {
  std::free(text_signaturer.sig_gen_table);
  text_signaturer.sig_gen_table = nullptr;
  return kOk;
}
