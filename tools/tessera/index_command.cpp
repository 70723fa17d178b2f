// "tessera index": brings the index up to date with files.
//
// The files are read one by one; a file whose signatures are those that the
// index holds already is left alone. The others go into the index in batches,
// each announced in the catalogue before the index hears of it, and what they
// replace leaves at the end. See catalogue.h for what happens when the run is
// cut off in between. Tests: tests/tool/tool_test.py.
#include <fmt/format.h>

#include <algorithm>
#include <csignal>
#include <optional>
#include <utility>

#include "catalogue.h"
#include "commands.h"
#include "documents.h"
#include "failure.h"
#include "home.h"
#include "library.h"
#include "progress.h"

namespace fs = std::filesystem;

namespace tool {

namespace {

constexpr size_t kBatchDocuments = 64;  // at most 5 MB of signatures wait

volatile std::sig_atomic_t interrupted = 0;

// The first Ctrl-C lets the run finish cleanly, the second ends it at once.
void finishOnInterrupt() {
  struct sigaction action = {};
  action.sa_handler = [](int) { interrupted = 1; };
  action.sa_flags = static_cast<int>(SA_RESETHAND) | SA_RESTART;
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
}

uint64_t fnv1a(const SignatureList& signatures) {
  uint64_t hash = 0xcbf29ce484222325;
  for (const Signature& signature : signatures) {
    for (const unsigned char byte : signature) hash = (hash ^ byte) * 0x100000001b3;
  }
  return hash;
}

struct Counts {
  size_t added = 0;
  size_t replaced = 0;
  size_t unchanged = 0;
  size_t not_text = 0;
  size_t too_short = 0;
  size_t failed = 0;  // not readable, or refused by the index
};

// One run, with the index open from construction on.
class Run {
 public:
  explicit Run(Catalogue* catalogue) : catalogue_(catalogue) {}

  // Removes what a run that was cut off has left, and returns its paths.
  std::vector<fs::path> takeOver();

  void indexFiles(const std::vector<fs::path>& files);
  void finish();

  const Counts& counts() const { return counts_; }

 private:
  struct Arrival {
    Document document;
    SignatureList signatures;
    std::optional<int64_t> replaces;
  };

  void indexFile(const fs::path& path);
  void addBatch();
  void complainAbout(const fs::path& path, const std::string& reason);

  Catalogue* const catalogue_;
  Generator generator_;
  IndexSession index_;
  std::vector<Arrival> batch_;
  std::vector<int64_t> departures_;
  Counts counts_;
  Progress progress_{ProgressStyle::kAuto};
};

std::vector<fs::path> Run::takeOver() {
  std::vector<fs::path> paths;
  std::vector<int64_t> ids;
  for (const Document& document : catalogue_->unsettled()) {
    paths.push_back(document.path);
    ids.push_back(document.id);
  }
  if (!ids.empty()) {
    catalogue_->turnArrivalsAway();
    index_.remove(ids);
  }
  return paths;
}

void Run::indexFiles(const std::vector<fs::path>& files) {
  size_t done = 0;
  for (const fs::path& file : files) {
    if (interrupted) break;
    progress_.count("Indexing", ++done, files.size());
    indexFile(file);
  }
  addBatch();
  if (interrupted) {
    progress_.clear();
    complain(fmt::format("interrupted after {} of {} files", done, files.size()));
  }
}

void Run::indexFile(const fs::path& path) {
  std::string content;
  std::string reason;
  const ReadOutcome outcome = readDocument(path, &content, &reason);
  if (outcome == ReadOutcome::kUnreadable) return complainAbout(path, reason);

  Arrival arrival;
  if (outcome == ReadOutcome::kText) arrival.signatures = generator_.signatures(&content);
  arrival.document.path = path;
  arrival.document.size = content.size();
  arrival.document.signatures = static_cast<uint32_t>(arrival.signatures.size());
  arrival.document.signatures_hash = fnv1a(arrival.signatures);

  const std::optional<Document> old = catalogue_->find(path);
  if (arrival.signatures.empty()) {
    ++(outcome == ReadOutcome::kText ? counts_.too_short : counts_.not_text);
    if (old) departures_.push_back(old->id);  // it had a text once
    return;
  }
  if (old && old->signatures == arrival.document.signatures &&
      old->signatures_hash == arrival.document.signatures_hash) {
    ++counts_.unchanged;
    return;
  }
  if (old) arrival.replaces = old->id;
  batch_.push_back(std::move(arrival));
  if (batch_.size() == kBatchDocuments) addBatch();
}

void Run::addBatch() {
  std::vector<Document> documents;
  for (const Arrival& arrival : batch_) documents.push_back(arrival.document);
  catalogue_->announceArrivals(&documents);
  for (size_t i = 0; i < batch_.size(); ++i) {
    Arrival& arrival = batch_[i];
    std::string reason;
    if (!index_.add(documents[i].id, &arrival.signatures, &reason)) {
      catalogue_->cancelArrival(documents[i].id);
      complainAbout(documents[i].path, reason);
      continue;
    }
    ++(arrival.replaces ? counts_.replaced : counts_.added);
    if (arrival.replaces) departures_.push_back(*arrival.replaces);
  }
  batch_.clear();
}

void Run::finish() {
  progress_.say("Writing the index");
  catalogue_->announceDepartures(departures_);
  const DirectoryLock tables(kIndexName, DirectoryLock::Kind::kExclusive);
  if (!departures_.empty()) index_.remove(departures_);
  index_.close();
  catalogue_->settle();
}

void Run::complainAbout(const fs::path& path, const std::string& reason) {
  progress_.clear();
  complain(fmt::format("cannot index {}: {}", path.string(), reason));
  ++counts_.failed;
}

void printSummary(size_t files, const Counts& counts) {
  fmt::print("{} {}: {} added, {} replaced, {} unchanged", files, files == 1 ? "file" : "files",
             counts.added, counts.replaced, counts.unchanged);
  if (counts.not_text) fmt::print(", {} not text", counts.not_text);
  if (counts.too_short) fmt::print(", {} too short", counts.too_short);
  if (counts.failed) fmt::print(", {} failed", counts.failed);
  fmt::print("\n");
}

}  // namespace

int indexCommand(const CommonOptions& common, const IndexOptions& options) {
  const fs::path& home = common.home;
  FoundFiles found = findFiles(options.files.paths, home);
  for (const std::string& problem : found.problems) complain(problem);
  if (found.files.empty() && !found.problems.empty()) return kFailed;  // not worth a home

  createHome(home);
  enterHome(home);
  const DirectoryLock lock(home, DirectoryLock::Kind::kExclusiveOrNothing);
  if (!lock.held()) {
    throw Failure(
        fmt::format("the index {} is in use by another process", (home / kIndexName).string()));
  }
  const bool had_index = hasIndex(home);
  if (had_index && !fs::exists(kCatalogueName)) {
    // Its file IDs belong to documents that nobody knows any more; to hand the
    // same IDs out again would give those documents wrong names.
    throw Failure(
        fmt::format("{} holds an index, but its catalogue {} is missing\n"
                    "Restore it, or remove {} to begin a new index.",
                    home.string(), kCatalogueName, (home / kIndexName).string()));
  }
  Catalogue catalogue(kCatalogueName, Catalogue::Access::kWrite);
  Run run(&catalogue);
  if (!had_index) catalogue.announceDepartureOfAll();  // somebody removed it
  if (const std::vector<fs::path> left = run.takeOver(); !left.empty()) {
    complain(
        fmt::format("note: {} documents of an earlier run are not in the index, because it "
                    "was cut off or the index removed; they are indexed again",
                    left.size()));
    found.files.insert(found.files.end(), left.begin(), left.end());
    std::sort(found.files.begin(), found.files.end());
    found.files.erase(std::unique(found.files.begin(), found.files.end()), found.files.end());
  }

  finishOnInterrupt();
  run.indexFiles(found.files);
  run.finish();
  printSummary(found.files.size(), run.counts());
  return interrupted || run.counts().failed || !found.problems.empty() ? kFailed : kDone;
}

}  // namespace tool
