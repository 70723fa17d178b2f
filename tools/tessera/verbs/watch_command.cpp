// "tessera watch": keeps the index up to date with directories as they change.
//
// The files are indexed once, and then those that have changed and been left alone for a
// while. In between the index belongs to nobody: other commands may change it, and are
// waited for. Tests: tests/tool/watch_test.py.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <optional>

#include "cli/interrupt.h"
#include "cli/names.h"
#include "commands.h"
#include "failure.h"
#include "files/tree_watch.h"
#include "files/walk.h"
#include "index/index_run.h"

namespace fs = std::filesystem;

namespace tool {

namespace {

using Clock = std::chrono::steady_clock;

// Paths that changed, until nothing has happened to them for a while.
class Changes {
 public:
  explicit Changes(std::chrono::seconds settle) : settle_(settle) {}

  void note(const std::vector<std::string>& paths) {
    for (const std::string& path : paths) due_[path] = Clock::now() + settle_;
  }

  // Until something may be due; nothing: nothing is pending.
  std::optional<std::chrono::milliseconds> wait() const {
    std::optional<Clock::time_point> first;
    for (const auto& [path, due] : due_) first = first ? std::min(*first, due) : due;
    if (!first) return std::nullopt;
    const auto rest = std::chrono::ceil<std::chrono::milliseconds>(*first - Clock::now());
    return std::max(rest, std::chrono::milliseconds(0));
  }

  std::vector<std::string> takeDue() {
    std::vector<std::string> paths;
    for (auto entry = due_.begin(); entry != due_.end();) {
      if (entry->second <= Clock::now()) {
        paths.push_back(entry->first);
        entry = due_.erase(entry);
      } else {
        ++entry;
      }
    }
    return paths;
  }

 private:
  const std::chrono::seconds settle_;
  std::map<std::string, Clock::time_point> due_;
};

bool concerns(const std::vector<std::string>& changed, const std::string& file) {
  return std::any_of(changed.begin(), changed.end(), [&](const std::string& path) {
    return file == path || file.starts_with(path == "/" ? path : path + "/");
  });
}

// What vanishes while it is looked for is told by the next change.
bool allGone(const std::vector<fs::path>& paths) {
  return !paths.empty() && std::none_of(paths.begin(), paths.end(), [](const fs::path& path) {
    std::error_code error;
    return fs::symlink_status(path, error).type() != fs::file_type::not_found;
  });
}

class Watcher {
 public:
  // `files` has absolute paths: the current directory changes.
  Watcher(const CommonOptions& common, const IndexOptions& options)
      : common_(common), options_(options) {}

  // What is at or below the paths `changed`, as far as it is chosen.
  void update(const std::vector<std::string>& changed) {
    FoundFiles found = findFiles(options_.files, common_.home);
    if (!allGone(found.unseen)) {
      for (const std::string& problem : found.problems) complain(problem);
      failed_ = failed_ || !found.problems.empty();
    }
    std::erase_if(found.files,
                  [&](const FoundFile& file) { return !concerns(changed, file.path.native()); });

    Store store(common_.home, Store::Missing::kCreate);
    IndexRun run(common_, options_, &store);
    run.index(found.files);
    for (const std::string& path : changed) {
      // What went from below a directory was seen to go; from a whole tree, that is not told.
      const auto& roots = options_.files.paths;
      const bool is_root = std::find(roots.begin(), roots.end(), path) != roots.end();
      run.prune({path}, is_root ? IndexRun::Emptied::kKept : IndexRun::Emptied::kPruned);
    }
    run.finish();
    const IndexCounts& counts = run.counts();
    failed_ = failed_ || counts.failed || counts.not_pruned;
    not_inspected_ = not_inspected_ || counts.not_inspected;
    if (counts.files || counts.removed || counts.not_pruned) fmt::print("{}\n", summary(counts));
    std::fflush(stdout);
  }

  int status() const { return failed_ ? kFailed : not_inspected_ ? kNotInspected : kDone; }

 private:
  const CommonOptions common_;
  const IndexOptions options_;
  bool failed_ = false;
  bool not_inspected_ = false;
};

}  // namespace

int watchCommand(const CommonOptions& common, const WatchOptions& options) {
  IndexOptions index = options.index;
  index.files.paths = cataloguedPaths(index.files.paths);
  const std::vector<std::string>& roots = index.files.paths;
  TreeWatch tree(roots, common.home.native());
  Watcher watcher(common, index);
  finishOnInterrupt();
  watcher.update(roots);
  complain(fmt::format("watching {} {}; Ctrl-C ends it", tree.directories(),
                       tree.directories() == 1 ? "directory" : "directories"));

  Changes changes{std::chrono::seconds(options.settle_seconds)};
  while (!interrupted()) {
    changes.note(tree.wait(changes.wait()));
    const std::vector<std::string> due = changes.takeDue();
    if (due.empty() || interrupted()) continue;
    try {
      watcher.update(due);
    } catch (const IndexInUse&) {
      changes.note(due);  // tried again later
    }
  }
  return watcher.status();
}

}  // namespace tool
