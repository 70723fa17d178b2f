// The exports of the generator family: the initialised flag, the configured
// maximum content size, and the checks before a document is handed on.
// Tests: tests/unit/interface/generator_test.cpp.
#define LOG_TAG "TESSERA_MODULE"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <new>
#include <string>
#include <system_error>

#include "config_lines.h"
#include "export_guard.h"
#include "fpeSigGenTable.h"
#include "fpeSignatureGenerator.h"
#include "log.h"
#include "status.h"
#include "tessera.h"

namespace {

constexpr int kFixedLevel = 3;
constexpr int kDefaultContentSize = 6 << 20;   // 6 MiB
constexpr int kLowestContentSize = 1 << 20;    // 1 MiB
constexpr int kHighestContentSize = 75 << 20;  // 75 MiB
constexpr char kContentSizeKey[] = "max_content_size";

bool initialised = false;

// The configured text, "" when there is none. Memory that runs out while the
// file is read makes it a file that cannot be read.
std::string configuredContentSize() {
  try {
    std::string value;
    tessera::readConfigValue(tessera::kConfigFileName, kContentSizeKey, &value);
    return value;
  } catch (const std::bad_alloc&) {
    return {};
  }
}

bool isDecimal(const std::string& text) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// The value of decimal digits; one that does not fit is certainly too large.
int decimalValue(const std::string& digits) {
  int value = 0;
  const auto end = digits.data() + digits.size();
  return std::from_chars(digits.data(), end, value).ec == std::errc() ? value : INT_MAX;
}

// A size in force is written back so that the file tells it. Whether that
// succeeds is nobody's concern.
void saveContentSize(int bytes) {
  try {
    tessera::writeConfigValues(tessera::kConfigFileName,
                               {{kContentSizeKey, std::to_string(bytes)}});
  } catch (const std::bad_alloc&) {
  }
}

bool acceptContentSize(int bytes) {
  if (bytes < kLowestContentSize || bytes > kHighestContentSize) return false;
  setMaxContentSize(bytes);
  saveContentSize(bytes);
  return true;
}

// Both cleared by the caller.
int generate(const char* content, int length, unsigned char (**signatures)[8], int* count,
             int generation_type) {
  Signature* list = nullptr;
  const int status =
      generateVornetSignature_KR(content, length, &list, count, generation_type, nullptr);
  *signatures = reinterpret_cast<unsigned char(*)[8]>(list);
  return status == kOk ? kSuccess : kFailure;
}

}  // namespace

int InitSignatureGenerator(int platform) try {
  if (initialised) {
    LOG_INFO("Signature generator has been initialized!!!");
    return kFailure;
  }
  if (initTextSignaturer(platform, kFixedLevel) != kOk) {
    LOG_NOTICE("Signature generator init fail!!!");
    return kFailure;
  }
  initialised = true;
  const std::string configured = configuredContentSize();
  if (!isDecimal(configured)) {
    LOG_NOTICE("Gotten max content size fail, use default value!!!");
    acceptContentSize(kDefaultContentSize);
  } else if (!acceptContentSize(decimalValue(configured))) {
    LOG_NOTICE("Gotten max content size invalid, use default value!!!");
    acceptContentSize(kDefaultContentSize);
  }
  return kSuccess;
} catch (...) {
  return kFailure;
}

int GenerateSignature4Text(char* content, int length, unsigned char (**signatures)[8],
                           int* count) try {
  *signatures = nullptr;
  *count = 0;
  if (!initialised) {
    LOG_NOTICE("Signature generator is not initialized!!!");
    return kFailure;
  }
  if (length <= 0 || content == nullptr) {
    LOG_INFO("docLen (%d) <= 0 || docContent == NULL", length);
    return kSuccess;
  }
  return generate(content, length, signatures, count, kTextContent);
} catch (...) {
  return kFailure;
}

int GenerateSignature4Binary(char* content, int length, unsigned char (**signatures)[8],
                             int* count) try {
  *signatures = nullptr;
  *count = 0;
  if (!initialised) {
    LOG_NOTICE("Signature generator is not initialized!");
    return kFailure;
  }
  if (length <= 0 || content == nullptr) {
    LOG_INFO("docLen (%d) <= 0 || docContent == NULL", length);
    return kSuccess;
  }
  return generate(content, length, signatures, count, kBinaryContent);
} catch (...) {
  return kFailure;
}

int SetMaxContentSize(int bytes) try {
  return acceptContentSize(bytes) ? kSuccess : kFailure;
} catch (...) {
  return kFailure;
}

int FreeSignature(unsigned char (*signatures)[8]) {
  std::free(signatures);
  return kSuccess;
}

// One routine with two names: a host may free either kind of list with either.
// The types of the two parameters differ, which g++ would warn of.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wattribute-alias"
#endif
int FreeSigMatchRet(_DLPSigMatchRet* result) __attribute__((alias("FreeSignature")));
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

int ExitSignatureGenerator(void) try {
  if (!initialised) return kFailure;
  releaseTextSignaturer();
  initialised = false;
  return kSuccess;
} catch (...) {
  return kFailure;
}
