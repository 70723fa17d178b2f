// With the search tables named "sig_table" the size limit of AddDocSignature()
// sees the strong table. A program of its own, since the match side reads its
// configuration once per process.
#include "host_session.h"

namespace {

class NamedTables : public LibraryTest {
 protected:
  NamedTables() { configure("search_table_fname = \"sig_table\"\n"); }
};

// It looks at the table of the last session: a session itself may add beyond
// the limit.
TEST_F(NamedTables, TheLimitSeesTheTableOfTheLastSession) {
  const Signatures list = documents::signatures(10, 1);
  ASSERT_EQ(0, InitIndexSystem());
  ASSERT_EQ(0, setMaxStblSize(1));
  EXPECT_EQ(0, addDocument(1, list));
  EXPECT_EQ(0, addDocument(2, list));
  ASSERT_EQ(0, ExitIndexSystem());

  constexpr unsigned kTableBytes = (10 + 10 + 1) * 16;
  ASSERT_EQ(kTableBytes, dir_.read("sig_index_DB/sig_table.stbl").size());
  ASSERT_EQ(0, InitIndexSystem()) << "the root document is no addition of the host";
  for (const unsigned refusing : {0u, 1u, kTableBytes - 1, kTableBytes}) {
    setMaxStblSize(refusing);
    EXPECT_EQ(1, addDocument(3, list)) << refusing;
  }
  setMaxStblSize(kTableBytes + 1);
  EXPECT_EQ(0, addDocument(3, list));
  ASSERT_EQ(0, ExitIndexSystem());
}

TEST_F(NamedTables, DeletionsMakeRoom) {
  const Signatures list = documents::signatures(10, 1);
  ASSERT_EQ(0, InitIndexSystem());
  ASSERT_EQ(0, addDocument(1, list));
  ASSERT_EQ(0, ExitIndexSystem());

  setMaxStblSize(100);
  ASSERT_EQ(0, InitIndexSystem());
  EXPECT_EQ(1, addDocument(2, list));
  EXPECT_EQ(0, deleteDocuments({1}));
  EXPECT_EQ(1, addDocument(2, list)) << "the table is still the old one";
  ASSERT_EQ(0, ExitIndexSystem());

  ASSERT_EQ(0, InitIndexSystem());
  EXPECT_EQ(0, addDocument(2, list));
  ASSERT_EQ(0, ExitIndexSystem());
}

TEST_F(NamedTables, MatchingFindsTheTablesByTheirName) {
  const Signatures list = documents::signatures(10, 1);
  ASSERT_EQ(0, InitIndexSystem());
  ASSERT_EQ(0, addDocument(1, list));
  ASSERT_EQ(0, ExitIndexSystem());
  EXPECT_FALSE(dir_.exists("sig_index_DB/search_table.stbl"));
  ASSERT_EQ(0, InitMatchSystem());
  EXPECT_EQ((Matches{{1, 2}}), match(list));
}

}  // namespace
