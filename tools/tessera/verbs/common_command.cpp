// "tessera common": text that stands in many documents and counts in none.
// Tests: tests/tool/common_test.py.
#include <fmt/format.h>

#include <algorithm>
#include <map>

#include "cli/names.h"
#include "commands.h"
#include "failure.h"
#include "index/opened_file.h"
#include "store/frequent_signatures.h"
#include "store/records.h"
#include "store/store.h"

namespace tool {

namespace {

constexpr unsigned kLeastDocuments = 3;
constexpr size_t kExamples = 3;

// Nothing, with a complaint, when the file cannot be made common text as a whole.
std::optional<CommonText> readCommonText(FileOpener* opener, const std::string& path) {
  const OpenedFile opened = opener->open(path, [](const std::string&) { return std::nullopt; });
  const FileEntry& file = opened.change.file;
  CommonText text{path, file.when, {}};
  for (const NewDocument& document : opened.change.documents) {
    text.signatures.insert(text.signatures.end(), document.signatures.begin(),
                           document.signatures.end());
  }
  makeList(&text.signatures);
  for (const Verdict& verdict : file.verdicts) complain(verdictText(file, verdict));
  const bool whole = opened.problem.empty() && file.verdicts.empty();
  if (!opened.problem.empty()) {
    complain(fmt::format("cannot read {}: {}", shownName(path), opened.problem));
  } else if (whole && text.signatures.empty()) {
    complain(fmt::format("{} is too short for a signature", shownName(path)));
  }
  if (!whole || text.signatures.empty()) return std::nullopt;
  return text;
}

int addTexts(const CommonOptions& common, const CommonTextOptions& options) {
  const std::vector<std::string> paths = cataloguedPaths(options.files);
  Store store(common.home, Store::Missing::kCreate);
  FileOpener opener({options.inspect.limits, Selection::kFull, ""});
  bool failed = false;
  std::vector<CommonText> texts;
  for (const std::string& path : paths) {
    std::optional<CommonText> text = readCommonText(&opener, path);
    failed = failed || !text;
    if (text) texts.push_back(*std::move(text));
  }
  const size_t affected = store.catalogue().addCommonTexts(texts);
  store.finish();
  fmt::print("{} common {} added; {} documents held some of it\n", texts.size(),
             texts.size() == 1 ? "text" : "texts", affected);
  return failed ? kFailed : kDone;
}

int removeTexts(const CommonOptions& common, const CommonTextOptions& options) {
  const std::vector<std::string> paths = cataloguedPaths(options.files);
  Store store(common.home, Store::Missing::kRefuse);
  size_t removed = 0;
  for (size_t i = 0; i < paths.size(); ++i) {
    const std::vector<CommonText> texts = store.catalogue().commonTexts();
    const bool known = std::any_of(texts.begin(), texts.end(),
                                   [&](const CommonText& text) { return text.path == paths[i]; });
    if (known) {
      store.catalogue().removeCommonText(paths[i]);
      ++removed;
    } else {
      complain(fmt::format("{} is no common text", shownName(options.files[i])));
    }
  }
  store.finish();
  fmt::print("{} common {} removed\n", removed, removed == 1 ? "text" : "texts");
  return removed == paths.size() ? kDone : kFailed;
}

int listTexts(const Catalogue& catalogue, bool json) {
  for (const CommonText& text : catalogue.commonTexts()) {
    const std::string name = shownName(text.path);
    if (json) {
      const Json record = {{"path", name},
                           {"signatures", text.signatures.size()},
                           {"added_at", timeText(text.when)}};
      fmt::print("{}\n", record.dump());
    } else {
      fmt::print("{:>7}  {}\n", text.signatures.size(), name);
    }
  }
  return kDone;
}

void printSuggestion(const Catalogue& catalogue, const FrequentSignature& frequent, bool json) {
  std::vector<std::string> names;
  for (const int64_t id : frequent.examples) {
    if (const auto document = catalogue.document(id)) names.push_back(shownName(document->name()));
  }
  const std::string signature = hexadecimal(frequent.signature);
  if (json) {
    const Json record = {
        {"signature", signature}, {"documents", frequent.documents}, {"examples", names}};
    fmt::print("{}\n", record.dump());
  } else {
    fmt::print("{}  {:>7}  {}\n", signature, frequent.documents, fmt::join(names, "  "));
  }
}

int suggest(const Catalogue& catalogue, const CommonTextOptions& options) {
  size_t documents = 0;
  catalogue.eachDocument("", [&](const DocumentEntry&) { ++documents; });
  const size_t least = options.min_documents
                           ? options.min_documents
                           : std::max<size_t>(kLeastDocuments, (documents + 9) / 10);
  for (const FrequentSignature& frequent : frequentSignatures(catalogue, least, kExamples)) {
    printSuggestion(catalogue, frequent, options.json);
  }
  return kDone;
}

}  // namespace

int commonCommand(const CommonOptions& common, const CommonTextOptions& options) {
  switch (options.action) {
    case CommonTextOptions::Action::kAdd:
      return addTexts(common, options);
    case CommonTextOptions::Action::kRemove:
      return removeTexts(common, options);
    case CommonTextOptions::Action::kList:
      return listTexts(*openCatalogue(common.home), options.json);
    case CommonTextOptions::Action::kSuggest:
      break;
  }
  return suggest(*openCatalogue(common.home), options);
}

}  // namespace tool
