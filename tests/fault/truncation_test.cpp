// An index one of whose files is shorter than it was, at many lengths: whoever
// opens it gets everything that was in it, or is refused; whoever searches it
// gets right answers, or a failure.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <string>

#include "documents.h"
#include "index_story.h"
#include "temp_dir.h"

namespace {

namespace fs = std::filesystem;

constexpr uint64_t kSeed = 20250420;
constexpr uint32_t kBlockBytes = 1024;

using Files = std::map<std::string, std::string>;

Files filesOfTheIndex() {
  Files files;
  for (const auto& entry : fs::directory_iterator(story::kIndexDirectory)) {
    files[entry.path().filename().string()] = story::readFile(entry.path().string());
  }
  return files;
}

void restore(const TempDir& dir, const Files& files) {
  for (const auto& [name, content] : files) {
    dir.write(story::kIndexDirectory + ("/" + name), content);
  }
  for (const auto& entry : fs::directory_iterator(story::kIndexDirectory)) {
    if (!files.contains(entry.path().filename().string())) fs::remove(entry.path());
  }
}

bool isTree(const std::string& name) { return name.starts_with("fid_index."); }

TEST(Truncation, OfAnyFileAtAnyLengthIsRefusedOrDoesNoHarm) {
  const uint64_t seed = documents::seed(kSeed);
  SCOPED_TRACE(story::repeatLine(seed, 0));
  const TempDir dir;
  story::writeConfiguration();
  const story::QuickSystem quick(kBlockBytes);
  const std::vector<story::Call> calls = story::calls(seed);
  story::Book book;
  for (const story::Call& call : calls) {
    ASSERT_EQ(story::apply(call, &book), story::perform(call));
  }
  const story::Answers& expected = story::answersOf(calls, book.saved);
  ASSERT_EQ(expected, story::search(calls));
  const Files good = filesOfTheIndex();
  ASSERT_EQ(17u, good.size());

  uint64_t refused = 0, harmless = 0;
  const uint64_t pieces = 40 / story::stride(1, 4, 8, 8);
  for (const auto& [name, content] : good) {
    const uint64_t step = content.size() / pieces + 1;
    for (uint64_t length = 0; length < content.size(); length += step) {
      SCOPED_TRACE(name + " of " + std::to_string(length) + " bytes");
      restore(dir, good);
      dir.write(story::kIndexDirectory + ("/" + name), content.substr(0, length));
      if (!isTree(name)) {
        const auto answers = story::search(calls);
        for (size_t i = 0; answers && i < answers->size(); ++i) {
          const bool failed = (*answers)[i].size() == 1 && (*answers)[i][0].second == -1;
          ASSERT_TRUE(failed || (*answers)[i] == expected[i]) << "query " << i;
        }
      }
      std::string problem;
      const auto records = story::readIndex(&problem);
      ASSERT_TRUE(records == nullptr || *records == book.saved);
      ASSERT_TRUE(records != nullptr || isTree(name)) << problem;
      ++(records == nullptr ? refused : harmless);
    }
  }
  EXPECT_GT(refused, 10u);
  EXPECT_GT(harmless, 10u);
  std::printf("%llu refused, %llu harmless\n", static_cast<unsigned long long>(refused),
              static_cast<unsigned long long>(harmless));
}

}  // namespace
