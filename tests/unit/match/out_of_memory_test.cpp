// A loading whose memory cannot be had. This file replaces the operators new and
// delete of its program.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "documents.h"
#include "plain_tables.h"
#include "status.h"
#include "vn_fid_search_engine.h"

namespace {

bool refuse = false;

}  // namespace

// Not inline: g++ would take the free() for one that does not fit the new.
[[gnu::noinline]] void* operator new(size_t bytes) {
  void* const block = refuse ? nullptr : std::malloc(bytes);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
[[gnu::noinline]] void* operator new(size_t bytes, const std::nothrow_t&) noexcept {
  return std::malloc(bytes);  // an open file's, which is not at stake here
}
[[gnu::noinline]] void operator delete(void* block) noexcept { std::free(block); }
[[gnu::noinline]] void operator delete(void* block, size_t) noexcept { std::free(block); }
[[gnu::noinline]] void operator delete(void* block, const std::nothrow_t&) noexcept {
  std::free(block);
}

namespace {

// The search system holds its mutex around the loading, so nothing may be thrown.
TEST(SearchEngineOutOfMemory, TheRecordOfTheTablesIsRefusedWithoutAnException) {
  TempDir dir;
  plain_tables::write(
      dir, plain_tables::make({plain_tables::element(documents::signature({1}), 1, 1)}, {1, 1}));
  FidIndexSearchEngine engine;
  ASSERT_EQ(kOk, engine.setConfig(IndexSysConfiguration()));
  MetaData meta;
  int ret = kOk;
  refuse = true;  // no log is kept meanwhile: that would take memory
  EXPECT_NO_THROW(ret = engine.Init(&meta));
  refuse = false;
  EXPECT_EQ(kErrMem, ret);
  EXPECT_FALSE(engine.initialised());
  EXPECT_EQ(kOk, engine.Init(&meta));
}

}  // namespace
