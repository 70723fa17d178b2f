// The match side reads its configuration once per process, so this story of a
// process without one is a program of its own.
#include <filesystem>

#include "host_session.h"

namespace {

class NoConfiguration : public LibraryTest {};

TEST_F(NoConfiguration, MatchingReadsTheFileOnceAsSoonAsItCan) {
  const std::set<Element> elements = {{documents::signature({1, 2, 3, 4, 5, 6, 7, 8}), 1, 0}};
  writeTables(dir_, searchTables(-1, 3, elements));
  writeTables(dir_, searchTables(-1, 3, elements), "other");
  EXPECT_EQ(1, InitMatchSystem()) << "no file";
  configure("search_table_fname = other\n");
  EXPECT_EQ(1, InitMatchSystem()) << "a malformed one";
  EXPECT_EQ(1, ExitMatchSystem());

  configure("search_table_fname = \"other\"\n");
  ASSERT_EQ(0, InitMatchSystem());
  ASSERT_EQ(0, ExitMatchSystem());

  // From here on it is not looked at again, nor is the other table.
  std::filesystem::remove("index_sys_config.txt");
  std::filesystem::remove("sig_index_DB/search_table.wtbl");
  ASSERT_EQ(0, InitMatchSystem());
  EXPECT_EQ((Matches{{0, 2}}), match({documents::signature({1, 2, 3, 4, 5, 6, 7, 8})}));
}

}  // namespace
