// Loading and unloading the built library, which this program is not linked to.
// A host that loads it on demand must get a working library each time, whatever
// state it left the last one in.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "documents.h"
#include "dynamic_library.h"
#include "temp_dir.h"
#include "tessera.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kNames[] = {
    "InitSignatureGenerator", "GenerateSignature4Text", "GenerateSignature4Binary",
    "SetMaxContentSize",      "FreeSignature",          "ExitSignatureGenerator",
    "InitIndexSystem",        "AddDocSignature",        "DelDocSignature",
    "ExitIndexSystem",        "setMaxStblSize",         "InitMatchSystem",
    "MatchSignature",         "FreeSigMatchRet",        "ExitMatchSystem",
};

// Absolute, since the tests change directory.
const std::string kLibrary = [] {
  const char* const path = std::getenv("TESSERA_LIBRARY");
  return path != nullptr ? fs::absolute(path).string() : std::string();
}();

// The calls these tests make. Declares each under its own name.
struct Tessera {
  explicit Tessera(const std::string& path) : library(path) {}

  DynamicLibrary library;
#define TESSERA_FUNCTION(name) \
  decltype(::name)* const name = library.function<decltype(::name)>(#name)
  TESSERA_FUNCTION(InitSignatureGenerator);
  TESSERA_FUNCTION(GenerateSignature4Text);
  TESSERA_FUNCTION(FreeSignature);
  TESSERA_FUNCTION(ExitSignatureGenerator);
  TESSERA_FUNCTION(InitIndexSystem);
  TESSERA_FUNCTION(AddDocSignature);
  TESSERA_FUNCTION(ExitIndexSystem);
  TESSERA_FUNCTION(InitMatchSystem);
  TESSERA_FUNCTION(MatchSignature);
  TESSERA_FUNCTION(ExitMatchSystem);
#undef TESSERA_FUNCTION
};

class LoadUnload : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(kLibrary.empty()) << "TESSERA_LIBRARY must name the built library";
    dir_.write("index_sys_config.txt", "");
  }

  TempDir dir_;
};

unsigned char signature_a[1][8] = {{1, 2, 3, 4, 5, 6, 7, 8}};
unsigned char signature_b[1][8] = {{1, 2, 3, 4, 5, 6, 7, 9}};

int generate(const Tessera& tessera, int* count) {
  std::string text = documents::letters(5000, 1);
  unsigned char(*list)[8] = nullptr;
  const int status = tessera.GenerateSignature4Text(text.data(), 5000, &list, count);
  tessera.FreeSignature(list);
  return status;
}

int matches(const Tessera& tessera, unsigned char (*query)[8]) {
  _DLPSigMatchRet any;
  _DLPSigMatchRet* result = &any;
  int count = -1;
  EXPECT_EQ(0, tessera.MatchSignature(query, 1, 0, &result, &count));
  // FreeSigMatchRet() is this function, but the sanitizer compares types when a
  // function is called through its address.
  tessera.FreeSignature(reinterpret_cast<unsigned char(*)[8]>(result));
  return count;
}

TEST_F(LoadUnload, AllFifteenNamesAreThereAndNoDecoratedOne) {
  const DynamicLibrary library(kLibrary);
  ASSERT_TRUE(library.loaded()) << kLibrary;
  for (const char* name : kNames) {
    EXPECT_NE(nullptr, library.address(name)) << name;
    EXPECT_EQ(nullptr, library.address((std::string("_") + name).c_str()));
    EXPECT_EQ(nullptr, library.address((std::string(name) + "@4").c_str()));
  }
}

TEST_F(LoadUnload, TheTwoFreeingFunctionsAreOne) {
  const DynamicLibrary library(kLibrary);
  ASSERT_TRUE(library.loaded());
  EXPECT_EQ(library.address("FreeSignature"), library.address("FreeSigMatchRet"));
  EXPECT_NE(library.address("FreeSignature"), library.address("ExitMatchSystem"));
}

TEST_F(LoadUnload, AHundredTimes) {
  for (int round = 0; round < 100; ++round) {
    const Tessera tessera(kLibrary);
    ASSERT_TRUE(tessera.library.loaded()) << round;
    for (const char* name : kNames) ASSERT_NE(nullptr, tessera.library.address(name)) << name;
    int count = 0;
    ASSERT_EQ(0, tessera.InitSignatureGenerator(TESSERA_SERVER));
    ASSERT_EQ(0, generate(tessera, &count));
    EXPECT_GT(count, 0);
    ASSERT_EQ(0, tessera.ExitSignatureGenerator());
  }
}

TEST_F(LoadUnload, WithEverythingInUse) {
  for (int round = 0; round < 20; ++round) {
    const Tessera tessera(kLibrary);
    ASSERT_TRUE(tessera.library.loaded()) << round;
    int count = 0;
    EXPECT_EQ(1, generate(tessera, &count)) << "a library loaded anew is not initialised";
    ASSERT_EQ(0, tessera.InitSignatureGenerator(TESSERA_CLIENT));
    ASSERT_EQ(0, generate(tessera, &count));
    ASSERT_EQ(0, tessera.InitIndexSystem());
    ASSERT_EQ(0, tessera.AddDocSignature(round, signature_a, 1));
    if (round > 0) {
      ASSERT_EQ(0, tessera.InitMatchSystem());
      ASSERT_EQ(0, matches(tessera, signature_b));
    } else {
      ASSERT_EQ(0, tessera.ExitIndexSystem());
    }
  }
}

// Unloading closes the trees of an open index; its pending documents are lost.
TEST_F(LoadUnload, WithAnOpenIndex) {
  {
    const Tessera tessera(kLibrary);
    ASSERT_TRUE(tessera.library.loaded());
    ASSERT_EQ(0, tessera.InitIndexSystem());
    ASSERT_EQ(0, tessera.AddDocSignature(1, signature_a, 1));
    ASSERT_EQ(0, tessera.ExitIndexSystem());
    ASSERT_EQ(0, tessera.InitIndexSystem());
    ASSERT_EQ(0, tessera.AddDocSignature(2, signature_b, 1));
  }
  const Tessera tessera(kLibrary);
  ASSERT_TRUE(tessera.library.loaded());
  ASSERT_EQ(0, tessera.InitIndexSystem()) << "the trees must not be locked any more";
  ASSERT_EQ(0, tessera.AddDocSignature(3, signature_a, 1));
  ASSERT_EQ(0, tessera.ExitIndexSystem());
  ASSERT_EQ(0, tessera.InitMatchSystem());
  EXPECT_EQ(2, matches(tessera, signature_a));
  EXPECT_EQ(0, matches(tessera, signature_b));
}

// The match configuration is read once per load, not once per process.
TEST_F(LoadUnload, AFreshlyLoadedLibraryReadsTheMatchConfiguration) {
  {
    const Tessera tessera(kLibrary);
    ASSERT_TRUE(tessera.library.loaded());
    ASSERT_EQ(0, tessera.InitIndexSystem());
    ASSERT_EQ(0, tessera.ExitIndexSystem());
    ASSERT_EQ(0, tessera.InitMatchSystem());
  }
  fs::remove("index_sys_config.txt");
  const Tessera tessera(kLibrary);
  ASSERT_TRUE(tessera.library.loaded());
  EXPECT_EQ(1, tessera.InitMatchSystem());
}

// A copy under another name is a library of its own, as another process has.
TEST_F(LoadUnload, AnIndexThatIsOpenElsewhereIsRefused) {
  const std::string copy = dir_.path("other" + fs::path(kLibrary).extension().string());
  fs::copy_file(kLibrary, copy);
  const Tessera first(kLibrary);
  ASSERT_TRUE(first.library.loaded());
  {
    const Tessera second(copy);
    ASSERT_TRUE(second.library.loaded());
    ASSERT_EQ(0, first.InitIndexSystem());
    EXPECT_EQ(1, second.InitIndexSystem());
    ASSERT_EQ(0, first.AddDocSignature(1, signature_a, 1));
    ASSERT_EQ(0, first.ExitIndexSystem());
    ASSERT_EQ(0, second.InitIndexSystem());
    EXPECT_EQ(1, first.InitIndexSystem());
    ASSERT_EQ(0, second.ExitIndexSystem());
  }
  EXPECT_EQ(0, first.InitIndexSystem());
  EXPECT_EQ(0, first.ExitIndexSystem());
}

}  // namespace
