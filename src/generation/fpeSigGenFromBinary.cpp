#define LOG_TAG "null"

#include "fpeSigGenFromBinary.h"

#include <algorithm>
#include <cstdio>

#include "log.h"
#include "scoped.h"
#include "status.h"

namespace {

constexpr uint32_t kSamples = 20;       // aimed at, in contents of up to 10240 bytes
constexpr uint32_t kLargestStep = 512;  // bytes between two samples of larger ones
constexpr uint32_t kSampleBytes = 4;

void sumSamples(const unsigned char* content, uint32_t length, unsigned char* low_bytes) {
  // Below four bytes the difference wraps around, and every byte is a sample
  // position: such a sample ends with the content.
  const uint32_t end = std::min(length, length - kSampleBytes);
  const uint32_t step = std::clamp(length / kSamples, 1u, kLargestStep);
  uint32_t sums[kSampleBytes] = {};
  for (uint32_t position = 0; position < end; position += step) {
    const uint32_t bytes = std::min(kSampleBytes, length - position);
    for (uint32_t k = 0; k < bytes; ++k) sums[k] += content[position + k];
  }
  for (uint32_t k = 0; k < kSampleBytes; ++k) low_bytes[k] = static_cast<unsigned char>(sums[k]);
}

}  // namespace

int getBinarySignature(const unsigned char* content, int length, Signature** signatures,
                       int* count) {
  MallocArray<Signature> list = mallocArray<Signature>(1);
  if (!list) {
    LOG_ERROR("no mem for signature");
    *signatures = nullptr;
    *count = 0;
    return kErrMem;
  }
  char digits[5];
  std::snprintf(digits, sizeof digits, "%04x", static_cast<unsigned>(length) & 0xFFFF);
  sumSamples(content, static_cast<uint32_t>(length), list[0].bytes);
  std::copy_n(digits, 4, list[0].bytes + 4);
  *signatures = list.release();
  *count = 1;
  return kOk;
}
