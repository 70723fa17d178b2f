// "tessera export": the catalogue or the index as a table for other programs.
// Tests: tests/tool/store_verbs_test.py.
#include <fmt/format.h>

#include "cli/names.h"
#include "commands.h"
#include "store/home.h"
#include "store/records.h"
#include "store/store.h"
#include "store/strong_table.h"

namespace tool {

namespace {

using Format = ExportOptions::Format;

void exportCatalogue(const Catalogue& catalogue, Format format) {
  if (format == Format::kCsv) {
    fmt::print("id,path,member,size,sha256,type,label,selection,signatures,indexed_at\r\n");
  }
  catalogue.eachDocument("", [&](const DocumentEntry& document) {
    if (format == Format::kJson) {
      fmt::print("{}\n", documentRecord(document).dump());
      return;
    }
    fmt::print("{}",
               csvLine({fmt::to_string(document.id), shownName(document.path),
                        shownName(document.member), fmt::to_string(document.size),
                        hexadecimal(document.sha256), shownName(document.type),
                        shownName(document.label), std::string(selectionName(document.selection)),
                        fmt::to_string(document.signatures), timeText(document.when)}));
  });
}

void exportTables(const std::filesystem::path& home, const Catalogue& catalogue, Format format) {
  requireFinishedRun(home, catalogue);
  requireIndex(home);
  const DirectoryLock tables(home / kIndexName, DirectoryLock::Kind::kShared);
  if (format == Format::kCsv) fmt::print("signature,id\r\n");
  eachPosting(home / kIndexName, [&](const Signature& signature, int64_t id) {
    if (format == Format::kJson) {
      fmt::print("{{\"signature\":\"{}\",\"id\":{}}}\n", hexadecimal(signature), id);
    } else {
      fmt::print("{},{}\r\n", hexadecimal(signature), id);
    }
  });
}

}  // namespace

int exportCommand(const CommonOptions& common, const ExportOptions& options) {
  const auto catalogue = openCatalogue(common.home);
  if (options.what == ExportOptions::What::kCatalogue) {
    exportCatalogue(*catalogue, options.format);
  } else {
    exportTables(common.home, *catalogue, options.format);
  }
  return kDone;
}

}  // namespace tool
