// The smallest buffers that the configuration can ask for change no result. A
// program of its own, since the match side reads its configuration once per
// process.
#include <algorithm>

#include "host_session.h"

namespace {

class SmallBuffers : public LibraryTest {
 protected:
  SmallBuffers() { configure("max_ele_num_load = 0\nmax_ele_num_save = 0\nmax_fid_num = 2\n"); }
};

TEST_F(SmallBuffers, TablesAndMatchesEqualTheTwin) {
  const uint64_t seed = documents::seed(20250303);
  SCOPED_TRACE("TESSERA_SEED=" + std::to_string(seed));
  documents::Random random(seed);
  const Signatures pool = documents::signatures(200, seed, 12);
  IndexModel model(8);
  for (int session = 0; session < 3; ++session) {
    ASSERT_EQ(model.open(), InitIndexSystem());
    for (int64_t file_id = 0; file_id < 40; ++file_id) {
      Signatures list(1 + random.below(20));
      for (Signature& each : list) each = pool[random.below(pool.size())];
      ASSERT_EQ(model.add(file_id + 30 * session, list), addDocument(file_id + 30 * session, list));
    }
    ASSERT_EQ(model.close(), ExitIndexSystem());
    expectTables(model.tables(), readTables(dir_));

    ASSERT_EQ(0, InitMatchSystem());
    for (int search = 0; search < 20; ++search) {
      Signatures query = documents::signatures(random.below(20), random.next(), 12);
      for (uint64_t i = 1 + random.below(40); i > 0; --i) {
        query.push_back(pool[random.below(pool.size())]);
      }
      std::sort(query.begin(), query.end());
      EXPECT_EQ(model.match(query, 1), match(query));
    }
    ASSERT_EQ(0, ExitMatchSystem());
  }
}

}  // namespace
