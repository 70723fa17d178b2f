// Paths of the files in a directory.
#include "paths.h"

#include <gtest/gtest.h>

namespace {

TEST(Paths, ASlashStandsBetweenDirectoryAndName) {
  EXPECT_EQ("sig_index_DB/", withSeparator("sig_index_DB"));
  EXPECT_EQ("sig_index_DB/meta_data.bin", filePath("sig_index_DB", "meta_data.bin"));
}

TEST(Paths, ADirectoryThatEndsInEitherSeparatorGetsNoOther) {
  EXPECT_EQ("dir/", withSeparator("dir/"));
  EXPECT_EQ("dir\\", withSeparator("dir\\"));
  EXPECT_EQ("dir\\name", filePath("dir\\", "name"));
  EXPECT_EQ("dir/name", filePath("dir/", "name"));
}

TEST(Paths, AnEmptyDirectoryBecomesTheRoot) { EXPECT_EQ("/", withSeparator("")); }

}  // namespace
