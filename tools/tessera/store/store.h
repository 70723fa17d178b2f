// The index and its catalogue as one: every change goes through here, in the order that
// keeps the two in agreement whenever the command is cut off.
//
//   announced in the catalogue -> done to the index -> index closed -> settled
//
// What an earlier run has announced and not settled is done by the next one's finish().
// Tests: tests/tool/kill_test.py.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "library/library.h"
#include "store/catalogue.h"
#include "store/home.h"

namespace tool {

// For reading. Throws Failure when there is no index.
std::unique_ptr<Catalogue> openCatalogue(const std::filesystem::path& home);

// Throws Failure while no run has come to its end yet: the index may be anything.
void requireFinishedRun(const std::filesystem::path& home, const Catalogue& catalogue);

// Throws Failure when there is no directory of that name at all.
void requireIndex(const std::filesystem::path& home);

// An index is of the same run as its catalogue unless one of the two came back from a
// backup: then it has documents that the other does not know, or lacks some, or they use
// the same file IDs for different ones.
bool areOfSameRun(const std::filesystem::path& home, const Catalogue& catalogue);
void requireSameRun(const std::filesystem::path& home, const Catalogue& catalogue);

// Paths as the catalogue has them: absolute, links resolved as far as there is a file.
std::vector<std::string> cataloguedPaths(const std::vector<std::string>& paths);

// The one writer of a home, which is the current directory from then on.
class Store {
 public:
  enum class Missing {
    kCreate,
    kRefuse,  // without an index there is nothing to change
  };

  enum class Index {
    kKept,
    kReplaced,  // whatever is wrong with it
  };

  // Throws IndexInUse, or Failure when nobody could be at work.
  Store(const std::filesystem::path& home, Missing missing, Index index = Index::kKept);

  Catalogue& catalogue() { return *catalogue_; }

  // How many documents an earlier run has left, or a lost index was to hold.
  size_t leftBehind() const { return left_behind_; }

  // Announces the files and begins to give the index what is new in them.
  void add(const std::vector<FileChange>& changes);

  // Does to the index whatever else is announced, closes it and settles the catalogue.
  // Nothing announced: the index is not even opened. Until then nothing else of the
  // index is to be changed; afterwards this object has done its work.
  void finish();

  // Makes the index anew from the catalogue, in place of the one there is.
  void rebuild();

 private:
  IndexSession& index();
  void give(int64_t id, const SignatureList& signatures);

  const std::filesystem::path home_;
  std::optional<DirectoryLock> lock_;
  std::unique_ptr<Catalogue> catalogue_;
  SignatureList common_;
  bool index_was_there_ = false;
  size_t left_behind_ = 0;
  std::optional<int64_t> first_added_;  // this and all higher IDs were given to the index
  std::unique_ptr<IndexSession> index_;
};

}  // namespace tool
