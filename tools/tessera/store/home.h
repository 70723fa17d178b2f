// The home of an index: the directory that holds "index_sys_config.txt",
// "sig_index_DB" and "catalogue.sqlite". The library finds the first two in
// the current directory, so the command works from inside its home.
// Tests: tests/tool/index_test.py.
#pragma once

#include <filesystem>
#include <string>

#include "failure.h"

namespace tool {

inline constexpr char kConfigName[] = "index_sys_config.txt";
inline constexpr char kIndexName[] = "sig_index_DB";
inline constexpr char kCatalogueName[] = "catalogue.sqlite";

// `option` when it is not empty, else the environment's TESSERA_HOME, else
// ".tessera" below the current directory; absolute, links resolved.
std::filesystem::path homePath(const std::string& option);

// Whether somebody has made an index there.
bool hasIndex(const std::filesystem::path& home);

// Whether there is anything of the trees that an index consists of.
bool hasTrees(const std::filesystem::path& home);

void enterHome(const std::filesystem::path& home);  // throws Failure

// Makes the home if there is none, its parents too. Only its owner may look
// inside: an index is as confidential as its documents. Throws Failure.
void createHome(const std::filesystem::path& home);

// A directory with the settings of a home, entered while it lives and then
// removed. A generator writes its settings back wherever it starts; here that
// changes no home, and makes none where there was none.
class ScratchHome {
 public:
  explicit ScratchHome(const std::filesystem::path& home);  // throws Failure
  ~ScratchHome();
  ScratchHome(const ScratchHome&) = delete;
  ScratchHome& operator=(const ScratchHome&) = delete;

 private:
  std::filesystem::path path_;
};

// An advisory lock on a directory, which needs no file of its own and dies
// with its holder. One process at a time indexes: it holds the home's lock
// throughout. The lock of the index directory keeps those who load the search
// tables (shared) from whoever rewrites them (exclusive).
class DirectoryLock {
 public:
  enum class Kind { kShared, kExclusive, kExclusiveOrNothing };

  // Waits for the lock, but for kExclusiveOrNothing. Throws Failure when the
  // directory cannot be opened.
  DirectoryLock(const std::filesystem::path& directory, Kind kind);
  ~DirectoryLock();
  DirectoryLock(const DirectoryLock&) = delete;
  DirectoryLock& operator=(const DirectoryLock&) = delete;

  bool held() const { return held_; }

 private:
  int descriptor_;
  bool held_;
};

// Another process is at work.
class IndexInUse : public Failure {
 public:
  explicit IndexInUse(const std::filesystem::path& home);
};

// Whether somebody has the index in the current directory open for writing.
// Asks the locks that the library takes on the files of its trees.
bool indexIsOpenElsewhere();

}  // namespace tool
