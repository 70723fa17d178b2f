// The generator's six exports: results, messages, the configuration file.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "documents.h"
#include "fail_point.h"
#include "generator_twin.h"
#include "log_capture.h"
#include "temp_dir.h"
#include "tessera.h"

namespace {

using twin::Family;

constexpr int kLowest = 1048576;
constexpr int kHighest = 78643200;
constexpr int kDefault = 6291456;
const char* const kFile = "index_sys_config.txt";

using Generate = int (*)(char*, int, unsigned char (**)[8], int*);

struct Result {
  int status = -1;
  twin::List list;
};

Result run(Generate generate, std::string content) {
  unsigned char dirty[8];
  unsigned char(*list)[8] = &dirty;
  int count = -1;
  Result result;
  result.status = generate(content.data(), static_cast<int>(content.size()), &list, &count);
  EXPECT_EQ(count == 0, list == nullptr);
  for (int i = 0; i < count; ++i) {
    twin::Bytes bytes;
    std::copy_n(list[i], 8, bytes.begin());
    result.list.push_back(bytes);
  }
  EXPECT_EQ(0, FreeSignature(list));
  return result;
}

class GeneratorExports : public testing::Test {
 protected:
  ~GeneratorExports() override { ExitSignatureGenerator(); }

  std::string config() const { return dir_.read(kFile); }

  // Fails the test unless a message of the exports was logged like this, and
  // only once.
  void expectMessage(int level, const std::string& text) const {
    int found = 0;
    for (const LogLine& line : log_.lines()) {
      if (line.tag != "TESSERA_MODULE") continue;
      ++found;
      EXPECT_EQ(level, line.level);
      EXPECT_EQ("Info", line.word);
      EXPECT_EQ(text, line.text);
    }
    EXPECT_EQ(1, found);
  }
  void expectNoMessage() const {
    for (const LogLine& line : log_.lines()) EXPECT_NE("TESSERA_MODULE", line.tag) << line.text;
  }

  TempDir dir_;
  LogCapture log_;
};

// ---- Initialisation ----

TEST_F(GeneratorExports, BothPlatformsInitialise) {
  for (const int platform : {TESSERA_SERVER, TESSERA_CLIENT}) {
    EXPECT_EQ(0, InitSignatureGenerator(platform));
    EXPECT_EQ(0, ExitSignatureGenerator());
  }
}

TEST_F(GeneratorExports, AnUnknownPlatformLeavesTheLibraryUninitialised) {
  for (const int platform : {0, 3, -1}) {
    log_.clear();
    EXPECT_EQ(1, InitSignatureGenerator(platform));
    expectMessage(4, "#<InitSignatureGenerator>#Signature generator init fail!!!");
    EXPECT_TRUE(log_.has("wrong platform (" + std::to_string(platform) + ")"));
    EXPECT_EQ(1, ExitSignatureGenerator());
    EXPECT_FALSE(dir_.exists(kFile));
  }
}

TEST_F(GeneratorExports, ASecondInitialisationIsRefusedAndChangesNothing) {
  ASSERT_EQ(0, InitSignatureGenerator(TESSERA_SERVER));
  ASSERT_EQ(0, SetMaxContentSize(2000000));
  log_.clear();
  EXPECT_EQ(1, InitSignatureGenerator(TESSERA_CLIENT));
  expectMessage(3, "#<InitSignatureGenerator>#Signature generator has been initialized!!!");
  EXPECT_EQ(1u, log_.lines().size());
  EXPECT_EQ("max_content_size=2000000\n", config());
  const std::string text = documents::letters(9000, 1);
  EXPECT_EQ(twin::server(Family::kKarpRabin, text, kDefault),
            run(GenerateSignature4Text, text).list);
}

TEST_F(GeneratorExports, WithoutMemoryForTheTableInitialisationFailsAndCanBeRepeated) {
  {
    FailPoint point;
    point.fail(Call::kAllocate, 1);
    EXPECT_EQ(1, InitSignatureGenerator(TESSERA_SERVER));
    expectMessage(4, "#<InitSignatureGenerator>#Signature generator init fail!!!");
    EXPECT_TRUE(log_.has("initSigGenTable fail (-4)"));
  }
  EXPECT_EQ(1, ExitSignatureGenerator());
  EXPECT_EQ(0, InitSignatureGenerator(TESSERA_SERVER));
}

TEST_F(GeneratorExports, AnExitWithoutAnInitialisationFails) {
  EXPECT_EQ(1, ExitSignatureGenerator());
  ASSERT_EQ(0, InitSignatureGenerator(TESSERA_SERVER));
  EXPECT_EQ(0, ExitSignatureGenerator());
  EXPECT_EQ(1, ExitSignatureGenerator());
  expectMessage(4, "#<InitSignatureGenerator>#Gotten max content size fail, use default value!!!");
}

TEST_F(GeneratorExports, AnExitAndANewInitialisationSwitchThePlatform) {
  const std::string text = documents::letters(9000, 1);
  for (int cycle = 0; cycle < 2; ++cycle) {
    ASSERT_EQ(0, InitSignatureGenerator(TESSERA_SERVER));
    EXPECT_EQ(twin::server(Family::kKarpRabin, text, kDefault),
              run(GenerateSignature4Text, text).list);
    ASSERT_EQ(0, ExitSignatureGenerator());
    ASSERT_EQ(0, InitSignatureGenerator(TESSERA_CLIENT));
    EXPECT_EQ(twin::client(Family::kKarpRabin, text, kDefault),
              run(GenerateSignature4Text, text).list);
    ASSERT_EQ(0, ExitSignatureGenerator());
  }
}

// ---- The configured maximum content size ----

TEST_F(GeneratorExports, WithoutAConfigurationFileTheDefaultIsTakenAndWritten) {
  ASSERT_EQ(0, InitSignatureGenerator(TESSERA_SERVER));
  expectMessage(4, "#<InitSignatureGenerator>#Gotten max content size fail, use default value!!!");
  EXPECT_EQ("max_content_size=6291456\n", config());
}

TEST_F(GeneratorExports, AConfiguredSizeIsFoundWhateverItsCaseAndBlanks) {
  dir_.write(kFile, "\t MAX_CONTENT_SIZE  =  2000000 \r\n");
  ASSERT_EQ(0, InitSignatureGenerator(TESSERA_SERVER));
  expectNoMessage();
  EXPECT_EQ("MAX_CONTENT_SIZE=2000000\n", config());
}

TEST_F(GeneratorExports, TheSizeInForceIsWrittenBackBesideTheOtherLines) {
  dir_.write(kFile, "x=1\nmax_content_size=0002000000\n# note");
  ASSERT_EQ(0, InitSignatureGenerator(TESSERA_SERVER));
  EXPECT_EQ("x=1\nmax_content_size=2000000\n# note\n", config());
}

TEST_F(GeneratorExports, TheBoundsThemselvesMayBeConfigured) {
  for (const int bytes : {kLowest, kHighest}) {
    dir_.write(kFile, "max_content_size=" + std::to_string(bytes) + "\n");
    log_.clear();
    ASSERT_EQ(0, InitSignatureGenerator(TESSERA_SERVER));
    expectNoMessage();
    EXPECT_EQ("max_content_size=" + std::to_string(bytes) + "\n", config());
    ExitSignatureGenerator();
  }
}

TEST_F(GeneratorExports, DigitsOutOfRangeAreInvalidAndTheDefaultIsTaken) {
  for (const char* const value : {"1000", "0", "1048575", "78643201", "2147483647", "2147483648",
                                  "4296015872", "99999999999999999999999999"}) {
    SCOPED_TRACE(value);
    dir_.write(kFile, std::string("max_content_size=") + value + "\n");
    log_.clear();
    ASSERT_EQ(0, InitSignatureGenerator(TESSERA_SERVER));
    expectMessage(
        4, "#<InitSignatureGenerator>#Gotten max content size invalid, use default value!!!");
    EXPECT_EQ("max_content_size=6291456\n", config());
    ExitSignatureGenerator();
  }
}

TEST_F(GeneratorExports, AnythingButDigitsIsNoSizeAndTheDefaultIsTaken) {
  for (const char* const value :
       {"-5", "5MB", "+2000000", "2 000 000", "2000000.0", "0x200000", "", "  "}) {
    SCOPED_TRACE(value);
    dir_.write(kFile, std::string("max_content_size=") + value + "\n");
    log_.clear();
    ASSERT_EQ(0, InitSignatureGenerator(TESSERA_SERVER));
    expectMessage(4,
                  "#<InitSignatureGenerator>#Gotten max content size fail, use default value!!!");
    EXPECT_EQ("max_content_size=6291456\n", config());
    ExitSignatureGenerator();
  }
}

TEST_F(GeneratorExports, AFileThatCannotBeReadIsAnAbsentKey) {
  dir_.write(kFile, "max_content_size=2000000\n");
  FailPoint point;
  point.fail(Call::kOpen, 1);
  EXPECT_EQ(0, InitSignatureGenerator(TESSERA_SERVER));
  expectMessage(4, "#<InitSignatureGenerator>#Gotten max content size fail, use default value!!!");
}

TEST_F(GeneratorExports, AFailedWriteBackIsIgnored) {
  FailPoint point;
  point.fail(Call::kWrite, 1, /*lasting=*/true);
  EXPECT_EQ(0, InitSignatureGenerator(TESSERA_SERVER));
  EXPECT_EQ(0, SetMaxContentSize(kLowest));
  EXPECT_TRUE(point.failed());
  point.fail(Call::kAllocate, 1, /*lasting=*/true);
  EXPECT_EQ(0, SetMaxContentSize(kLowest));
  EXPECT_TRUE(point.failed());
}

TEST_F(GeneratorExports, TheBoundsAreAcceptedAndWhatLiesBeyondThemChangesNothing) {
  for (const int bytes : {kLowest, kHighest}) {
    EXPECT_EQ(0, SetMaxContentSize(bytes));
    EXPECT_EQ("max_content_size=" + std::to_string(bytes) + "\n", config());
    const std::string before = config();
    for (const int refused : {kLowest - 1, kHighest + 1, 0, -1}) {
      EXPECT_EQ(1, SetMaxContentSize(refused));
      EXPECT_EQ(before, config());
    }
  }
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(GeneratorExports, ARefusedSizeCreatesNoFile) {
  EXPECT_EQ(1, SetMaxContentSize(kLowest - 1));
  EXPECT_FALSE(dir_.exists(kFile));
}

TEST_F(GeneratorExports, ASizeMayBeSetBeforeTheInitialisationWhichReadsItBack) {
  EXPECT_EQ(0, SetMaxContentSize(3000000));
  EXPECT_EQ("max_content_size=3000000\n", config());
  ASSERT_EQ(0, InitSignatureGenerator(TESSERA_SERVER));
  EXPECT_EQ("max_content_size=3000000\n", config());
}

TEST_F(GeneratorExports, AnInitialisationOverwritesTheSizeThatWasSet) {
  EXPECT_EQ(0, SetMaxContentSize(kLowest));
  dir_.write(kFile, "max_content_size=2000000\n");
  ASSERT_EQ(0, InitSignatureGenerator(TESSERA_CLIENT));
  // Only the part behind 1 MiB holds a window that is selected.
  const std::string text = std::string(kLowest + 1000, 'a') + std::string(61, '\x89');
  EXPECT_EQ(twin::sorted(twin::selected(Family::kKarpRabin, text, kLowest, text.size() - 60)),
            run(GenerateSignature4Text, text).list);
}

TEST_F(GeneratorExports, OnlyTheBytesUpToTheMaximumContentSizeAreHashed) {
  for (const int platform : {TESSERA_SERVER, TESSERA_CLIENT}) {
    dir_.write(kFile, "max_content_size=1048576\n");
    ASSERT_EQ(0, InitSignatureGenerator(platform));
    const std::string text = documents::letters(2 << 20, 8);
    const Result whole = run(GenerateSignature4Text, text);
    EXPECT_EQ(0, whole.status);
    EXPECT_EQ(platform == TESSERA_SERVER ? twin::server(Family::kKarpRabin, text, kLowest)
                                         : twin::client(Family::kKarpRabin, text, kLowest),
              whole.list);
    EXPECT_EQ(run(GenerateSignature4Text, text.substr(0, kLowest)).list, whole.list);
    ExitSignatureGenerator();
  }
}

// ---- Generation ----

struct Kind {
  const char* name;
  Generate generate;
  const char* not_initialised;
};

void PrintTo(const Kind& kind, std::ostream* out) { *out << kind.name; }

class GenerateExport : public GeneratorExports, public testing::WithParamInterface<Kind> {
 protected:
  static std::string function() {
    return std::string("#<GenerateSignature4") + GetParam().name + ">#";
  }
};

INSTANTIATE_TEST_SUITE_P(Kinds, GenerateExport,
                         testing::Values(Kind{"Text", GenerateSignature4Text,
                                              "Signature generator is not initialized!!!"},
                                         Kind{"Binary", GenerateSignature4Binary,
                                              "Signature generator is not initialized!"}),
                         [](const auto& test) { return test.param.name; });

TEST_P(GenerateExport, FailsBeforeTheInitialisationAndAfterTheExit) {
  for (const bool after : {false, true}) {
    if (after) {
      ASSERT_EQ(0, InitSignatureGenerator(TESSERA_CLIENT));
      ASSERT_EQ(0, ExitSignatureGenerator());
    }
    log_.clear();
    const Result result = run(GetParam().generate, documents::letters(500, 1));
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(result.list.empty());
    expectMessage(4, function() + GetParam().not_initialised);
  }
}

TEST_P(GenerateExport, TheFlagIsLookedAtBeforeTheDocument) {
  EXPECT_EQ(1, run(GetParam().generate, "").status);
  expectMessage(4, function() + GetParam().not_initialised);
}

TEST_P(GenerateExport, NoDocumentIsASuccessWithoutSignatures) {
  ASSERT_EQ(0, InitSignatureGenerator(TESSERA_CLIENT));
  char content[] = "some text";
  for (const int length : {0, -1, INT32_MIN, 9}) {
    SCOPED_TRACE(length);
    log_.clear();
    unsigned char dirty[8];
    unsigned char(*list)[8] = &dirty;
    int count = 5;
    EXPECT_EQ(0, GetParam().generate(length == 9 ? nullptr : content, length, &list, &count));
    EXPECT_EQ(nullptr, list);
    EXPECT_EQ(0, count);
    expectMessage(
        3, function() + "docLen (" + std::to_string(length) + ") <= 0 || docContent == NULL");
  }
}

TEST_P(GenerateExport, MemoryThatRunsOutIsAFailureWithoutSignatures) {
  ASSERT_EQ(0, InitSignatureGenerator(TESSERA_SERVER));
  FailPoint point;
  point.fail(Call::kAllocate, 0);
  ASSERT_EQ(0, run(GetParam().generate, documents::letters(3000, 1)).status);
  const int allocations = point.count();
  ASSERT_GT(allocations, 0);
  for (int n = 1; n <= allocations; ++n) {
    point.fail(Call::kAllocate, n);
    const Result result = run(GetParam().generate, documents::letters(3000, 1));
    EXPECT_EQ(1, result.status) << n;
    EXPECT_TRUE(result.list.empty());
  }
}

TEST_P(GenerateExport, LeavesTheContentAlone) {
  ASSERT_EQ(0, InitSignatureGenerator(TESSERA_CLIENT));
  std::string content = documents::words(3000, 1);
  const std::string before = content;
  unsigned char(*list)[8] = nullptr;
  int count = 0;
  EXPECT_EQ(0, GetParam().generate(content.data(), 3000, &list, &count));
  EXPECT_EQ(before, content);
  FreeSignature(list);
}

TEST_F(GeneratorExports, TextGivesTheListOfThePlatform) {
  const std::string text = documents::words(30000, 6);
  ASSERT_EQ(0, InitSignatureGenerator(TESSERA_SERVER));
  const Result server = run(GenerateSignature4Text, text);
  EXPECT_EQ(0, server.status);
  EXPECT_EQ(twin::server(Family::kKarpRabin, text, kDefault), server.list);
  ExitSignatureGenerator();
  ASSERT_EQ(0, InitSignatureGenerator(TESSERA_CLIENT));
  const Result client = run(GenerateSignature4Text, text);
  EXPECT_EQ(twin::client(Family::kKarpRabin, text, kDefault), client.list);
  EXPECT_NE(server.list, client.list);
}

TEST_F(GeneratorExports, ATextThatIsTooShortIsASuccessWithoutSignatures) {
  ASSERT_EQ(0, InitSignatureGenerator(TESSERA_CLIENT));
  const Result result = run(GenerateSignature4Text, documents::letters(60, 1));
  EXPECT_EQ(0, result.status);
  EXPECT_TRUE(result.list.empty());
}

TEST_F(GeneratorExports, BinaryContentGivesOneSignatureOnEitherPlatform) {
  const std::string content = documents::bytes(70000, 6);
  for (const int platform : {TESSERA_SERVER, TESSERA_CLIENT}) {
    ASSERT_EQ(0, InitSignatureGenerator(platform));
    const Result result = run(GenerateSignature4Binary, content);
    EXPECT_EQ(0, result.status);
    EXPECT_EQ(twin::binary(content), result.list);
    ExitSignatureGenerator();
  }
}

// ---- Release ----

TEST_F(GeneratorExports, FreeingNothingSucceeds) {
  EXPECT_EQ(0, FreeSignature(nullptr));
  EXPECT_EQ(0, FreeSigMatchRet(nullptr));
}

TEST_F(GeneratorExports, ListsAndMatchResultsAreFreedByOneRoutine) {
  // Compared as objects of memory: the compiler may take two names for two functions.
  int (*const free_list)(unsigned char(*)[8]) = FreeSignature;
  int (*const free_result)(_DLPSigMatchRet*) = FreeSigMatchRet;
  static_assert(sizeof free_list == sizeof free_result);
  EXPECT_EQ(0, std::memcmp(&free_list, &free_result, sizeof free_list));
  EXPECT_EQ(0,
            FreeSigMatchRet(static_cast<_DLPSigMatchRet*>(std::malloc(sizeof(_DLPSigMatchRet)))));
  EXPECT_EQ(0, FreeSignature(static_cast<unsigned char(*)[8]>(std::malloc(8))));
}

}  // namespace
