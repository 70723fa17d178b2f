// "tessera list": the documents of the catalogue, and what was not inspected.
// Tests: tests/tool/store_verbs_test.py.
#include <fmt/format.h>

#include "cli/names.h"
#include "commands.h"
#include "store/records.h"
#include "store/store.h"

namespace tool {

namespace {

void print(const DocumentEntry& document, bool json) {
  if (json) {
    fmt::print("{}\n", documentRecord(document).dump());
    return;
  }
  fmt::print("{:>6}  {:>7}  {:>10}  {}{}\n", document.id, document.signatures, document.size,
             document.label.empty() ? "" : fmt::format("[{}] ", shownName(document.label)),
             shownName(document.name()));
}

void print(const FileEntry& file, bool json) {
  for (const Verdict& verdict : file.verdicts) {
    if (json) {
      fmt::print("{}\n", verdictRecord(file, verdict).dump());
    } else {
      fmt::print("{}\n", verdictText(file, verdict));
    }
  }
}

}  // namespace

int listCommand(const CommonOptions& common, const ListOptions& options) {
  const auto catalogue = openCatalogue(common.home);
  std::vector<std::string> below = cataloguedPaths(options.paths);
  if (below.empty()) below.emplace_back();  // all
  if (!options.json) {
    fmt::print("{:>6}  {:>7}  {:>10}  {}\n", "ID", "SIGNS", "BYTES", "[LABEL] NAME");
  }
  const auto wanted = [&](const std::string& label) {
    return options.label.empty() || label == options.label;
  };
  for (const std::string& path : below) {
    catalogue->eachDocument(path, [&](const DocumentEntry& document) {
      if (wanted(document.label)) print(document, options.json);
    });
  }
  for (const std::string& path : below) {
    catalogue->eachFile(path, [&](const FileEntry& file) {
      if (wanted(file.label)) print(file, options.json);
    });
  }
  return kDone;
}

}  // namespace tool
