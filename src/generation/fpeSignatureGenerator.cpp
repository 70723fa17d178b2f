#define LOG_TAG "null"

#include "fpeSignatureGenerator.h"

#include "fpeSigGenFromBinary.h"
#include "fpeSigGenFromText.h"
#include "fpeSigGenTable.h"
#include "log.h"
#include "status.h"
#include "text_signatures.h"

namespace {

int max_content_size = 1024;  // until the configuration is read

void clearOutputs(Signature** signatures, int* count, int* normalized_length) {
  *signatures = nullptr;
  *count = 0;
  if (normalized_length != nullptr) *normalized_length = 0;
}

int generate(const char* content, int length, Signature** signatures, int* count,
             int generation_type, int* normalized_length, RangeScanner scan,
             ContinuingRangeScanner scan_on) {
  const auto* const bytes = reinterpret_cast<const unsigned char*>(content);
  if (generation_type == kBinaryContent) {
    return getBinarySignature(bytes, length, signatures, count);
  }
  if (text_signaturer.platform == kServer) {
    return getSignatureServer(bytes, length, signatures, count, normalized_length, scan, scan_on);
  }
  return getSignatureClient(bytes, length, signatures, count, normalized_length, scan);
}

// The level of all messages of the text path. Whoever listens there hears of every
// window out of the ordinary, so these are then gone through one by one.
constexpr int kMessageLevel = 3;

bool withoutMessages() {
  return text_signaturer.karp_rabin_ready && !tessera::hasSink(kMessageLevel);
}

}  // namespace

int generateVornetSignature_KR(const char* content, int length, Signature** signatures, int* count,
                               int generation_type, int* normalized_length) {
  clearOutputs(signatures, count, normalized_length);
  if (length < 1 || content == nullptr) {
    LOG_INFO("docLen (%d) <= 0 || docContent == NULL", length);
    return kOk;
  }
  if (generation_type != kBinaryContent && withoutMessages()) {
    return signText(*supportedKernels().front(), static_cast<Platform>(text_signaturer.platform),
                    reinterpret_cast<const unsigned char*>(content), length, signatures, count,
                    normalized_length);
  }
  return generate(content, length, signatures, count, generation_type, normalized_length,
                  getHashValues_KR, getHashValuesNoHorner_KR);
}

int generateVornetSignature_Adler(const char* content, int length, Signature** signatures,
                                  int* count, int generation_type, int* normalized_length) {
  clearOutputs(signatures, count, normalized_length);
  if (length < 1 || content == nullptr) {
    LOG_INFO("docLen (%d) <= 0 || docContent == NULL", length);
    return kOk;
  }
  return generate(content, length, signatures, count, generation_type, normalized_length,
                  getHashValues_Adler, getHashValuesNoHorner_Adler);
}

void setMaxContentSize(int bytes) { max_content_size = bytes; }
int maxContentSize() { return max_content_size; }
