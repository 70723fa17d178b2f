// "tessera match": which documents of the index share passages with files.
// Files are inspected side by side and reported in their order.
// Tests: tests/tool/match_test.py and tests/tool/report_test.py.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <thread>

#include "cli/names.h"
#include "cli/progress.h"
#include "commands.h"
#include "failure.h"
#include "files/in_order.h"
#include "files/walk.h"
#include "match/matcher.h"
#include "match/report.h"

namespace tool {

namespace {

bool coloursWanted() {
  const auto set = [](const char* name) {
    const char* value = std::getenv(name);
    return std::string_view(value ? value : "");
  };
  return ::isatty(STDOUT_FILENO) == 1 && set("NO_COLOR").empty() && set("TERM") != "dumb";
}

std::unique_ptr<Reporter> makeReporter(Report report) {
  switch (report) {
    case Report::kText:
      return makeTextReporter(coloursWanted());
    case Report::kJson:
      return makeJsonReporter();
    case Report::kSarif:
      return makeSarifReporter();
  }
  return nullptr;
}

int statusOf(const Totals& totals, bool lenient) {
  if (totals.problems > 0) return kFailed;
  if (totals.matched > 0) return kMatched;
  return totals.not_inspected > 0 && !lenient ? kNotInspected : kDone;
}

class Session {
 public:
  Session(Report report, ProgressStyle style) : reporter_(makeReporter(report)), progress_(style) {}

  void problem(const std::string& text) {
    ++totals_.problems;
    progress_.clear();
    complain(text);
    print(reporter_->problem(text));
  }

  void file(const InspectedFile& file) {
    totals_.add(file);
    if (file.unreadable) {
      progress_.clear();
      complain(fmt::format("cannot read {}: {}", shownName(file.file.name),
                           file.queries.front().detail));
    }
    print(reporter_->file(file));
  }

  void count(size_t done, size_t total) { progress_.count("Matching", done, total); }

  int end(bool lenient) {
    const int status = statusOf(totals_, lenient);
    print(reporter_->end(totals_, status));
    return status;
  }

 private:
  void print(const std::string& text) {
    if (text.empty()) return;
    progress_.clear();
    fmt::print("{}", text);
  }

  const std::unique_ptr<Reporter> reporter_;
  Progress progress_;
  Totals totals_;
};

}  // namespace

int matchCommand(const CommonOptions& common, const MatchOptions& options) {
  const FoundFiles found = findFiles(options.files, common.home, StandardInput::kTaken);
  Matcher matcher(common.home, {.limits = options.inspect.limits,
                                .min_level = options.min_level,
                                .explain = options.explain});
  Session session(options.report, common.progress);
  for (const std::string& problem : found.problems) session.problem(problem);

  const unsigned jobs =
      options.inspect.jobs ? options.inspect.jobs : std::thread::hardware_concurrency();
  session.count(0, found.files.size());
  inOrder<InspectedFile>(
      found.files.size(), jobs, [&](size_t i) { return matcher.inspect(found.files[i]); },
      [&](size_t i, InspectedFile&& file) {
        session.file(file);
        session.count(i + 1, found.files.size());
      },
      [] { return false; });
  return session.end(options.lenient);
}

}  // namespace tool
