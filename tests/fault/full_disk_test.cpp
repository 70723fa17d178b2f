// An index on a disk that fills: saves fail and say so, the documents stay
// pending, and once there is room again the same save succeeds.
//
// The disk is a small one in memory where a file system can be mounted, and in
// any case a system that counts what the files take.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#ifdef __linux__
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>
#endif

#include "documents.h"
#include "index_story.h"
#include "temp_dir.h"
#include "tessera.h"
#include "vn_index_system_btree.h"

namespace {

namespace fs = std::filesystem;
using story::Book;
using story::Call;
using story::Kind;

constexpr uint32_t kBlockBytes = 4096;
constexpr uint64_t kDiskBytes = 4 << 20;
constexpr char kBallast[] = "ballast";

// The files of the current directory and below take no more than kDiskBytes.
class SmallSystem final : public story::QuickSystem {
 public:
  SmallSystem() : QuickSystem(kBlockBytes) {}
  std::unique_ptr<platform::File> open(const char* path, platform::OpenMode mode) override;

  static uint64_t room() {
    uint64_t used = 0;
    for (const auto& entry : fs::recursive_directory_iterator(".")) {
      if (entry.is_regular_file()) used += entry.file_size();
    }
    return kDiskBytes - std::min(used, kDiskBytes);
  }
};

class SmallFile final : public platform::File {
 public:
  explicit SmallFile(std::unique_ptr<platform::File> file) : file_(std::move(file)) {}

  bool seek(uint64_t offset) override {
    position_ = offset;
    return file_->seek(offset);
  }
  int64_t read(void* buffer, size_t bytes) override {
    const int64_t got = file_->read(buffer, bytes);
    if (got > 0) position_ += static_cast<uint64_t>(got);
    return got;
  }
  bool write(const void* data, size_t bytes) override {
    const uint64_t size = static_cast<uint64_t>(file_->size());
    const uint64_t end = position_ + bytes;
    const uint64_t growth = end - std::min(end, size);
    const uint64_t room = growth == 0 ? 0 : SmallSystem::room();
    const bool fits = growth <= room;
    // What fits is written all the same.
    const size_t part = fits ? bytes : bytes - std::min<size_t>(bytes, growth - room);
    position_ += part;
    return file_->write(data, part) && fits;
  }
  int64_t size() override { return file_->size(); }
  bool truncate(uint64_t size) override {
    const uint64_t before = static_cast<uint64_t>(file_->size());
    return (size <= before || size - before <= SmallSystem::room()) && file_->truncate(size);
  }
  bool sync() override { return file_->sync(); }

 private:
  const std::unique_ptr<platform::File> file_;
  uint64_t position_ = 0;
};

std::unique_ptr<platform::File> SmallSystem::open(const char* path, platform::OpenMode mode) {
  auto file = QuickSystem::open(path, mode);
  return file ? std::make_unique<SmallFile>(std::move(file)) : nullptr;
}

void writeBallast(size_t bytes) {
  std::ofstream(kBallast, std::ios::binary) << std::string(bytes, 'b');
}

Call document(int64_t file_id) {
  return {Kind::kAdd, {file_id}, documents::signatures(300, static_cast<uint64_t>(file_id))};
}

// An index and its model on the disk of the current directory.
class FullDisk {
 public:
  FullDisk() { story::writeConfiguration(); }
  ~FullDisk() { dlp_btree::vnDestroyIndexSystem(); }

  void make(const Call& call) {
    ASSERT_EQ(story::apply(call, &book_), story::perform(call));
    if (call.kind == Kind::kAdd) added_.push_back(call);
  }

  // Adds and saves until the disk is full. The last document is pending then.
  // A failed save removes its journal, which may have grown over many batches:
  // full is the disk when the save fails again.
  void fill() {
    for (;;) {
      ASSERT_LT(next_, 1000) << "the disk does not get full";
      const Call call = document(next_++);
      make(call);
      int status = story::perform({Kind::kSave});
      if (status != 0) {
        ASSERT_EQ(-5, status);
        EXPECT_EQ(2, story::perform(call)) << "the document is not pending any more";
        status = story::perform({Kind::kSave});
      }
      if (status != 0) return;
      book_.save();
    }
  }

  void expectIndex() {
    std::string problem;
    const auto found = story::readIndex(&problem);
    ASSERT_NE(nullptr, found) << problem;
    EXPECT_TRUE(*found == book_.saved);
    EXPECT_FALSE(story::exists("sig_index_DB/fid_index.jnl"));
  }

  Book book_;
  std::vector<Call> added_;
  int64_t next_ = 1;
};

void aFailedSaveSucceedsWhenThereIsRoom() {
  FullDisk disk;
  writeBallast(1 << 20);
  disk.make({Kind::kOpen});
  for (int64_t i = 0; i < 3; ++i) disk.make(document(disk.next_++));
  disk.make({Kind::kClose});
  disk.make({Kind::kOpen});
  ASSERT_NO_FATAL_FAILURE(disk.fill());
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(-5, story::perform({Kind::kSave})) << "without room the save fails again";
  }
  ASSERT_TRUE(fs::remove(kBallast));
  disk.make({Kind::kSave});
  disk.make(document(disk.next_++));
  disk.make({Kind::kClose});
  EXPECT_TRUE(story::tablesOnDiskAre(disk.book_.saved));
  disk.expectIndex();
}

// Whoever closes a full index is told so and finds what was saved before.
void aFailedClosingLeavesWhatWasSaved() {
  FullDisk disk;
  writeBallast(1 << 20);
  disk.make({Kind::kOpen});
  disk.make(document(disk.next_++));
  disk.make({Kind::kClose});
  const story::Records in_tables = disk.book_.saved;
  disk.make({Kind::kOpen});
  ASSERT_NO_FATAL_FAILURE(disk.fill());
  EXPECT_EQ(1, story::perform({Kind::kClose}));
  disk.book_.pending.clear();
  disk.book_.open = false;
  const auto answers = story::search(disk.added_);
  ASSERT_TRUE(answers.has_value());
  EXPECT_TRUE(*answers == story::answersOf(disk.added_, in_tables));

  ASSERT_TRUE(fs::remove(kBallast));
  disk.expectIndex();
  disk.make({Kind::kOpen});
  disk.make(document(disk.next_));
  disk.make({Kind::kClose});
  EXPECT_TRUE(story::tablesOnDiskAre(disk.book_.saved));
}

// Tables that did not fit are refused; the trees have everything.
void tablesThatDoNotFitAreRefused() {
  FullDisk disk;
  writeBallast(kDiskBytes - (600 << 10));
  disk.make({Kind::kOpen});
  disk.make(document(disk.next_++));
  disk.make({Kind::kClose});
  EXPECT_FALSE(story::tablesOnDiskAre(disk.book_.saved));
  EXPECT_FALSE(story::search(disk.added_).has_value());
  disk.expectIndex();
  ASSERT_TRUE(fs::remove(kBallast));
  disk.make({Kind::kOpen});
  disk.make({Kind::kClose});
  EXPECT_TRUE(story::tablesOnDiskAre(disk.book_.saved));
  const auto answers = story::search(disk.added_);
  ASSERT_TRUE(answers.has_value());
  EXPECT_TRUE(*answers == story::answersOf(disk.added_, disk.book_.saved));
}

void withCountedBytes(const std::function<void()>& test) {
  const TempDir dir;
  SmallSystem system;
  test();
}

TEST(FullDisk, AFailedSaveSucceedsWhenThereIsRoom) {
  withCountedBytes(aFailedSaveSucceedsWhenThereIsRoom);
}
TEST(FullDisk, AFailedClosingLeavesWhatWasSaved) {
  withCountedBytes(aFailedClosingLeavesWhatWasSaved);
}
TEST(FullDisk, TablesThatDoNotFitAreRefused) { withCountedBytes(tablesThatDoNotFitAreRefused); }

#ifdef __linux__

// A file system of kDiskBytes that only this process sees.
class SmallDisk {
 public:
  SmallDisk() {
    if (!ownMounts()) return;
    const std::string options = "size=" + std::to_string(kDiskBytes) + ",mode=0700";
    mounted_ = ::mount("tmpfs", dir_.path().c_str(), "tmpfs", 0, options.c_str()) == 0;
    if (mounted_) fs::current_path(dir_.path());  // into what is mounted there now
  }
  ~SmallDisk() {
    if (!mounted_) return;
    fs::current_path("/");
    ::umount2(dir_.path().c_str(), MNT_DETACH);
  }
  bool mounted() const { return mounted_; }

 private:
  static bool ownMounts() {
    const std::string user = std::to_string(::getuid());
    if (::unshare(CLONE_NEWNS) != 0) {
      // As the one user of a namespace where that user is root.
      if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
      std::ofstream("/proc/self/setgroups") << "deny";
      std::ofstream("/proc/self/uid_map") << "0 " + user + " 1";
    }
    return ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
  }

  const TempDir dir_;
  bool mounted_ = false;
};

void onASmallDisk(const std::function<void()>& test) {
  const SmallDisk disk;
  if (!disk.mounted()) GTEST_SKIP() << "no file system can be mounted here; see the tests above";
  story::QuickSystem system(kBlockBytes);
  test();
}

TEST(FullFileSystem, AFailedSaveSucceedsWhenThereIsRoom) {
  onASmallDisk(aFailedSaveSucceedsWhenThereIsRoom);
}
TEST(FullFileSystem, AFailedClosingLeavesWhatWasSaved) {
  onASmallDisk(aFailedClosingLeavesWhatWasSaved);
}
TEST(FullFileSystem, TablesThatDoNotFitAreRefused) { onASmallDisk(tablesThatDoNotFitAreRefused); }

#endif

}  // namespace
