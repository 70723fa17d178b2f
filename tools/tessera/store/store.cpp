#include "store/store.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <system_error>

#include "cli/names.h"

namespace fs = std::filesystem;

namespace tool {

namespace {

constexpr char kRebuildName[] = "rebuild";  // in the home, while the index is made anew

// In the directory of an index: its generation, as the catalogue counts them.
constexpr char kGenerationName[] = "generation";

Failure noIndex(const fs::path& home) {
  return Failure(
      fmt::format("there is no index in {}\n"
                  "Make one with 'tessera index PATH...', or name another home with "
                  "--home DIR or TESSERA_HOME.",
                  shownName(home.native())));
}

void sync(const fs::path& directory) {
  const int descriptor = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return;
  ::fsync(descriptor);
  ::close(descriptor);
}

int64_t generationOf(const fs::path& index) {
  int64_t generation = 0;
  std::ifstream(index / kGenerationName) >> generation;
  return generation;
}

// Lasting on return: should the power fail, the index is never ahead of the number.
void writeGeneration(const fs::path& index, int64_t generation) {
  const fs::path file = index / kGenerationName;
  const fs::path fresh = file.native() + ".new";
  const std::string line = fmt::format("{}\n", generation);
  const bool made = ::mkdir(index.c_str(), 0700) == 0 || errno == EEXIST;
  const int descriptor =
      made ? ::open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600) : -1;
  bool written = descriptor >= 0 &&
                 ::write(descriptor, line.data(), line.size()) == std::ssize(line) &&
                 ::fsync(descriptor) == 0;
  if (descriptor >= 0) ::close(descriptor);
  written = written && ::rename(fresh.c_str(), file.c_str()) == 0;
  if (!written) {
    throw Failure(fmt::format("cannot write {}: {}", shownName(fs::absolute(file).native()),
                              std::strerror(errno)));
  }
  sync(index);
}

// Puts `fresh` in the place of `old`, and `old` aside into the place of `fresh`. A file
// system that cannot exchange two names loses the old one first: should the command be
// killed right then, the index is lost, and made of the catalogue by whoever writes next.
void exchange(const fs::path& fresh, const fs::path& old) {
  if (::renameat2(AT_FDCWD, fresh.c_str(), AT_FDCWD, old.c_str(), RENAME_EXCHANGE) == 0) return;
  std::error_code error;
  fs::remove_all(old, error);
  if (!error) fs::rename(fresh, old, error);
  if (error) {
    throw Failure(fmt::format("cannot put the new index into its place: {}", error.message()));
  }
}

}  // namespace

std::unique_ptr<Catalogue> openCatalogue(const fs::path& home) {
  if (!fs::exists(home / kCatalogueName)) throw noIndex(home);
  return std::make_unique<Catalogue>(home / kCatalogueName, Catalogue::Access::kRead);
}

void requireFinishedRun(const fs::path& home, const Catalogue& catalogue) {
  if (catalogue.generations().settled != 0) return;
  throw Failure(
      fmt::format("nothing is indexed in {} yet: the first run is at work, or was cut off\n"
                  "Wait for its end, or make it good with 'tessera index PATH...'.",
                  shownName(home.native())));
}

void requireIndex(const fs::path& home) {
  if (fs::is_directory(home / kIndexName)) return;
  throw Failure(
      fmt::format("the index {} is missing\n"
                  "'tessera rebuild --from-catalogue' makes it anew.",
                  shownName((home / kIndexName).native())));
}

bool areOfSameRun(const fs::path& home, const Catalogue& catalogue) {
  // In this order: who begins a generation tells the catalogue first.
  const int64_t generation = generationOf(home / kIndexName);
  const auto [begun, settled] = catalogue.generations();
  return generation == begun || generation == settled;
}

void requireSameRun(const fs::path& home, const Catalogue& catalogue) {
  if (areOfSameRun(home, catalogue)) return;
  throw Failure(
      fmt::format("the index {} and its catalogue are not of the same run: has one of them come "
                  "back from a backup?\n"
                  "'tessera rebuild --from-catalogue' makes an index of what the catalogue knows; "
                  "then index the documents again.",
                  shownName((home / kIndexName).native())));
}

std::vector<std::string> cataloguedPaths(const std::vector<std::string>& paths) {
  std::vector<std::string> catalogued;
  for (const std::string& path : paths) {
    std::error_code error;
    const fs::path absolute = fs::absolute(path);
    const fs::path resolved = fs::weakly_canonical(absolute, error);
    const fs::path& best = error ? absolute : resolved;
    catalogued.push_back(best.has_filename() ? best.native() : best.parent_path().native());
  }
  return catalogued;
}

Store::Store(const fs::path& home, Missing missing, Index index) : home_(home) {
  const bool has_catalogue = fs::exists(home / kCatalogueName);
  if (!has_catalogue && missing == Missing::kRefuse) throw noIndex(home);
  createHome(home);
  enterHome(home);
  lock_.emplace(home, DirectoryLock::Kind::kExclusiveOrNothing);
  if (!lock_->held()) throw IndexInUse(home);
  index_was_there_ = hasIndex(home) && hasTrees(home);
  if (hasIndex(home) && !has_catalogue) {
    // Its file IDs belong to documents that nobody knows any more; to hand the
    // same IDs out again would give those documents wrong names.
    throw Failure(fmt::format(
        "{} holds an index, but its catalogue {} is missing\n"
        "Restore it, or remove {} to begin a new index.",
        shownName(home.native()), kCatalogueName, shownName((home / kIndexName).native())));
  }
  fs::remove_all(kRebuildName);  // of a rebuild that was cut off
  catalogue_ = std::make_unique<Catalogue>(kCatalogueName, Catalogue::Access::kWrite);
  if (!fs::exists(kConfigName)) {
    const Generator writes_the_default_configuration(Selection::kFull);
  }
  if (index_was_there_ && index == Index::kKept) requireSameRun(home, *catalogue_);
  if (!index_was_there_) catalogue_->announceAll();
  common_ = catalogue_->commonSignatures();
  left_behind_ = catalogue_->unsettled().size();
}

IndexSession& Store::index() {
  if (!index_) {
    writeGeneration(kIndexName, catalogue_->beginGeneration());
    index_ = std::make_unique<IndexSession>();
  }
  return *index_;
}

// A document of nothing but common text is none for the index.
void Store::give(int64_t id, const SignatureList& signatures) {
  SignatureList rest = without(signatures, common_);
  if (!rest.empty()) index().add(id, &rest);
}

void Store::add(const std::vector<FileChange>& changes) {
  index();  // if it cannot be opened, nothing is announced
  for (const Arrival& arrival : catalogue_->announce(changes)) {
    if (!first_added_) first_added_ = arrival.id;
    give(arrival.id, *arrival.signatures);
  }
}

void Store::finish() {
  const std::vector<Catalogue::Unsettled> unsettled = catalogue_->unsettled();
  if (unsettled.empty() && !index_ && index_was_there_) return;
  common_ = catalogue_->commonSignatures();
  index();
  const DirectoryLock tables(kIndexName, DirectoryLock::Kind::kExclusive);

  std::vector<int64_t> removed;
  std::vector<int64_t> arriving;
  for (const auto& [id, state] : unsettled) {
    if (first_added_ && id >= *first_added_ && state == State::kArriving) continue;
    removed.push_back(id);
    if (state == State::kArriving) arriving.push_back(id);
  }
  if (!removed.empty() && index_was_there_) index().remove(removed);
  for (const int64_t id : arriving) give(id, catalogue_->signatures(id));
  index().close();
  catalogue_->settle();
}

void Store::rebuild() {
  if (indexIsOpenElsewhere()) throw IndexInUse(home_);
  fs::create_directory(kRebuildName);
  fs::copy_file(kConfigName, fs::path(kRebuildName) / kConfigName);
  enterHome(home_ / kRebuildName);
  writeGeneration(kIndexName, catalogue_->beginGeneration());
  IndexSession fresh;
  catalogue_->eachList([&](int64_t id, const SignatureList& list) {
    SignatureList rest = without(list, common_);
    if (!rest.empty()) fresh.add(id, &rest);
  });
  fresh.close();
  enterHome(home_);
  {
    std::optional<DirectoryLock> tables;
    if (fs::exists(kIndexName)) tables.emplace(kIndexName, DirectoryLock::Kind::kExclusive);
    exchange(fs::path(kRebuildName) / kIndexName, kIndexName);
    sync(home_);
  }
  catalogue_->settle();
  fs::remove_all(kRebuildName);
}

}  // namespace tool
