// What the log never tells: signatures, from which passages of a document could
// be found again.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "documents.h"
#include "fail_point.h"
#include "log_capture.h"
#include "temp_dir.h"
#include "tessera.h"

namespace {

using Bytes = unsigned char[8];

// Every way to print a signature that a message could have: its bytes as they
// are, in hexadecimal with any or no separator, and it or its halves as decimal
// numbers of either byte order and sign.
std::vector<std::string> spellings(const Bytes& signature) {
  std::vector<std::string> texts = {std::string(reinterpret_cast<const char*>(signature), 8)};
  for (const char* const separator : {"", " ", ":", "-", ","}) {
    std::string hexadecimal;
    std::string decimal;
    for (const unsigned char byte : signature) {
      char digits[3];
      std::snprintf(digits, sizeof digits, "%02x", byte);
      hexadecimal.append(hexadecimal.empty() ? "" : separator).append(digits);
      decimal.append(decimal.empty() ? "" : separator).append(std::to_string(byte));
    }
    texts.push_back(hexadecimal);
    texts.push_back(decimal);
  }
  Bytes reversed;
  std::reverse_copy(signature, signature + 8, reversed);
  for (const Bytes* const bytes : {&signature, &std::as_const(reversed)}) {
    uint64_t whole;
    uint32_t halves[2];
    std::memcpy(&whole, *bytes, 8);
    std::memcpy(halves, *bytes, 8);
    char digits[17];
    std::snprintf(digits, sizeof digits, "%llx", static_cast<unsigned long long>(whole));
    texts.insert(texts.end(),
                 {digits, std::to_string(whole), std::to_string(static_cast<int64_t>(whole))});
    for (const uint32_t half : halves) {
      std::snprintf(digits, sizeof digits, "%x", half);
      texts.insert(texts.end(),
                   {digits, std::to_string(half), std::to_string(static_cast<int32_t>(half))});
    }
  }
  return texts;
}

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) {
    return c < 0x80 ? static_cast<char>(std::tolower(c)) : static_cast<char>(c);
  });
  return text;
}

class LogSecrecy : public testing::Test {
 protected:
  void setUp() {
    std::filesystem::remove_all("sig_index_DB");
    dir_.write("index_sys_config.txt", "max_fid_num=1\n");
  }

  // A document is generated, indexed, added again, matched and deleted.
  void run() {
    std::string text = documents::letters(3000, 5);
    Bytes* list = nullptr;
    int count = 0;
    InitSignatureGenerator(TESSERA_CLIENT);
    if (GenerateSignature4Text(text.data(), static_cast<int>(text.size()), &list, &count) == 0) {
      for (int i = 0; i < count; ++i) keep(list[i]);
      for (int session = 0; session < 2; ++session) {
        InitIndexSystem();
        for (int64_t file_id = 1; file_id < 7; ++file_id) {
          AddDocSignature(file_id, list, count);
          AddDocSignature(file_id, list, count);
        }
        ExitIndexSystem();
      }
      InitMatchSystem();
      _DLPSigMatchRet dummy;
      _DLPSigMatchRet* result = &dummy;
      int found = 0;
      MatchSignature(list, count, 100, &result, &found);
      if (result != &dummy) FreeSigMatchRet(result);
      ExitMatchSystem();
      InitIndexSystem();
      int64_t file_ids[] = {1, 2};
      DelDocSignature(file_ids, 2);
      ExitIndexSystem();
    }
    FreeSignature(list);
    ExitSignatureGenerator();
  }

  void keep(const Bytes& signature) {
    for (const std::string& text : spellings(signature)) {
      // The short ones would be found in any line with a number.
      if (text.size() >= 6) secrets_.insert(text);
    }
  }

  void expectNoSecretTold() {
    ASSERT_FALSE(secrets_.empty());
    for (const LogLine& line : log_.lines()) {
      if (!seen_.insert(line.message).second) continue;
      const std::string message = lower(line.message);
      for (const std::string& secret : secrets_) {
        EXPECT_EQ(std::string::npos, message.find(lower(secret))) << line.text;
      }
    }
    log_.clear();
  }

  TempDir dir_;
  LogCapture log_;
  std::set<std::string> secrets_;
  std::set<std::string> seen_;
};

TEST_F(LogSecrecy, ARunTellsNoSignature) {
  setUp();
  run();
  EXPECT_FALSE(log_.lines().empty());
  expectNoSecretTold();
}

TEST_F(LogSecrecy, NorDoesARunInWhichAnyKindOfCallFails) {
  setUp();
  run();
  for (const Call call :
       {Call::kOpen, Call::kSeek, Call::kRead, Call::kWrite, Call::kSize, Call::kTruncate,
        Call::kSync, Call::kAccess, Call::kMakeDirectory, Call::kToNativePath, Call::kAllocate}) {
    int n = 1;
    for (bool failed = true; failed; n *= 2) {
      setUp();
      FailPoint point;
      point.fail(call, n, /*lasting=*/n % 2 == 0);
      run();
      failed = point.failed();
      expectNoSecretTold();
    }
  }
  EXPECT_LT(20u, seen_.size());  // kinds of messages, and their variants
}

}  // namespace
