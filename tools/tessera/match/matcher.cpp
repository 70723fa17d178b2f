#include "match/matcher.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "cli/names.h"
#include "failure.h"
#include "files/input.h"
#include "store/records.h"
#include "store/store.h"

namespace fs = std::filesystem;

namespace tool {

namespace {

SignatureList sharedSignatures(const SignatureList& a, const SignatureList& b) {
  SignatureList shared;
  std::set_intersection(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(shared));
  return shared;
}

// Null for an index that another program has made: its documents have no names here.
std::unique_ptr<Catalogue> findCatalogue(const fs::path& home) {
  if (!hasIndex(home) || fs::exists(home / kCatalogueName)) return openCatalogue(home);
  complain(fmt::format("note: without the catalogue {}, documents have numbers only",
                       shownName((home / kCatalogueName).native())));
  return nullptr;
}

Query describe(const Part& part) {
  Query query;
  query.member = part.name;
  query.type = part.type;
  query.encoding = part.encoding;
  query.size = part.size;
  query.sha256 = part.sha256;
  query.form = part.form;
  query.reason = part.reason;
  query.detail = part.detail;
  return query;
}

}  // namespace

std::string Finding::name() const {
  return document ? document->name() : fmt::format("unknown document #{}", match.file_id);
}

Query::Outcome Query::outcome() const {
  if (!findings.empty()) return Outcome::kMatch;
  if (reason != Reason::kNone) return Outcome::kUninspected;
  if (form == Form::kContainer) return Outcome::kContainer;
  return signatures + common == 0 ? Outcome::kTooShort : Outcome::kNoMatch;
}

std::string Query::verdictText() const {
  return fmt::format("not {}inspected: {}", inspected ? "wholly " : "", reasonText(reason, detail));
}

Matcher::Matcher(const fs::path& home, const Settings& settings)
    : settings_(settings),
      catalogue_(findCatalogue(home)),
      inspector_({.limits = settings.limits}) {
  {
    const ScratchHome scratch(home);
    fingerprinter_.emplace(Selection::kFull);
  }
  enterHome(home);
  if (catalogue_) requireFinishedRun(home, *catalogue_);
  requireIndex(home);
  tables_.emplace(kIndexName, DirectoryLock::Kind::kShared);
  if (catalogue_) readCatalogue(home);
  session_.emplace();
}

void Matcher::readCatalogue(const fs::path& home) {
  requireSameRun(home, *catalogue_);
  common_ = catalogue_->commonSignatures();
  if (const size_t waiting = catalogue_->unsettled().size()) {
    complain(
        fmt::format("note: {} not settled in the index yet: a run is at work, or was cut off, "
                    "which the next 'tessera index' makes good",
                    waiting == 1 ? "a document is" : fmt::format("{} documents are", waiting)));
  }
}

InspectedFile Matcher::inspect(const FoundFile& file) {
  InspectedFile inspected = {.file = file, .queries = {}};
  const Input input(file, settings_.limits.total_bytes);
  if (input.reason() == Reason::kNone) {
    inspectOpened(input.descriptor(), &inspected);
    return inspected;
  }
  inspected.unreadable = input.reason() == Reason::kUnreadable;
  Query query;
  query.reason = input.reason();
  query.detail = input.detail();
  inspected.queries.push_back(query);
  return inspected;
}

void Matcher::inspectOpened(int descriptor, InspectedFile* inspected) {
  std::vector<Query>& queries = inspected->queries;
  const std::string name = inspected->file.path.filename().native();
  inspector_.inspect(descriptor, name, [&](Part&& part) {
    if (part.reason != Reason::kNone && part.content.empty()) {
      // It may be about a document that came before its reason was known.
      const auto known = std::find_if(queries.begin(), queries.end(),
                                      [&](const Query& q) { return q.member == part.name; });
      if (known != queries.end()) {
        known->reason = part.reason;
        known->detail = part.detail;
        return;
      }
    }
    Query query = describe(part);
    query.inspected = part.reason == Reason::kNone || !part.content.empty();
    if (query.inspected) search(part, &query);
    queries.push_back(std::move(query));
  });
}

void Matcher::search(const Part& part, Query* query) {
  const SignatureList all = fingerprinter_->signatures(part);
  SignatureList signatures = without(all, common_);
  query->signatures = signatures.size();
  query->common = all.size() - signatures.size();
  if (signatures.empty()) return;
  std::vector<Match> matches = session_->match(&signatures, part.content.size());
  std::erase_if(matches, [&](const Match& match) { return match.level < settings_.min_level; });
  for (const Match& match : matches) query->findings.push_back(finding(match));
  if (settings_.explain && part.form == Form::kText && !matches.empty()) {
    explain(part.content, signatures, query);
  }
}

Finding Matcher::finding(const Match& match) {
  Finding finding = {.match = match, .document = std::nullopt, .passages = {}};
  if (catalogue_) {
    const std::lock_guard lock(catalogue_mutex_);
    finding.document = catalogue_->document(match.file_id);
  }
  return finding;
}

void Matcher::explain(std::string_view text, const SignatureList& signatures, Query* query) {
  if (!catalogue_) return;
  const std::vector<Window> windows = findWindows(text);
  for (Finding& finding : query->findings) {
    SignatureList held;
    {
      const std::lock_guard lock(catalogue_mutex_);
      held = catalogue_->signatures(finding.match.file_id);
    }
    finding.passages = findPassages(text, windows, sharedSignatures(signatures, held));
  }
}

}  // namespace tool
