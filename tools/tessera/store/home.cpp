#include "store/home.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <stdlib.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "cli/names.h"

namespace fs = std::filesystem;

namespace tool {

namespace {

bool isLocked(const fs::path& file) {
  const int descriptor = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0) return false;
  const bool locked = ::flock(descriptor, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  ::close(descriptor);
  return locked;
}

}  // namespace

fs::path homePath(const std::string& option) {
  fs::path home = option;
  if (const char* environment = std::getenv("TESSERA_HOME"); home.empty() && environment) {
    home = environment;
  }
  if (home.empty()) home = ".tessera";
  std::error_code error;
  const fs::path resolved = fs::weakly_canonical(fs::absolute(home), error);
  if (error) {
    throw Failure(
        fmt::format("cannot use {} as home: {}", shownName(home.native()), error.message()));
  }
  return resolved.has_filename() ? resolved : resolved.parent_path();  // without a last "/"
}

bool hasIndex(const fs::path& home) {
  std::error_code ignored;
  return fs::exists(home / kIndexName / "meta_data.bin", ignored);
}

bool hasTrees(const fs::path& home) {
  std::error_code error;
  for (fs::directory_iterator entry(home / kIndexName, error), end; !error && entry != end;
       entry.increment(error)) {
    if (entry->path().extension() == ".blk") return true;
  }
  return false;
}

void enterHome(const fs::path& home) {
  std::error_code error;
  fs::current_path(home, error);
  if (error) {
    throw Failure(
        fmt::format("cannot enter the home {}: {}", shownName(home.native()), error.message()));
  }
}

void createHome(const fs::path& home) {
  std::error_code error;
  const bool created = fs::create_directories(home, error);
  if (created) fs::permissions(home, fs::perms::owner_all, error);
  if (error) {
    throw Failure(
        fmt::format("cannot create the home {}: {}", shownName(home.native()), error.message()));
  }
}

ScratchHome::ScratchHome(const fs::path& home) {
  std::error_code error;
  const fs::path parent = fs::temp_directory_path(error);
  std::string name = (parent / "tessera-XXXXXX").string();
  if (error || !::mkdtemp(name.data())) {
    throw Failure(fmt::format("cannot create a directory for temporary files in {}: {}",
                              error ? "TMPDIR or /tmp" : shownName(parent.native()),
                              error ? error.message() : std::strerror(errno)));
  }
  path_ = name;
  std::error_code ignored;  // no settings: the defaults hold
  fs::copy_file(home / kConfigName, path_ / kConfigName, ignored);
  enterHome(path_);
}

ScratchHome::~ScratchHome() {
  std::error_code ignored;
  fs::current_path("/", ignored);
  fs::remove_all(path_, ignored);
}

DirectoryLock::DirectoryLock(const fs::path& directory, Kind kind)
    : descriptor_(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  if (descriptor_ < 0) {
    throw Failure(
        fmt::format("cannot open {}: {}", shownName(directory.native()), std::strerror(errno)));
  }
  const int operation = kind == Kind::kShared      ? LOCK_SH
                        : kind == Kind::kExclusive ? LOCK_EX
                                                   : LOCK_EX | LOCK_NB;
  int outcome;
  do {
    outcome = ::flock(descriptor_, operation);
  } while (outcome != 0 && errno == EINTR);
  // A file system without locks is no reason not to work.
  held_ = outcome == 0 || errno != EWOULDBLOCK;
}

DirectoryLock::~DirectoryLock() { ::close(descriptor_); }

IndexInUse::IndexInUse(const fs::path& home)
    : Failure(fmt::format("the index {} is in use by another process",
                          shownName((home / kIndexName).native()))) {}

bool indexIsOpenElsewhere() {
  std::error_code error;
  for (fs::directory_iterator entry(kIndexName, error), end; !error && entry != end;
       entry.increment(error)) {
    if (entry->path().extension() == ".blk" && isLocked(entry->path())) return true;
  }
  return false;
}

}  // namespace tool
