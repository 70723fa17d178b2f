// "tessera index": brings the index up to date with files.
// Tests: tests/tool/index_test.py and tests/tool/kill_test.py.
#include <fmt/format.h>

#include "cli/interrupt.h"
#include "commands.h"
#include "failure.h"
#include "files/walk.h"
#include "index/index_run.h"

namespace fs = std::filesystem;

namespace tool {

int indexCommand(const CommonOptions& common, const IndexOptions& options) {
  // Both before the current directory changes.
  std::vector<std::string> named = cataloguedPaths(options.files.paths);
  const FoundFiles found = findFiles(options.files, common.home);
  for (const fs::path& directory : found.directories) named.push_back(directory.native());
  for (const std::string& problem : found.problems) complain(problem);
  const bool prune = options.prune || options.prune_empty;
  const bool nothing_found = found.files.empty() && !found.problems.empty();
  if (nothing_found && !prune) return kFailed;  // not worth a home

  Store store(common.home, Store::Missing::kCreate);
  if (store.leftBehind()) {
    complain(
        fmt::format("note: {} documents of an earlier run are not settled in the index, because "
                    "it was cut off or the index removed; this is made good now",
                    store.leftBehind()));
  }
  IndexRun run(common, options, &store);
  finishOnInterrupt();
  run.index(found.files);
  if (prune) {
    run.prune(named, options.prune_empty ? IndexRun::Emptied::kPruned : IndexRun::Emptied::kKept);
  }
  run.finish();

  const IndexCounts& counts = run.counts();
  fmt::print("{}\n", summary(counts));
  if (run.wasCutShort() || counts.failed || counts.not_pruned || !found.problems.empty())
    return kFailed;
  return counts.not_inspected ? kNotInspected : kDone;
}

}  // namespace tool
