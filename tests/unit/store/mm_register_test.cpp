#include "mm_register.h"

#include <gtest/gtest.h>

#include "temp_dir.h"
#include "tpie_log.h"

namespace {

MM_register_base& memory() { return MM_register_base::instance(); }

class MemoryRegister : public testing::Test {
 protected:
  ~MemoryRegister() override {
    memory().set_memory_limit(0);
    setTpieLogEnabled(false);
    tpieLog().close();
  }

  std::string log() {
    if (tpieLog().path().empty()) return "";
    const std::string path = tpieLog().path();
    tpieLog().close();
    return dir_.read(path);
  }

  TempDir dir_;
};

TEST_F(MemoryRegister, ThereIsNoLimitAfterLoad) {
  EXPECT_EQ(0u, memory().memory_limit());
  const size_t before = memory().memory_used();
  EXPECT_TRUE(memory().register_allocation(size_t{1} << 60));
  EXPECT_EQ(before + (size_t{1} << 60), memory().memory_used());
  memory().register_deallocation(size_t{1} << 60);
  EXPECT_EQ(before, memory().memory_used());
}

TEST_F(MemoryRegister, AnAllocationPastTheLimitIsRefusedAndChangesNothing) {
  const size_t before = memory().memory_used();
  memory().set_memory_limit(before + 100);
  EXPECT_FALSE(memory().register_allocation(101));
  EXPECT_FALSE(memory().register_allocation(SIZE_MAX));
  EXPECT_EQ(before, memory().memory_used());
  EXPECT_TRUE(memory().register_allocation(60));
  EXPECT_FALSE(memory().register_allocation(41));
  EXPECT_TRUE(memory().register_allocation(40));
  memory().set_memory_limit(1);  // below what is in use
  EXPECT_FALSE(memory().register_allocation(1));
  memory().register_deallocation(100);
}

TEST_F(MemoryRegister, ASecondInstanceIsReportedWhenTheLogIsEnabled) {
  setTpieLogEnabled(true);
  { MM_register_base second; }
  const std::string text = log();
  EXPECT_TRUE(text.starts_with("mm_register.cpp line ")) << text;
  EXPECT_TRUE(
      text.ends_with(": Assertion failed: Only 1 instance of MM_register_base should exist.\n"))
      << text;
}

TEST_F(MemoryRegister, ASecondInstanceIsNotReportedByDefaultAndWorks) {
  MM_register_base second;
  EXPECT_TRUE(second.register_allocation(5));
  EXPECT_EQ(5u, second.memory_used());
  EXPECT_EQ("", log());
}

TEST_F(MemoryRegister, GivingBackTooMuchIsReportedAndEndsAtZero) {
  setTpieLogEnabled(true);
  memory().register_deallocation(memory().memory_used() + 1);
  EXPECT_EQ(0u, memory().memory_used());
  EXPECT_NE(std::string::npos, log().find(": Assertion failed: More memory is given back"));
}

}  // namespace
