// Holds the built library against the files of tests/golden: lists and index
// files that an earlier build made from the same calls (scenario.h).
// write_golden.cpp makes them anew.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

#include "golden.h"
#include "scenario.h"
#include "temp_dir.h"

namespace {

namespace fs = std::filesystem;

// Absolute, since the tests change directory.
const fs::path kGolden = [] {
  const char* const path = std::getenv("TESSERA_GOLDEN_DIR");
  return path != nullptr ? fs::absolute(path) : fs::path();
}();

std::string content(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file.good()) << path;
  return std::string(std::istreambuf_iterator<char>(file), {});
}

std::set<std::string> names(const fs::path& directory) {
  std::set<std::string> found;
  for (const auto& entry : fs::directory_iterator(directory)) {
    found.insert(entry.path().filename().string());
  }
  return found;
}

// A difference is told by its place, not by dumping both files.
void expectSameFile(const fs::path& expected, const fs::path& actual) {
  const std::string left = content(expected), right = content(actual);
  EXPECT_EQ(left.size(), right.size()) << actual.filename();
  const auto [at, other] = std::mismatch(left.begin(), left.end(), right.begin(), right.end());
  EXPECT_TRUE(at == left.end() || other == right.end())
      << actual.filename() << " differs at byte " << (at - left.begin());
}

class Golden : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(kGolden.empty()) << "TESSERA_GOLDEN_DIR must name the golden files";
  }

  TempDir dir_;
};

TEST_F(Golden, TheSameTextsGiveTheSameLists) {
  const auto lists = scenario::signatureLists(golden::kSeed);
  std::set<std::string> made;
  for (const auto& [name, list] : lists) {
    made.insert(name);
    EXPECT_TRUE(content(kGolden / "signatures" / name) == list) << name << " differs";
  }
  EXPECT_EQ(names(kGolden / "signatures"), made);
}

TEST_F(Golden, TheSameCallsGiveTheSameIndex) {
  scenario::createIndex(golden::kSeed);
  EXPECT_EQ(names(kGolden / "index"), names("sig_index_DB"));
  for (const std::string& name : names("sig_index_DB")) {
    expectSameFile(kGolden / "index" / name, fs::path("sig_index_DB") / name);
  }
}

TEST_F(Golden, AStoredIndexAnswersAsItDid) {
  scenario::createIndex(golden::kSeed);
  const auto expected = scenario::matchIndex(golden::kSeed);
  fs::remove_all("sig_index_DB");
  fs::copy(kGolden / "index", "sig_index_DB");
  EXPECT_EQ(expected, scenario::matchIndex(golden::kSeed));
}

// What the golden directory does not hold of the grown index, the prefix
// directories above all, must be as if the index had never been away.
TEST_F(Golden, AStoredIndexGrows) {
  scenario::createIndex(golden::kSeed);
  scenario::growIndex(golden::kSeed);
  fs::rename("sig_index_DB", "expected");
  fs::create_directory("sig_index_DB");
  for (const std::string& name : names(kGolden / "index")) {
    fs::copy_file(kGolden / "index" / name, fs::path("sig_index_DB") / name);
  }
  scenario::growIndex(golden::kSeed);
  for (const std::string& name : names("expected")) {
    expectSameFile(fs::path("expected") / name, fs::path("sig_index_DB") / name);
  }
  for (const std::string& name : names(kGolden / "grown")) {
    expectSameFile(kGolden / "grown" / name, fs::path("sig_index_DB") / name);
  }
}

}  // namespace
