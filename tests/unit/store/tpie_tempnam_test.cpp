#include "tpie_tempnam.h"

#include <gtest/gtest.h>

#include "ami_device.h"
#include "fail_point.h"
#include "platform.h"
#include "temp_dir.h"

namespace {

std::string in(const std::string& directory) { return directory + platform::kSeparator; }

TEST(TemporaryName, IsDirectoryBaseAndSixCharactersInPlaceOfTheX) {
  const std::string name = tpie_tempnam("base", "dir");
  const std::string head = in("dir") + "base_";
  ASSERT_EQ(head.size() + 6, name.size());
  EXPECT_EQ(head, name.substr(0, head.size()));
  EXPECT_NE("XXXXXX", name.substr(head.size()));
  EXPECT_NE(name, tpie_tempnam("base", "dir"));
}

TEST(TemporaryName, WithoutADirectoryTheEnvironmentIsAskedInOrder) {
  FailPoint system;
  system.setEnvironment("AMI_SINGLE_DEVICE", "one");
  system.setEnvironment("TMPDIR", "two");
  EXPECT_TRUE(tpie_tempnam("b").starts_with(in("one") + "b_"));
  system.setEnvironment("AMI_SINGLE_DEVICE", nullptr);
  EXPECT_TRUE(tpie_tempnam("b").starts_with(in("two") + "b_"));
  system.setEnvironment("TMPDIR", nullptr);
  EXPECT_TRUE(tpie_tempnam("b").starts_with(in(in(".")) + "b_"));
  EXPECT_TRUE(tpie_tempnam("b", "given").starts_with(in("given") + "b_"));
}

TEST(TemporaryName, ATakenNameIsNotGivenAgain) {
  TempDir dir;
  seedTemporaryNames(99);
  const std::string first = tpie_tempnam("b", ".");
  dir.write(first, "taken");
  seedTemporaryNames(99);
  EXPECT_NE(first, tpie_tempnam("b", "."));
  std::filesystem::remove(first);
  seedTemporaryNames(99);
  EXPECT_EQ(first, tpie_tempnam("b", ".")) << "the same seed gives the same name";
}

TEST(TemporaryName, MayHave511CharactersAndNoMore) {
  const size_t rest = std::string("/b_XXXXXX").size();
  EXPECT_EQ(511u, tpie_tempnam("b", std::string(511 - rest, 'd').c_str()).size());
  EXPECT_EQ("", tpie_tempnam("b", std::string(512 - rest, 'd').c_str()));
  FailPoint system;
  system.setEnvironment("AMI_SINGLE_DEVICE", nullptr);
  system.setEnvironment("TMPDIR", std::string(5000, 'd').c_str());
  EXPECT_EQ("", tpie_tempnam("b"));
}

TEST(TemporaryName, ADirectoryOf500CharactersIsTakenWhole) {
  FailPoint system;
  const std::string directory(500, 'd');
  system.setEnvironment("AMI_SINGLE_DEVICE", nullptr);
  system.setEnvironment("TMPDIR", directory.c_str());
  const std::string name = tpie_tempnam("b");
  EXPECT_EQ(500u + 9, name.size());
  EXPECT_TRUE(name.starts_with(in(directory) + "b_"));
  EXPECT_EQ("", tpie_tempnam("base"));
}

TEST(TemporaryName, AFreeNameThatCannotBeFoundIsNoName) {
  FailPoint system;
  system.fail(Call::kToNativePath, 1, /*lasting=*/true);
  EXPECT_EQ("", tpie_tempnam("b", "."));
}

}  // namespace
