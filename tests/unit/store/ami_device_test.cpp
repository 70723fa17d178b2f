#include "ami_device.h"

#include <gtest/gtest.h>

#include <vector>

#include "ami_stream_single.h"
#include "fail_point.h"
#include "temp_dir.h"
#include "tpie_log.h"

namespace {

std::vector<std::string> directories(const AMI_device& device) {
  std::vector<std::string> list;
  for (size_t i = 0; i < device.arity(); ++i) list.push_back(device[i]);
  return list;
}

using Directories = std::vector<std::string>;

TEST(Device, ComponentsStandBetweenBars) {
  AMI_device device;
  ASSERT_TRUE(device.set_to_path("one|two three||four"));
  EXPECT_EQ((Directories{"one", "two three", "", "four"}), directories(device));
  ASSERT_TRUE(device.set_to_path("alone"));
  EXPECT_EQ(Directories{"alone"}, directories(device));
  EXPECT_EQ("\n  alone", device.description());
}

TEST(Device, WithoutMemoryTheListIsEmpty) {
  FailPoint system;
  AMI_device device;
  ASSERT_TRUE(device.set_to_path("a|b"));
  system.fail(Call::kAllocate, 1);
  EXPECT_FALSE(device.set_to_path("c|d"));
  EXPECT_EQ(0u, device.arity());
}

class DefaultDevice : public testing::Test {
 protected:
  DefaultDevice() {
    system_.setEnvironment("AMI_SINGLE_DEVICE", nullptr);
    system_.setEnvironment("TMPDIR", nullptr);
  }
  ~DefaultDevice() override {
    setTpieLogEnabled(false);
    tpieLog().close();
  }
  std::string log() {
    const std::string path = tpieLog().path();
    tpieLog().close();
    return path.empty() ? "" : dir_.read(path);
  }

  TempDir dir_;
  FailPoint system_;
  AMI_device device_;
};

TEST_F(DefaultDevice, IsThereFromTheLoadOn) { EXPECT_GE(defaultDevice().arity(), 1u); }

TEST_F(DefaultDevice, ComesFromItsOwnVariableFirst) {
  system_.setEnvironment("AMI_SINGLE_DEVICE", "x|y");
  system_.setEnvironment("TMPDIR", "z");
  initialiseDefaultDevice(&device_);
  EXPECT_EQ((Directories{"x", "y"}), directories(device_));
}

TEST_F(DefaultDevice, ComesFromTheTemporaryDirectoryNext) {
  system_.setEnvironment("TMPDIR", "z");
  initialiseDefaultDevice(&device_);
  EXPECT_EQ(Directories{"z"}, directories(device_));
}

TEST_F(DefaultDevice, IsTheCurrentDirectoryTwiceOtherwise) {
  initialiseDefaultDevice(&device_);
  const std::string here = {'.', platform::kSeparator};
  EXPECT_EQ((Directories{here, here}), directories(device_));
  EXPECT_EQ("", log()) << "nothing is written while the log is off";
}

TEST_F(DefaultDevice, IsDescribedInTheLogWhenThatIsEnabled) {
  setTpieLogEnabled(true);
  system_.setEnvironment("TMPDIR", "p|q");
  initialiseDefaultDevice(&device_);
  const std::string text = log();
  EXPECT_TRUE(text.starts_with("ami_stream_single.cpp line ")) << text;
  EXPECT_TRUE(text.ends_with(": Default device description for AMI single streams:\n  p\n  q\n"))
      << text;
}

TEST_F(DefaultDevice, ThatCannotBeMadeIsReportedEvenWhileTheLogIsOff) {
  system_.fail(Call::kAllocate, 1, /*lasting=*/true);
  initialiseDefaultDevice(&device_);
  EXPECT_EQ(0u, device_.arity());
  const std::string text = log();
  EXPECT_TRUE(text.ends_with(
      ": Unable to initialize the default device description for AMI single streams.\n"))
      << text;
  EXPECT_EQ(1, std::count(text.begin(), text.end(), '\n'));
}

}  // namespace
