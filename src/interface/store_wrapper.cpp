// The care of the store of tessera_store.h: the index library's verification and
// rebuilding, on the index of the exports. What is known only here is added, the
// size from which on AddDocSignature() refuses.
// Tests: tests/unit/interface/store_test.cpp.
#define LOG_TAG "TESSERA_MODULE"

#include <optional>
#include <string>

#include "addition_limit.h"
#include "config_lines.h"
#include "index_rebuild.h"
#include "index_verify.h"
#include "log.h"
#include "meta_data.h"
#include "status.h"
#include "table_format.h"
#include "tessera_store.h"
#include "vn_config.h"

namespace {

using dlp_btree::Finding;
using dlp_btree::Remedy;
using dlp_btree::Severity;
using dlp_btree::Verification;

constexpr char kIndexDirectory[] = "sig_index_DB";

std::optional<IndexSysConfiguration> loadConfiguration() {
  IndexSysConfiguration configuration;
  if (configuration.Load(tessera::kConfigFileName) != kOk) return std::nullopt;
  return configuration;
}

int severityOf(const Finding& finding) {
  switch (finding.severity) {
    case Severity::kNote:
      return TESSERA_FINDING_NOTE;
    case Severity::kWarning:
      return TESSERA_FINDING_WARNING;
    case Severity::kDamage:
      break;
  }
  return TESSERA_FINDING_ERROR;
}

int remedyOf(const Finding& finding) {
  switch (finding.remedy) {
    case Remedy::kNone:
      break;
    case Remedy::kOpenForWriting:
      return TESSERA_REMEDY_OPEN;
    case Remedy::kRebuildTables:
    case Remedy::kRebuildMetaData:  // done on the way
      return TESSERA_REMEDY_REBUILD_TABLES;
    case Remedy::kRebuildTrees:
      return TESSERA_REMEDY_REBUILD_TREES;
  }
  return TESSERA_REMEDY_NONE;
}

bool isTable(const std::string& name, const IndexSysConfiguration& configuration) {
  for (const char* const suffix :
       {kWeakTableSuffix, kStrongTableSuffix, kWeakMetaSuffix, kStrongMetaSuffix}) {
    if (name == configuration.search_table_fname + std::string(suffix)) return true;
  }
  return false;
}

tessera_index_figures figuresOf(const Verification& v, const IndexSysConfiguration& configuration) {
  tessera_index_figures figures = {};
  figures.documents = v.documents;
  figures.postings = v.postings;
  figures.signatures = v.signatures;
  figures.used_blocks = v.used_blocks;
  figures.free_blocks = v.free_blocks;
  figures.commits = v.transaction;
  for (const Verification::FileSize& file : v.files) {
    if (file.name == kMetaDataFileName) continue;
    (isTable(file.name, configuration) ? figures.table_bytes : figures.tree_bytes) += file.bytes;
  }
  figures.strong_table_bytes = v.strong_table_bytes;
  figures.match_limit = dlp_btree::kMatchableTableBytes;
  if (configuration.search_table_fname + std::string(kStrongTableSuffix) == kLimitedTable) {
    figures.addition_limit = maxStblSize();
  }
  return figures;
}

std::optional<Finding> additionFinding(const tessera_index_figures& figures) {
  const uint64_t bytes = figures.strong_table_bytes;
  const uint64_t limit = figures.addition_limit;
  if (limit == 0 || bytes * 4 < limit * 3) return std::nullopt;
  return Finding{Severity::kWarning, Remedy::kNone, kLimitedTable,
                 bytes >= limit ? "has reached the size from which on no document is added"
                                : "fills " + std::to_string(bytes * 100 / limit) +
                                      " % of the size from which on no document is added"};
}

bool indexIsInUse(const IndexSysConfiguration& configuration) {
  return dlp_btree::WriterBar(kIndexDirectory, configuration).indexIsInUse();
}

int rebuilt(int status, const IndexSysConfiguration& configuration) {
  switch (status) {
    case kOk:
      return TESSERA_STORE_OK;
    case kErrState:
    case VN_NO_INDEX_DATA_ERR:
    case kErrStrongTable:
      return TESSERA_STORE_DAMAGED;
    case kErrFile:
      if (indexIsInUse(configuration)) return TESSERA_STORE_IN_USE;
      break;
    default:
      break;
  }
  return TESSERA_STORE_FAILED;
}

}  // namespace

extern "C" int tessera_verify_index(tessera_finding_sink sink, void* context,
                                    tessera_index_figures* figures) try {
  if (figures != nullptr) *figures = {};
  const auto configuration = loadConfiguration();
  if (!configuration) return TESSERA_STORE_FAILED;
  const dlp_btree::WriterBar bar(kIndexDirectory, *configuration);
  if (bar.indexIsInUse()) {
    LOG_ERROR("the index is open for writing");
    return TESSERA_STORE_IN_USE;
  }
  Verification v = dlp_btree::verifyIndex(kIndexDirectory, *configuration);
  const tessera_index_figures known = figuresOf(v, *configuration);
  if (auto finding = additionFinding(known)) v.findings.push_back(*finding);
  if (figures != nullptr) *figures = known;
  if (sink != nullptr) {
    for (const Finding& finding : v.findings) {
      const tessera_finding told = {severityOf(finding), remedyOf(finding), finding.subject.c_str(),
                                    finding.text.c_str()};
      sink(&told, context);
    }
  }
  return v.isDamaged() ? TESSERA_STORE_DAMAGED : TESSERA_STORE_OK;
} catch (...) {
  return TESSERA_STORE_FAILED;
}

extern "C" int tessera_rebuild_tables(void) try {
  const auto configuration = loadConfiguration();
  if (!configuration) return TESSERA_STORE_FAILED;
  return rebuilt(dlp_btree::rebuildTables(kIndexDirectory, *configuration), *configuration);
} catch (...) {
  return TESSERA_STORE_FAILED;
}

extern "C" int tessera_rebuild_trees(int source) try {
  if (source != TESSERA_FROM_TREE && source != TESSERA_FROM_TABLE) return TESSERA_STORE_FAILED;
  const auto configuration = loadConfiguration();
  if (!configuration) return TESSERA_STORE_FAILED;
  const auto from = source == TESSERA_FROM_TREE ? dlp_btree::RebuildSource::kNewestTree
                                                : dlp_btree::RebuildSource::kStrongTable;
  return rebuilt(dlp_btree::rebuildTrees(kIndexDirectory, *configuration, from), *configuration);
} catch (...) {
  return TESSERA_STORE_FAILED;
}
