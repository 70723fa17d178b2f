// The system in memory answers as the native one does: random calls to both, in a
// directory each, with equal results and equal files.
#include "memory_system.h"

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <string>

#include "documents.h"
#include "temp_dir.h"

namespace {

using platform::OpenMode;

class MemorySystemTest : public testing::Test {
 protected:
  struct Handle {
    std::unique_ptr<platform::File> memory;
    std::unique_ptr<platform::File> native;
  };

  const char* name() {
    static constexpr const char* kNames[] = {"a",      "b",   "d",    "d/a",    "d/e/a", "./a",
                                             "d/../a", "a/b", "d/./", "e/../a", "",      ".",
                                             "d//a",   "a/",  "..x",  "d/e",    "a/..",  "/none/a"};
    return kNames[random_.below(std::size(kNames))];
  }

  void call() {
    const char* const path = name();
    SCOPED_TRACE(path);
    Handle& handle = handles_[random_.below(handles_.size())];
    switch (random_.below(8)) {
      case 0:
      case 1: {
        const auto mode = static_cast<OpenMode>(random_.below(4));
        handle.memory.reset();
        handle.native.reset();
        handle.memory = memory_.open(path, mode);
        handle.native = native_.open(path, mode);
        ASSERT_EQ(handle.native != nullptr, handle.memory != nullptr)
            << "mode " << static_cast<int>(mode);
        break;
      }
      case 2:
        ASSERT_EQ(native_.remove(path), memory_.remove(path));
        break;
      case 3: {
        // Directories are renamed by nobody.
        const char* const to = name();
        if (isDirectory(path)) break;
        ASSERT_EQ(native_.rename(path, to), memory_.rename(path, to)) << "to " << to;
        break;
      }
      case 4:
        ASSERT_EQ(native_.access(path), memory_.access(path));
        break;
      case 5: {
        // Few: a directory is never removed, and the names are for files, too.
        static constexpr const char* kDirectories[] = {"d", "d/e", "d/", "d/../d", "e/x", "a/b"};
        const char* const made = kDirectories[random_.below(std::size(kDirectories))];
        ASSERT_EQ(native_.makeDirectory(made), memory_.makeDirectory(made)) << made;
        break;
      }
      case 6:
        ASSERT_EQ(native_.syncDirectory(path), memory_.syncDirectory(path));
        break;
      case 7:
        handle.memory.reset();
        handle.native.reset();
        break;
    }
    if (!HasFatalFailure()) use(&handle);
  }

  void use(Handle* handle) {
    if (!handle->memory) return;
    const uint64_t offset = random_.below(300);
    const size_t bytes = random_.below(200);
    const std::string data = documents::bytes(bytes, random_.next());
    switch (random_.below(4)) {
      case 0:
        ASSERT_EQ(handle->native->seek(offset), handle->memory->seek(offset));
        break;
      case 1: {
        std::string expected(bytes, '\0');
        std::string actual(bytes, '\0');
        ASSERT_EQ(handle->native->read(expected.data(), bytes),
                  handle->memory->read(actual.data(), bytes));
        ASSERT_EQ(expected, actual);
        break;
      }
      case 2:
        ASSERT_EQ(handle->native->write(data.data(), bytes),
                  handle->memory->write(data.data(), bytes));
        break;
      case 3:
        ASSERT_EQ(handle->native->truncate(offset), handle->memory->truncate(offset));
        break;
    }
    ASSERT_EQ(handle->native->size(), handle->memory->size());
  }

  static bool isDirectory(const std::string& path) { return std::filesystem::is_directory(path); }

  const uint64_t seed_ = documents::seed(20241107);
  documents::Random random_{seed_};
  TempDir dir_;
  MemorySystem memory_;
  platform::System& native_ = platform::native();
  std::array<Handle, 4> handles_;
};

TEST_F(MemorySystemTest, AnswersAsTheNativeSystemDoes) {
  SCOPED_TRACE("TESSERA_SEED=" + std::to_string(seed_));
  for (int i = 0; i < 5000 && !HasFatalFailure(); ++i) call();
}

TEST_F(MemorySystemTest, BoundsTheLengthOfAName) {
  for (const size_t length : {255, 256}) {
    const std::string path(length, 'x');
    EXPECT_EQ(native_.access(path.c_str()), memory_.access(path.c_str()));
    EXPECT_EQ(native_.open(path.c_str(), OpenMode::kUpdate) != nullptr,
              memory_.open(path.c_str(), OpenMode::kUpdate) != nullptr);
  }
}

TEST_F(MemorySystemTest, TheDiskAndTheMemoryHaveAnEnd) {
  const auto file = memory_.open("a", OpenMode::kUpdate);
  ASSERT_TRUE(file->seek(MemorySystem::kDiskBytes - 1));
  EXPECT_FALSE(file->write("ab", 2));
  EXPECT_TRUE(file->write("a", 1));
  EXPECT_FALSE(file->truncate(MemorySystem::kDiskBytes + 1));
  EXPECT_EQ(static_cast<int64_t>(MemorySystem::kDiskBytes), file->size());
  EXPECT_EQ(nullptr, memory_.allocate(MemorySystem::kMemoryBytes + 1));
  EXPECT_EQ(MemorySystem::kMemoryBytes + 1, memory_.takeLargestRequest());
  EXPECT_EQ(0u, memory_.takeLargestRequest());
}

TEST_F(MemorySystemTest, CountsOpenHandles) {
  const auto reader = [this] { return memory_.open("a", OpenMode::kRead); };
  EXPECT_EQ(nullptr, reader());
  auto owner = memory_.open("a", OpenMode::kOwn);
  {
    const auto second = reader();
    EXPECT_EQ(2, memory_.openFiles());
  }
  EXPECT_EQ(1, memory_.openFiles());
  owner.reset();
  EXPECT_EQ(0, memory_.openFiles());
}

TEST_F(MemorySystemTest, AnOwnerAndASharerKeepEachOtherOut) {
  EXPECT_EQ(nullptr, memory_.open("a", OpenMode::kShare));
  auto owner = memory_.open("a", OpenMode::kOwn);
  EXPECT_EQ(nullptr, memory_.open("a", OpenMode::kShare));
  owner.reset();
  const auto first = memory_.open("a", OpenMode::kShare);
  auto second = memory_.open("a", OpenMode::kShare);
  ASSERT_NE(nullptr, second);
  EXPECT_FALSE(second->write("a", 1));
  second.reset();
  EXPECT_EQ(nullptr, memory_.open("a", OpenMode::kOwn));
}

}  // namespace
