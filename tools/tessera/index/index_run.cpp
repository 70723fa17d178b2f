#include "index/index_run.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <thread>
#include <utility>

#include "cli/interrupt.h"
#include "cli/names.h"
#include "failure.h"
#include "files/in_order.h"
#include "store/records.h"

namespace fs = std::filesystem;

namespace tool {

namespace {

// What a kill costs at most: these have to be opened again.
constexpr size_t kBatchFiles = 64;
constexpr size_t kBatchBytes = 4 << 20;  // of signatures

size_t signatureBytes(const FileChange& change) {
  size_t bytes = 0;
  for (const NewDocument& document : change.documents) {
    bytes += document.signatures.size() * sizeof(Signature);
  }
  return bytes;
}

// What was being opened right then was given up.
bool brokenByInterrupt(const OpenedFile& opened) {
  return interrupted() && !opened.unchanged &&
         std::any_of(opened.change.file.verdicts.begin(), opened.change.file.verdicts.end(),
                     [](const Verdict& verdict) { return verdict.reason == Reason::kCrashed; });
}

bool isGone(const std::string& path) {
  std::error_code error;
  const fs::file_type type = fs::symlink_status(path, error).type();
  return type != fs::file_type::regular && type != fs::file_type::none;  // none: who knows
}

// What was in it may have gone for a while only, with a disk that is missing.
bool isEmptied(const fs::path& directory) {
  std::error_code error;
  const fs::file_status status = fs::symlink_status(directory, error);
  return !fs::exists(status) || (fs::is_directory(status) && fs::is_empty(directory, error)) ||
         error;
}

}  // namespace

std::string summary(const IndexCounts& counts) {
  std::string text = fmt::format("{} {}: {} added, {} replaced, {} unchanged", counts.files,
                                 counts.files == 1 ? "file" : "files", counts.added,
                                 counts.replaced, counts.unchanged);
  const auto add = [&](size_t count, const char* what) {
    if (count) text += fmt::format(", {} {}", count, what);
  };
  add(counts.removed, "removed");
  add(counts.not_pruned, "not pruned");
  add(counts.too_short, "too short");
  add(counts.not_inspected, "not inspected");
  add(counts.failed, "failed");
  return text;
}

IndexRun::IndexRun(const CommonOptions& common, const IndexOptions& options, Store* store)
    : store_(store),
      jobs_(options.inspect.jobs ? options.inspect.jobs : std::thread::hardware_concurrency()),
      opener_({options.inspect.limits, options.selection, options.label}),
      progress_(common.progress) {}

void IndexRun::index(const std::vector<FoundFile>& files) {
  const auto known = [this](const std::string& path) { return store_->catalogue().file(path); };
  const size_t done = inOrder<OpenedFile>(
      files.size(), jobs_, [&](size_t i) { return opener_.open(files[i].path.native(), known); },
      [&](size_t i, OpenedFile&& opened) {
        progress_.count("Indexing", i + 1, files.size());
        take(std::move(opened));
      },
      interrupted);
  addBatch();
  counts_.files += files.size();
  cut_short_ = done < files.size();
  if (cut_short_) {
    progress_.clear();
    complain(fmt::format("interrupted after {} of {} files", done, files.size()));
  }
}

void IndexRun::take(OpenedFile&& opened) {
  const std::string& path = opened.change.file.path;
  const bool vanished = !opened.problem.empty() && isGone(path);  // since it was found
  if (brokenByInterrupt(opened) || vanished) return;
  if (!opened.problem.empty()) {
    progress_.clear();
    complain(fmt::format("cannot index {}: {}", shownName(path), opened.problem));
    ++counts_.failed;
    return;
  }
  for (const Verdict& verdict : opened.change.file.verdicts) {
    progress_.clear();
    complain(verdictText(opened.change.file, verdict));
    ++counts_.not_inspected;
  }
  if (opened.unchanged) {
    ++counts_.unchanged;
    return;
  }
  ++(opened.known ? counts_.replaced : counts_.added);
  for (const NewDocument& document : opened.change.documents) {
    if (document.signatures.empty()) ++counts_.too_short;
  }
  batch_bytes_ += signatureBytes(opened.change);
  batch_.push_back(std::move(opened.change));
  if (batch_.size() >= kBatchFiles || batch_bytes_ >= kBatchBytes) addBatch();
}

void IndexRun::addBatch() {
  if (!batch_.empty()) store_->add(batch_);
  batch_.clear();
  batch_bytes_ = 0;
}

void IndexRun::prune(const std::vector<std::string>& below, Emptied emptied) {
  cut_short_ = cut_short_ || interrupted();
  if (cut_short_) return;
  std::set<std::string> gone;
  std::set<std::string> kept;
  for (const std::string& path : below) {
    const bool keep = emptied == Emptied::kKept && isEmptied(path);
    size_t count = 0;
    for (const std::string& known : store_->catalogue().paths(path)) {
      if (!isGone(known)) continue;
      const bool is_kept = keep && known != path;
      if ((is_kept ? kept : gone).insert(known).second && is_kept) ++count;
    }
    if (count == 0) continue;
    complain(
        fmt::format("{} below {} not pruned: it is empty or gone; is a disk missing?\n"
                    "'tessera index --prune-empty' removes what was there from the index.",
                    count == 1 ? "a file" : fmt::format("{} files", count), shownName(path)));
  }
  counts_.not_pruned += kept.size();
  for (const std::string& path : kept) gone.erase(path);
  if (!gone.empty())
    counts_.removed += store_->catalogue().announceRemoval({gone.begin(), gone.end()});
}

void IndexRun::finish() {
  progress_.say("Writing the index");
  store_->finish();
  progress_.clear();
}

}  // namespace tool
