// The contract with the operating system, the same on each of them.
#include "platform.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "fail_point.h"
#include "temp_dir.h"

#ifndef _WIN32
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

#if defined(__SANITIZE_THREAD__)
// The wrong unlocks below are meant.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
  return "mutex:platform_test.cpp\n";
}
#endif

namespace {

using platform::File;
using platform::OpenMode;

constexpr OpenMode kAllModes[] = {OpenMode::kRead, OpenMode::kRewrite, OpenMode::kUpdate,
                                  OpenMode::kNew,  OpenMode::kOwn,     OpenMode::kShare};
constexpr OpenMode kWritingModes[] = {OpenMode::kRewrite, OpenMode::kUpdate, OpenMode::kNew,
                                      OpenMode::kOwn};
namespace fs = std::filesystem;

constexpr bool kWindows = platform::kSeparator == '\\';

std::unique_ptr<File> open(const char* name, OpenMode mode) {
  return platform::native().open(name, mode);
}

std::string readPart(File* file, uint64_t offset, size_t bytes) {
  std::string text(bytes, '?');
  EXPECT_TRUE(file->seek(offset));
  const int64_t got = file->read(text.data(), bytes);
  EXPECT_GE(got, 0);
  text.resize(static_cast<size_t>(got));
  return text;
}

class PlatformFile : public testing::Test {
 protected:
  TempDir dir_;
};

TEST_F(PlatformFile, OnlyAnExistingFileOpensForReading) {
  EXPECT_EQ(nullptr, open("file", OpenMode::kRead));
  EXPECT_FALSE(dir_.exists("file"));
  dir_.write("file", "abc");
  const auto file = open("file", OpenMode::kRead);
  ASSERT_NE(nullptr, file);
  EXPECT_EQ("abc", readPart(file.get(), 0, 10));
}

TEST_F(PlatformFile, EveryWritingModeCreatesTheFileEmpty) {
  for (const OpenMode mode : kWritingModes) {
    auto file = open("file", mode);
    ASSERT_NE(nullptr, file);
    EXPECT_EQ(0, file->size());
    EXPECT_TRUE(dir_.exists("file"));
    file.reset();
    EXPECT_TRUE(platform::native().remove("file"));
  }
}

TEST_F(PlatformFile, RewritingCutsAnExistingFile) {
  dir_.write("file", "abc");
  open("file", OpenMode::kRewrite);
  EXPECT_EQ("", dir_.read("file"));
}

TEST_F(PlatformFile, UpdatingAndOwningKeepAnExistingFile) {
  for (const OpenMode mode : {OpenMode::kUpdate, OpenMode::kOwn}) {
    dir_.write("file", "abc");
    {
      const auto file = open("file", mode);
      ASSERT_NE(nullptr, file);
      EXPECT_EQ("abc", readPart(file.get(), 0, 10));
      ASSERT_TRUE(file->seek(1));
      EXPECT_TRUE(file->write("X", 1));
    }
    EXPECT_EQ("aXc", dir_.read("file"));
  }
}

TEST_F(PlatformFile, ANewFileIsCreatedOnceAndCanBeReadAndWritten) {
  {
    const auto file = open("file", OpenMode::kNew);
    ASSERT_NE(nullptr, file);
    EXPECT_TRUE(file->write("abc", 3));
    EXPECT_EQ("abc", readPart(file.get(), 0, 10));
    EXPECT_EQ(nullptr, open("file", OpenMode::kNew));
  }
  EXPECT_EQ(nullptr, open("file", OpenMode::kNew));
  EXPECT_EQ("abc", dir_.read("file"));
}

TEST_F(PlatformFile, AReadingHandleDoesNotWriteAndAWritingOneDoesNotRead) {
  dir_.write("file", "abc");
  {
    const auto reader = open("file", OpenMode::kRead);
    ASSERT_NE(nullptr, reader);
    EXPECT_FALSE(reader->write("x", 1));
    EXPECT_FALSE(reader->truncate(1));
  }
  EXPECT_EQ("abc", dir_.read("file"));
  const auto writer = open("file", OpenMode::kRewrite);
  ASSERT_NE(nullptr, writer);
  EXPECT_TRUE(writer->write("abc", 3));
  char byte;
  ASSERT_TRUE(writer->seek(0));
  EXPECT_EQ(-1, writer->read(&byte, 1));
}

TEST_F(PlatformFile, AnOwnedFileHasNoSecondOwnerUntilItIsClosed) {
  auto first = open("file", OpenMode::kOwn);
  ASSERT_NE(nullptr, first);
  EXPECT_EQ(nullptr, open("file", OpenMode::kOwn));
  std::thread([] { EXPECT_EQ(nullptr, open("file", OpenMode::kOwn)); }).join();
  first.reset();
  EXPECT_NE(nullptr, open("file", OpenMode::kOwn));
}

TEST_F(PlatformFile, ARefusedOwnerLeavesTheContentAlone) {
  auto first = open("file", OpenMode::kOwn);
  ASSERT_TRUE(first->write("abc", 3));
  EXPECT_EQ(nullptr, open("file", OpenMode::kOwn));
  EXPECT_EQ("abc", readPart(first.get(), 0, 10));
}

TEST_F(PlatformFile, ReadersAndTheOwnerDoNotHinderEachOther) {
  dir_.write("file", "abc");
  const auto early = open("file", OpenMode::kRead);
  const auto owner = open("file", OpenMode::kOwn);
  const auto late = open("file", OpenMode::kRead);
  ASSERT_NE(nullptr, early);
  ASSERT_NE(nullptr, owner);
  ASSERT_NE(nullptr, late);
  EXPECT_EQ("abc", readPart(late.get(), 0, 10));
}

TEST_F(PlatformFile, ASharerReadsAndGoesWithReadersAndOtherSharers) {
  EXPECT_EQ(nullptr, open("file", OpenMode::kShare));
  EXPECT_FALSE(dir_.exists("file"));
  dir_.write("file", "abc");
  const auto reader = open("file", OpenMode::kRead);
  const auto first = open("file", OpenMode::kShare);
  const auto second = open("file", OpenMode::kShare);
  ASSERT_NE(nullptr, first);
  ASSERT_NE(nullptr, second);
  EXPECT_NE(nullptr, open("file", OpenMode::kRead));
  EXPECT_EQ("abc", readPart(second.get(), 0, 10));
  EXPECT_FALSE(first->write("d", 1));
  EXPECT_FALSE(first->truncate(1));
  EXPECT_EQ("abc", dir_.read("file"));
}

TEST_F(PlatformFile, AnOwnerAndASharerKeepEachOtherOut) {
  auto owner = open("file", OpenMode::kOwn);
  ASSERT_NE(nullptr, owner);
  EXPECT_EQ(nullptr, open("file", OpenMode::kShare));
  owner.reset();
  auto sharer = open("file", OpenMode::kShare);
  ASSERT_NE(nullptr, sharer);
  EXPECT_EQ(nullptr, open("file", OpenMode::kOwn));
  sharer.reset();
  EXPECT_NE(nullptr, open("file", OpenMode::kOwn));
}

TEST_F(PlatformFile, OwnersOfDifferentFilesDoNotHinderEachOther) {
  const auto first = open("first", OpenMode::kOwn);
  EXPECT_NE(nullptr, open("second", OpenMode::kOwn));
}

TEST_F(PlatformFile, ADirectoryIsNoFile) {
  dir_.makeDirectory("dir");
  for (const OpenMode mode : kAllModes) EXPECT_EQ(nullptr, open("dir", mode));
}

TEST_F(PlatformFile, ADeviceIsNoFile) {
  const char* const device = kWindows ? "NUL" : "/dev/null";
  for (const OpenMode mode : kAllModes) EXPECT_EQ(nullptr, open(device, mode));
}

TEST_F(PlatformFile, AFileInAMissingDirectoryCannotBeCreated) {
  for (const OpenMode mode : kAllModes) EXPECT_EQ(nullptr, open("nowhere/file", mode));
}

TEST_F(PlatformFile, NewFilesBelongToTheirOwnerAlone) {
  if (kWindows) GTEST_SKIP() << "file modes are POSIX's";
  for (const OpenMode mode : kWritingModes) {
    open("file", mode);
    EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write, fs::status("file").permissions());
    fs::remove("file");
  }
}

TEST_F(PlatformFile, AReadStopsAtTheEndOnly) {
  dir_.write("file", "abcdef");
  const auto file = open("file", OpenMode::kRead);
  char text[10];
  EXPECT_EQ(4, file->read(text, 4));
  EXPECT_EQ(2, file->read(text, 4));
  EXPECT_EQ("ef", std::string(text, 2));
  EXPECT_EQ(0, file->read(text, 4));
  EXPECT_EQ(0, file->read(text, 0));
  EXPECT_EQ("", readPart(file.get(), 100, 4));
}

TEST_F(PlatformFile, ReadsAndWritesMoveThePosition) {
  const auto file = open("file", OpenMode::kUpdate);
  EXPECT_TRUE(file->write("abc", 3));
  EXPECT_TRUE(file->write("def", 3));
  ASSERT_TRUE(file->seek(2));
  EXPECT_TRUE(file->write("X", 1));
  char byte = 0;
  EXPECT_EQ(1, file->read(&byte, 1));
  EXPECT_EQ('d', byte);
  EXPECT_EQ("abXdef", readPart(file.get(), 0, 10));
  EXPECT_EQ(6, file->size());
}

TEST_F(PlatformFile, TwoHandlesHavePositionsOfTheirOwn) {
  dir_.write("file", "abcdef");
  const auto first = open("file", OpenMode::kRead);
  const auto second = open("file", OpenMode::kRead);
  EXPECT_EQ("abc", readPart(first.get(), 0, 3));
  char byte = 0;
  EXPECT_EQ(1, second->read(&byte, 1));
  EXPECT_EQ('a', byte);
}

TEST_F(PlatformFile, AnEmptyWriteChangesNothing) {
  const auto file = open("file", OpenMode::kUpdate);
  ASSERT_TRUE(file->seek(10));
  EXPECT_TRUE(file->write("", 0));
  EXPECT_EQ(0, file->size());
}

TEST_F(PlatformFile, TheGapBeforeAWritePastTheEndReadsAsZeros) {
  const auto file = open("file", OpenMode::kUpdate);
  ASSERT_TRUE(file->seek(5));
  EXPECT_EQ(0, file->size());
  EXPECT_TRUE(file->write("x", 1));
  EXPECT_EQ(std::string(5, '\0') + "x", readPart(file.get(), 0, 10));
}

TEST_F(PlatformFile, TruncatingCutsOrExtendsWithZeros) {
  const auto file = open("file", OpenMode::kUpdate);
  EXPECT_TRUE(file->write("abcdef", 6));
  EXPECT_TRUE(file->truncate(3));
  EXPECT_EQ(3, file->size());
  EXPECT_TRUE(file->truncate(5));
  EXPECT_EQ(std::string("abc\0\0", 5), readPart(file.get(), 0, 10));
  EXPECT_TRUE(file->truncate(0));
  EXPECT_EQ(0, file->size());
}

TEST_F(PlatformFile, TruncatingLeavesThePositionAlone) {
  const auto file = open("file", OpenMode::kUpdate);
  EXPECT_TRUE(file->write("abcdef", 6));
  ASSERT_TRUE(file->seek(2));
  EXPECT_TRUE(file->truncate(4));
  EXPECT_TRUE(file->write("X", 1));
  EXPECT_EQ("abXd", readPart(file.get(), 0, 10));
}

TEST_F(PlatformFile, PositionsBeyondSixtyThreeBitsAreRefused) {
  const auto file = open("file", OpenMode::kUpdate);
  EXPECT_FALSE(file->seek(UINT64_MAX));
  EXPECT_FALSE(file->truncate(UINT64_MAX));
  EXPECT_EQ(0, file->size());
}

TEST_F(PlatformFile, PositionsBeyondFourGigabytesAreExact) {
  const auto file = open("file", OpenMode::kUpdate);
  EXPECT_TRUE(file->write("low", 3));
  EXPECT_EQ("", readPart(file.get(), (uint64_t{1} << 32) + 1, 3));
  EXPECT_EQ("low", readPart(file.get(), 0, 3));
}

TEST_F(PlatformFile, BytesPassUnchanged) {
  const std::string all("\r\n\n\r\x1a\0\xff end", 12);
  {
    const auto file = open("file", OpenMode::kRewrite);
    EXPECT_TRUE(file->write(all.data(), all.size()));
  }
  EXPECT_EQ(all, dir_.read("file"));
}

TEST_F(PlatformFile, LargeTransfersAreWhole) {
  std::string content(3 << 20, '\0');
  for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 31 >> 8);
  const auto file = open("file", OpenMode::kUpdate);
  EXPECT_TRUE(file->write(content.data(), content.size()));
  EXPECT_EQ(content, readPart(file.get(), 0, content.size()));
}

TEST_F(PlatformFile, AWrittenFileCanBeSynced) {
  const auto file = open("file", OpenMode::kUpdate);
  EXPECT_TRUE(file->write("abc", 3));
  EXPECT_TRUE(file->sync());
}

#ifndef _WIN32
TEST_F(PlatformFile, ALinkIsNoFileWhereverItLeads) {
  dir_.write("file", "abc");
  dir_.makeDirectory("dir");
  fs::create_symlink("file", "link");
  fs::create_symlink("dir", "link_to_dir");
  fs::create_symlink("nowhere", "dangling");
  for (const OpenMode mode : kAllModes) {
    for (const char* const link : {"link", "link_to_dir", "dangling"}) {
      EXPECT_EQ(nullptr, open(link, mode)) << link;
    }
  }
  EXPECT_EQ("abc", dir_.read("file"));
  EXPECT_FALSE(dir_.exists("nowhere"));
}

TEST_F(PlatformFile, ADirectoryOnTheWayMayBeALink) {
  dir_.makeDirectory("dir");
  dir_.write("dir/file", "abc");
  fs::create_directory_symlink("dir", "link");
  for (const OpenMode mode : {OpenMode::kRead, OpenMode::kUpdate, OpenMode::kOwn}) {
    EXPECT_NE(nullptr, open("link/file", mode));
  }
}

// Neither end of a pipe is waited for; the test would hang.
TEST_F(PlatformFile, APipeIsNoFileAndNobodyWaitsForItsOtherEnd) {
  ASSERT_EQ(0, ::mkfifo("pipe", 0600));
  for (const OpenMode mode : kAllModes) EXPECT_EQ(nullptr, open("pipe", mode));
  const int reader = ::open("pipe", O_RDONLY | O_NONBLOCK);  // now writing does not fail at once
  for (const OpenMode mode : kAllModes) EXPECT_EQ(nullptr, open("pipe", mode));
  ::close(reader);
  EXPECT_TRUE(fs::is_fifo("pipe"));
}
#endif

class PlatformSystem : public testing::Test {
 protected:
  platform::System& system_ = platform::native();
  TempDir dir_;
};

TEST_F(PlatformSystem, RemovesAFileOnce) {
  dir_.write("file", "x");
  EXPECT_TRUE(system_.remove("file"));
  EXPECT_FALSE(dir_.exists("file"));
  EXPECT_FALSE(system_.remove("file"));
}

TEST_F(PlatformSystem, RenamingReplacesTheTarget) {
  dir_.write("from", "new");
  dir_.write("to", "old");
  EXPECT_TRUE(system_.rename("from", "to"));
  EXPECT_FALSE(dir_.exists("from"));
  EXPECT_EQ("new", dir_.read("to"));
  EXPECT_FALSE(system_.rename("from", "to"));
  EXPECT_EQ("new", dir_.read("to"));
}

// What `path` leads to; "?" when that cannot be told.
std::string finalPath(const std::string& path) {
  std::string found = "?";
  platform::native().finalPath(path.c_str(), &found);
  return found;
}

TEST_F(PlatformSystem, APathThatIsNoLinkIsFinalAsItStands) {
  dir_.makeDirectory("dir");
  dir_.write("dir/file", "");
  for (const std::string path : {"dir/file", "./dir//file", "dir", "dir/nothing", "nowhere/x"}) {
    EXPECT_EQ(path, finalPath(path));
  }
  EXPECT_EQ(dir_.path("dir/file"), finalPath(dir_.path("dir/file")));
}

#ifndef _WIN32
TEST_F(PlatformSystem, LinksAreFollowedFromWhereEachOfThemLies) {
  dir_.makeDirectory("a");
  dir_.makeDirectory("a/b");
  dir_.write("a/file", "");
  fs::create_symlink("b/second", "a/first");
  fs::create_symlink("../file", "a/b/second");
  EXPECT_EQ("a/b/../file", finalPath("a/first"));
  fs::create_symlink(dir_.path("a/first"), "absolute");
  EXPECT_EQ(dir_.path("a/b/../file"), finalPath("absolute"));
  fs::create_symlink(dir_.path("a/file"), "a/b/absolute");
  EXPECT_EQ(dir_.path("a/file"), finalPath("a/b/absolute"));
  fs::create_symlink("a", "to_a");
  EXPECT_EQ("to_a/file", finalPath("to_a/file"));
  EXPECT_EQ("a", finalPath("to_a"));
}

TEST_F(PlatformSystem, ALinkMayLeadToNothing) {
  fs::create_symlink("dir/nothing", "link");
  EXPECT_EQ("dir/nothing", finalPath("link"));
}

TEST_F(PlatformSystem, ACircleOfLinksHasNoEnd) {
  fs::create_symlink("b", "a");
  fs::create_symlink("a", "b");
  EXPECT_EQ("?", finalPath("a"));
}

TEST_F(PlatformSystem, ALinkThatLeadsWhereNobodyMayLookIsNotFollowed) {
  dir_.makeDirectory("closed");
  dir_.write("closed/file", "");
  fs::create_symlink("closed/file", "link");
  EXPECT_EQ("closed/file", finalPath("link"));
  ASSERT_EQ(0, ::chmod("closed", 0));
  const uid_t user = ::geteuid();
  if (user == 0) {  // whom nothing is closed to
    ASSERT_EQ(0, ::chmod(".", 0755));
    ASSERT_EQ(0, ::seteuid(65534));
  }
  EXPECT_EQ("?", finalPath("link"));
  ASSERT_EQ(0, ::seteuid(user));
  ASSERT_EQ(0, ::chmod("closed", 0700));
}

// Most systems refuse to follow a stranger's link in a directory that everybody
// may write to, which could have a privileged host rewrite a file of the
// stranger's choice. Where they do, it is not followed by hand either.
TEST_F(PlatformSystem, ALinkThatTheSystemDoesNotFollowIsNotFollowed) {
  dir_.makeDirectory("everybody");
  ASSERT_EQ(0, ::chmod("everybody", 01777));
  dir_.write("file", "");
  fs::create_symlink("../file", "everybody/link");
  if (::geteuid() == 0) {
    ASSERT_EQ(0, ::lchown("everybody/link", 65534, 65534));
  }
  const bool followed = ::access("everybody/link", F_OK) == 0;
  EXPECT_EQ(followed ? "everybody/../file" : "?", finalPath("everybody/link"));
}

mode_t modeOf(const char* name) {
  struct stat status = {};
  EXPECT_EQ(0, ::lstat(name, &status));
  return status.st_mode & 07777;
}

TEST_F(PlatformSystem, CopiedRightsAreTheModeOfTheOtherFile) {
  dir_.write("from", "");
  for (const mode_t mode : {0644, 0600, 0660, 0640}) {
    open("to", OpenMode::kNew);
    ASSERT_EQ(0, ::chmod("from", mode));
    EXPECT_TRUE(system_.copyRights("from", "to"));
    EXPECT_EQ(mode, modeOf("to"));
    EXPECT_EQ(mode, modeOf("from"));
    system_.remove("to");
  }
}

TEST_F(PlatformSystem, RightsAreNeitherTakenFromNorGivenToALinkOrAPipe) {
  dir_.write("file", "");
  dir_.write("to", "");
  ASSERT_EQ(0, ::chmod("file", 0666));
  ASSERT_EQ(0, ::chmod("to", 0600));
  fs::create_symlink("file", "link");
  fs::create_symlink("to", "link_to");
  ASSERT_EQ(0, ::mkfifo("pipe", 0666));
  const int reader = ::open("pipe", O_RDONLY | O_NONBLOCK);
  EXPECT_FALSE(system_.copyRights("link", "to"));
  EXPECT_FALSE(system_.copyRights("pipe", "to"));
  EXPECT_FALSE(system_.copyRights("file", "link_to"));
  EXPECT_FALSE(system_.copyRights("file", "pipe"));
  ::close(reader);
  EXPECT_EQ(0600u, modeOf("to"));
}

// A file that is protected from being written is not to be replaced either.
TEST_F(PlatformSystem, RightsOfAFileThatMayNotBeWrittenAreNotCopied) {
  dir_.write("from", "");
  ASSERT_EQ(0, ::chmod("from", 0444));
  const uid_t user = ::geteuid();
  if (user == 0) {  // who may write everything
    ASSERT_EQ(0, ::chown("from", 65534, static_cast<gid_t>(-1)));
    ASSERT_EQ(0, ::chown(".", 65534, 65534));
    ASSERT_EQ(0, ::seteuid(65534));
  }
  EXPECT_NE(nullptr, open("to", OpenMode::kNew));
  EXPECT_FALSE(system_.copyRights("from", "to"));
  ASSERT_EQ(0, ::seteuid(user));
}
#endif

TEST_F(PlatformSystem, RightsAreCopiedBetweenFilesAndAMissingOneHasNoneToCopy) {
  dir_.write("from", "");
  dir_.makeDirectory("dir");
  const auto to = open("to", OpenMode::kNew);
  EXPECT_TRUE(system_.copyRights("from", "to"));
  EXPECT_TRUE(system_.copyRights("nothing", "to"));
  EXPECT_FALSE(system_.copyRights("dir", "to"));
  EXPECT_FALSE(system_.copyRights("from", "nothing"));
}

TEST_F(PlatformSystem, SyncsADirectory) { EXPECT_TRUE(system_.syncDirectory(".")); }

TEST_F(PlatformSystem, ConvertsAPathThatFitsWithItsTerminator) {
  platform::PathChar native[8];
  EXPECT_TRUE(system_.toNativePath("abc", native, 4));
  EXPECT_EQ(std::filesystem::path("abc").native(), std::filesystem::path::string_type(native));
  EXPECT_FALSE(system_.toNativePath("abc", native, 3));
  EXPECT_TRUE(system_.toNativePath("", native, 1));
  EXPECT_EQ(0, native[0]);
}

std::basic_string<platform::PathChar> native(const std::string& text) {
  return {text.begin(), text.end()};
}

TEST_F(PlatformSystem, TellsWhetherAPathExists) {
  EXPECT_EQ(ENOENT, system_.access(native("file").c_str()));
  dir_.write("file", "x");
  EXPECT_EQ(0, system_.access(native("file").c_str()));
  EXPECT_EQ(0, system_.access(native(".").c_str()));
}

TEST_F(PlatformSystem, MakesOneLevelOfDirectories) {
  EXPECT_EQ(0, system_.makeDirectory(native("dir").c_str()));
  EXPECT_TRUE(std::filesystem::is_directory("dir"));
  EXPECT_EQ(EEXIST, system_.makeDirectory(native("dir").c_str()));
  EXPECT_EQ(ENOENT, system_.makeDirectory(native("a/b").c_str()));
}

TEST_F(PlatformSystem, NewDirectoriesBelongToTheirOwnerAlone) {
  if (kWindows) GTEST_SKIP() << "file modes are POSIX's";
  ASSERT_EQ(0, system_.makeDirectory(native("dir").c_str()));
  EXPECT_EQ(std::filesystem::perms::owner_all, std::filesystem::status("dir").permissions());
}

// An index directory moves between systems, so its block size may not differ.
TEST_F(PlatformSystem, TheUnitOfBlockFilesIs65536Bytes) {
  EXPECT_EQ(65536u, system_.allocationGranularity());
}

TEST_F(PlatformSystem, ReadsTheEnvironment) {
  EXPECT_EQ(nullptr, system_.environment("TESSERA_NO_SUCH_VARIABLE"));
  EXPECT_NE(nullptr, system_.environment("PATH"));
}

TEST_F(PlatformSystem, TellsTheTimeInSecondsSince1970) {
  const int64_t before = std::time(nullptr);
  const int64_t told = system_.time();
  EXPECT_LE(before, told);
  EXPECT_LE(told, std::time(nullptr));
}

TEST_F(PlatformSystem, HandsOutBlocksThatFreeTakesBack) {
  void* const block = system_.allocate(1000);
  ASSERT_NE(nullptr, block);
  std::memset(block, 0xff, 1000);
  std::free(block);
  std::free(system_.allocate(0));
}

TEST_F(PlatformSystem, AStandInTakesTheNativeOnesPlaceWhileItLives) {
  EXPECT_EQ(&system_, &platform::current());
  {
    FailPoint point;
    EXPECT_EQ(&point, &platform::current());
    point.fail(Call::kOpen, 1);
    EXPECT_EQ(nullptr, platform::current().open("file", OpenMode::kRewrite));
  }
  EXPECT_EQ(&system_, &platform::current());
  EXPECT_NE(nullptr, platform::current().open("file", OpenMode::kRewrite));
}

// A stray unlock is an error, never undefined.
TEST(PlatformMutex, AnUnlockWithoutALockFails) {
  static pthread_mutex_t mutex = TESSERA_MUTEX_INITIALIZER;
  EXPECT_NE(0, pthread_mutex_unlock(&mutex));
  EXPECT_EQ(0, pthread_mutex_lock(&mutex));
  std::thread([] { EXPECT_NE(0, pthread_mutex_unlock(&mutex)); }).join();
  EXPECT_EQ(0, pthread_mutex_unlock(&mutex));
  EXPECT_NE(0, pthread_mutex_unlock(&mutex));
}

}  // namespace
