// "tessera stats": how much there is, and how far that is from the limits.
// Tests: tests/tool/store_verbs_test.py.
#include <fmt/format.h>

#include <cstdint>
#include <map>
#include <system_error>

#include "cli/names.h"
#include "commands.h"
#include "store/home.h"
#include "store/records.h"
#include "store/store.h"
#include "store/strong_table.h"

namespace fs = std::filesystem;

namespace tool {

namespace {

// What a search can reach of the strong table, and how far a file ID may be from the
// index's base, which is -1.
constexpr uint64_t kTableLimit = uint64_t{2} << 30;
constexpr int64_t kIdLimit = INT32_MAX - 1;

struct Sum {
  uint64_t documents = 0;
  uint64_t signatures = 0;
  uint64_t bytes = 0;

  void add(const DocumentEntry& document) {
    ++documents;
    signatures += document.signatures;
    bytes += document.size;
  }
};

struct Figures {
  uint64_t files = 0;
  uint64_t not_inspected = 0;
  Sum all;
  std::map<std::string, Sum> types, labels, selections;
  uint64_t common_texts = 0;
  uint64_t common_signatures = 0;
  uint64_t unsettled = 0;
  uint64_t table_bytes = 0;
  int64_t last_id = 0;
};

Figures collect(const Catalogue& catalogue, const fs::path& home) {
  Figures figures;
  catalogue.eachFile("", [&](const FileEntry& file) {
    ++figures.files;
    figures.not_inspected += file.verdicts.size();
  });
  catalogue.eachDocument("", [&](const DocumentEntry& document) {
    figures.all.add(document);
    figures.types[document.type].add(document);
    figures.labels[document.label].add(document);
    figures.selections[std::string(selectionName(document.selection))].add(document);
  });
  figures.common_texts = catalogue.commonTexts().size();
  figures.common_signatures = catalogue.commonSignatures().size();
  figures.unsettled = catalogue.unsettled().size();
  figures.last_id = catalogue.lastId();
  std::error_code missing;
  const uint64_t bytes = fs::file_size(strongTable(home / kIndexName), missing);
  if (!missing) figures.table_bytes = bytes;
  return figures;
}

Json record(const Sum& sum) {
  return {{"documents", sum.documents}, {"signatures", sum.signatures}, {"bytes", sum.bytes}};
}

Json records(const std::map<std::string, Sum>& sums) {
  Json all = Json::object();
  for (const auto& [name, sum] : sums) all[shownName(name)] = record(sum);
  return all;
}

void printJson(const Figures& figures) {
  const Json all = {{"files", figures.files},
                    {"not_inspected", figures.not_inspected},
                    {"all", record(figures.all)},
                    {"by_type", records(figures.types)},
                    {"by_label", records(figures.labels)},
                    {"by_selection", records(figures.selections)},
                    {"common_texts", figures.common_texts},
                    {"common_signatures", figures.common_signatures},
                    {"unsettled", figures.unsettled},
                    {"table_bytes", figures.table_bytes},
                    {"table_bytes_limit", kTableLimit},
                    {"last_id", figures.last_id},
                    {"id_limit", kIdLimit}};
  fmt::print("{}\n", all.dump());
}

void print(const std::string& name, const Sum& sum) {
  fmt::print("{:<48} {:>9} {:>11} {:>13}\n", name, sum.documents, sum.signatures, sum.bytes);
}

void print(const char* what, const std::map<std::string, Sum>& sums) {
  for (const auto& [name, sum] : sums) {
    print(fmt::format("  {} {}", what, name.empty() ? "(none)" : shownName(name)), sum);
  }
}

void printText(const Figures& figures) {
  fmt::print("{:<48} {:>9} {:>11} {:>13}\n", "", "documents", "signatures", "bytes");
  print("all", figures.all);
  print("type", figures.types);
  print("label", figures.labels);
  print("selection", figures.selections);
  fmt::print("\n{} files, {} not inspected\n", figures.files, figures.not_inspected);
  fmt::print("{} common texts with {} signatures\n", figures.common_texts,
             figures.common_signatures);
  if (figures.unsettled) {
    fmt::print("{} documents wait for the next 'tessera index'\n", figures.unsettled);
  }
  fmt::print("search table: {} bytes, {:.1f} % of its limit\n", figures.table_bytes,
             100.0 * static_cast<double>(figures.table_bytes) / kTableLimit);
  fmt::print("file IDs: {} handed out, {:.1f} % of all\n", figures.last_id,
             100.0 * static_cast<double>(figures.last_id) / kIdLimit);
}

}  // namespace

int statsCommand(const CommonOptions& common, const StatsOptions& options) {
  const Figures figures = collect(*openCatalogue(common.home), common.home);
  if (options.json) {
    printJson(figures);
  } else {
    printText(figures);
  }
  return kDone;
}

}  // namespace tool
