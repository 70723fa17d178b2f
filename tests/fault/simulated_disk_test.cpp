// Facts about the disk that the power-loss tests rest on.
#include "simulated_disk.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <set>
#include <string>

namespace {

using platform::File;
using platform::OpenMode;

const std::string kOld(3 * SimulatedDisk::kSectorBytes, 'o');
const std::string kNew(3 * SimulatedDisk::kSectorBytes, 'n');

bool writeAt(File* file, uint64_t offset, const std::string& data) {
  return file->seek(offset) && file->write(data.data(), data.size());
}

// A disk with the file "d/f" of content kOld, all of it on disk.
void makeOld(SimulatedDisk* disk) {
  const std::unique_ptr<File> file = disk->open("d/f", OpenMode::kUpdate);
  ASSERT_TRUE(writeAt(file.get(), 0, kOld) && file->sync() && disk->syncDirectory("d"));
}

// What is left of "d/f" in many losses of power after `change`; "-" when the
// file is not there.
std::set<std::string> outcomes(const std::function<void(SimulatedDisk*)>& change,
                               bool garbage = false) {
  std::set<std::string> seen;
  for (uint64_t seed = 0; seed < 2000; ++seed) {
    SimulatedDisk disk(seed);
    disk.setGarbage(garbage);
    makeOld(&disk);
    change(&disk);
    disk.losePower();
    seen.insert(disk.names().empty() ? "-" : disk.content("d/f"));
  }
  return seen;
}

TEST(SimulatedDisk, WhatIsSyncedIsNeverLost) {
  EXPECT_EQ(std::set<std::string>{kOld}, outcomes([](SimulatedDisk*) {}, true));
  const auto overwrite = [](SimulatedDisk* disk) {
    const auto file = disk->open("d/f", OpenMode::kUpdate);
    EXPECT_TRUE(writeAt(file.get(), 0, kNew) && file->truncate(700) && file->sync());
  };
  EXPECT_EQ(std::set<std::string>{kNew.substr(0, 700)}, outcomes(overwrite, true));
}

TEST(SimulatedDisk, AnUnsyncedWriteIsTornBetweenAllItsSectors) {
  const std::set<std::string> seen = outcomes([](SimulatedDisk* disk) {
    EXPECT_TRUE(writeAt(disk->open("d/f", OpenMode::kUpdate).get(), 0, kNew));
  });
  EXPECT_EQ(8u, seen.size());
  EXPECT_TRUE(seen.contains(kOld) && seen.contains(kNew));
  EXPECT_TRUE(seen.contains(kNew.substr(0, 512) + kOld.substr(0, 512) + kNew.substr(0, 512)));
}

TEST(SimulatedDisk, OfTwoUnsyncedWritesTheLaterOneMayBeThereAlone) {
  const std::set<std::string> seen = outcomes([](SimulatedDisk* disk) {
    const auto file = disk->open("d/f", OpenMode::kUpdate);
    EXPECT_TRUE(writeAt(file.get(), 0, "1") && writeAt(file.get(), 512, "2"));
  });
  std::string later = kOld;
  later[512] = '2';
  EXPECT_EQ(4u, seen.size());
  EXPECT_TRUE(seen.contains(later));
}

TEST(SimulatedDisk, AnUnsyncedExtensionMayBeLostOrPartlyThereOrWithoutItsData) {
  const std::set<std::string> seen = outcomes([](SimulatedDisk* disk) {
    EXPECT_TRUE(writeAt(disk->open("d/f", OpenMode::kUpdate).get(), kOld.size(), kNew));
  });
  EXPECT_TRUE(seen.contains(kOld));
  EXPECT_TRUE(seen.contains(kOld + kNew));
  EXPECT_TRUE(seen.contains(kOld + kNew.substr(0, 512)));
  EXPECT_TRUE(seen.contains(kOld + std::string(512, '\0') + kNew.substr(512)));
}

TEST(SimulatedDisk, AnUnsyncedCutMayHaveHappenedOrNot) {
  EXPECT_EQ((std::set<std::string>{kOld, kOld.substr(0, 512)}), outcomes([](SimulatedDisk* disk) {
              EXPECT_TRUE(disk->open("d/f", OpenMode::kUpdate)->truncate(512));
            }));
}

TEST(SimulatedDisk, GarbageStaysInTheSectorsUnderWriting) {
  const std::set<std::string> seen = outcomes(
      [](SimulatedDisk* disk) {
        EXPECT_TRUE(writeAt(disk->open("d/f", OpenMode::kUpdate).get(), 600, "n"));
      },
      true);
  EXPECT_LT(2u, seen.size());
  for (const std::string& content : seen) {
    EXPECT_EQ(kOld.substr(0, 512), content.substr(0, 512));
    EXPECT_EQ(kOld.substr(0, 512), content.substr(1024));
  }
}

TEST(SimulatedDisk, ANameIsLastingOnlyAfterASyncOfItsDirectory) {
  const auto removal = [](SimulatedDisk* disk) { EXPECT_TRUE(disk->remove("d/f")); };
  EXPECT_EQ((std::set<std::string>{kOld, "-"}), outcomes(removal));
  EXPECT_EQ((std::set<std::string>{kOld, "-"}), outcomes([&removal](SimulatedDisk* disk) {
              removal(disk);
              EXPECT_TRUE(disk->syncDirectory("another"));
            }));
  EXPECT_EQ(std::set<std::string>{"-"}, outcomes([&removal](SimulatedDisk* disk) {
              removal(disk);
              EXPECT_TRUE(disk->syncDirectory("d"));
            }));
}

TEST(SimulatedDisk, ASyncOfAFileDoesNothingForItsName) {
  EXPECT_EQ((std::set<std::string>{kOld, "-", kNew}), outcomes([](SimulatedDisk* disk) {
              EXPECT_TRUE(disk->remove("d/f"));
              const auto file = disk->open("d/f", OpenMode::kUpdate);
              EXPECT_TRUE(writeAt(file.get(), 0, kNew) && file->sync());
            }));
}

TEST(SimulatedDisk, ARenamingIsWholeOrNot) {
  EXPECT_EQ((std::set<std::string>{kOld, kNew}), outcomes([](SimulatedDisk* disk) {
              std::unique_ptr<File> file = disk->open("d/g", OpenMode::kRewrite);
              EXPECT_TRUE(writeAt(file.get(), 0, kNew) && file->sync());
              EXPECT_TRUE(disk->syncDirectory("d"));
              EXPECT_FALSE(disk->rename("d/g", "d/f")) << "it is open";
              file.reset();
              EXPECT_TRUE(disk->rename("d/g", "d/f"));
            }));
}

TEST(SimulatedDisk, AnOwnerKeepsOthersOutUntilItClosesOrThePowerFails) {
  SimulatedDisk disk(1);
  auto owner = disk.open("d/f", OpenMode::kOwn);
  EXPECT_FALSE(disk.open("d/f", OpenMode::kOwn));
  EXPECT_TRUE(disk.open("d/f", OpenMode::kRead));
  owner.reset();
  owner = disk.open("d/f", OpenMode::kOwn);
  EXPECT_TRUE(owner);
  EXPECT_TRUE(disk.syncDirectory("d"));
  disk.losePower();
  EXPECT_FALSE(owner->write("n", 1)) << "opened before the power failed";
  const auto next = disk.open("d/f", OpenMode::kOwn);
  EXPECT_TRUE(next);
  owner.reset();
  EXPECT_FALSE(disk.open("d/f", OpenMode::kOwn));
}

TEST(SimulatedDisk, AnOwnerAndASharerKeepEachOtherOut) {
  SimulatedDisk disk(1);
  EXPECT_FALSE(disk.open("d/f", OpenMode::kShare));
  auto owner = disk.open("d/f", OpenMode::kOwn);
  EXPECT_FALSE(disk.open("d/f", OpenMode::kShare));
  owner.reset();
  const auto sharer = disk.open("d/f", OpenMode::kShare);
  EXPECT_TRUE(sharer);
  EXPECT_FALSE(sharer->write("n", 1));
  EXPECT_FALSE(disk.open("d/f", OpenMode::kOwn));
}

TEST(SimulatedDisk, FromTheCrashOnEveryCallFails) {
  SimulatedDisk disk(1);
  makeOld(&disk);
  const auto file = disk.open("d/f", OpenMode::kUpdate);
  disk.crashAt(2);
  EXPECT_TRUE(writeAt(file.get(), 0, kNew));
  EXPECT_FALSE(disk.crashed());
  EXPECT_FALSE(file->sync());
  EXPECT_TRUE(disk.crashed());
  char byte;
  EXPECT_FALSE(file->seek(0));
  EXPECT_EQ(-1, file->read(&byte, 1));
  EXPECT_EQ(-1, file->size());
  EXPECT_FALSE(disk.open("d/f", OpenMode::kRead));
  EXPECT_FALSE(disk.remove("d/f"));
  EXPECT_FALSE(disk.syncDirectory("d"));
  disk.losePower();
  EXPECT_TRUE(disk.open("d/f", OpenMode::kRead));
}

}  // namespace
