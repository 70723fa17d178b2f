// The half of the verification that looks at the search tables: sizes, order and
// directories of the tables alone, then each element against the sig-fid tree.
#include <algorithm>
#include <cstring>
#include <iterator>
#include <optional>
#include <tuple>
#include <vector>

#include "index_verify_parts.h"
#include "meta_data.h"
#include "record_scan.h"
#include "table_format.h"

namespace dlp_btree {

namespace {

constexpr uint64_t kMetaFileBytes = kMetaDataBytes + kPrefixDirectoryBytes;

constexpr uint64_t kUnloadableBytes = UINT32_MAX;  // the loading measures by 32-bit numbers

static_assert(sizeof(SigFidRecord) == sizeof(StrongElement), "an element is a record");

struct PrefixDirectory {
  std::vector<PrefixRange> ranges = std::vector<PrefixRange>(kPrefixCount);
  uint32_t count = 0;

  void add(const Signature& signature) {
    PrefixRange& range = ranges[signaturePrefix(signature)];
    if (range.end == 0) range.start = count;
    range.end = ++count;
  }
};

struct Tables {
  std::string paths[4];
  IndexFile files[4];
};
enum TableFile { kWeak, kStrong, kWeakMeta, kStrongMeta };

// Reads both tables side by side and fills their directories. False, and
// reported, at the first breach.
bool scanTables(const Tables& tables, SigFidTree* tree, PrefixDirectory* weak,
                PrefixDirectory* strong, Verification* v) {
  const auto breach = [&](TableFile file, const std::string& text) {
    reportDamage(v, Remedy::kRebuildTables, tables.paths[file], text);
    return false;
  };
  const std::string not_of_the_trees = " is not that of the trees; the tables are stale or damaged";
  constexpr SigFidLess kLess;
  TableScan<Signature> weak_scan(tables.files[kWeak].file.get());
  TableScan<SigFidRecord> strong_scan(tables.files[kStrong].file.get());
  std::optional<TreeScan<SigFidRecord, SigFidLess>> tree_scan;
  if (tree != nullptr) tree_scan.emplace(tree);
  SigFidRecord before = {};
  const SigFidRecord* element;
  while ((element = strong_scan.next()) != nullptr) {
    const std::string place = "element " + number(strong->count);
    if (strong->count > 0 && !kLess(before, *element)) {
      return breach(kStrong, place + " is out of order");
    }
    if (strong->count == 0 || !(before.signature == element->signature)) {
      const Signature* const signature = weak_scan.next();
      if (signature == nullptr || !(*signature == element->signature)) {
        return breach(kWeak, "element " + number(weak->count) + " is not that of the strong table");
      }
      weak->add(*signature);
    }
    const SigFidRecord* const record = tree_scan ? tree_scan->next() : element;
    if (record == nullptr || kLess(*record, *element) || kLess(*element, *record)) {
      breach(kStrong, place + not_of_the_trees);
      tree_scan.reset();  // go on with the table alone
    }
    strong->add(element->signature);
    before = *element;
  }
  if (uint64_t{strong->count} * sizeof(SigFidRecord) != tables.files[kStrong].bytes) {
    return breach(kStrong, "cannot be read past element " + number(strong->count));
  }
  if (uint64_t{weak->count} * sizeof(Signature) != tables.files[kWeak].bytes) {
    return breach(kWeak, "has more elements than the strong table has signatures");
  }
  if (tree_scan && tree_scan->next() != nullptr) {
    breach(kStrong, "its end after element " + number(strong->count) + not_of_the_trees);
  }
  return true;
}

void verifyMetaFiles(const Tables& tables, const PrefixDirectory& weak,
                     const PrefixDirectory& strong, const std::string& meta_path,
                     const unsigned char* meta_data, Verification* v) {
  std::vector<unsigned char> weak_meta(kMetaFileBytes);
  std::vector<unsigned char> strong_meta(kMetaFileBytes);
  for (const auto& [file, directory, content] :
       {std::tuple(kWeakMeta, &weak, &weak_meta), std::tuple(kStrongMeta, &strong, &strong_meta)}) {
    const std::string& path = tables.paths[file];
    if (!readWhole(tables.files[file].file.get(), content->data(), content->size())) {
      reportDamage(v, Remedy::kRebuildTables, path, "cannot be read");
      return;
    }
    if (std::memcmp(content->data() + kMetaDataBytes, directory->ranges.data(),
                    kPrefixDirectoryBytes) != 0) {
      reportDamage(v, Remedy::kRebuildTables, path, "has another prefix directory than its table");
    }
  }
  if (std::memcmp(weak_meta.data(), strong_meta.data(), kMetaDataBytes) != 0) {
    reportDamage(v, Remedy::kRebuildTables, tables.paths[kStrongMeta],
                 "has another meta data record than the weak meta file: nothing is found");
  } else if (meta_data != nullptr &&
             std::memcmp(weak_meta.data(), meta_data, kMetaDataBytes) != 0) {
    reportDamage(v, Remedy::kRebuildTables, meta_path, "is not the record of the meta files");
  }
}

void verifyReach(const std::string& path, uint64_t bytes, Verification* v) {
  if (bytes >= kUnloadableBytes) {
    reportDamage(v, Remedy::kNone, path, "of 4 GiB and more is not loaded");
  } else if (bytes > kMatchableTableBytes) {
    reportDamage(v, Remedy::kNone, path, "past 2 GiB: matches of what lies beyond fail");
  } else if (bytes >= kMatchableTableBytes / 4 * 3) {
    report(v, Severity::kWarning, Remedy::kNone, path,
           "fills " + number(bytes * 100 / kMatchableTableBytes) +
               " % of the 2 GiB that can be matched");
  }
}

}  // namespace

void verifyTables(const std::string& base_name, SigFidTree* tree, const std::string& meta_path,
                  const unsigned char* meta_data, Verification* v) {
  Tables tables = {{base_name + kWeakTableSuffix, base_name + kStrongTableSuffix,
                    base_name + kWeakMetaSuffix, base_name + kStrongMetaSuffix},
                   {}};
  if (std::none_of(std::begin(tables.paths), std::end(tables.paths),
                   [](const std::string& path) { return vn_exists(path.c_str()); })) {
    report(v, Severity::kNote, Remedy::kNone, base_name,
           "no tables: they are written when an index is closed");
    return;
  }
  for (size_t i = 0; i < 4; ++i) {
    tables.files[i] = openFile(tables.paths[i], Remedy::kRebuildTables, v);
  }
  const auto& files = tables.files;
  if (!std::all_of(std::begin(files), std::end(files),
                   [](const IndexFile& f) { return f.file != nullptr; })) {
    return;
  }
  v->strong_table_bytes = files[kStrong].bytes;
  verifyReach(tables.paths[kStrong], files[kStrong].bytes, v);
  if (tree == nullptr) {
    report(v, Severity::kNote, Remedy::kNone, base_name, "tables not compared with the trees");
  }
  if (std::all_of(std::begin(files), std::end(files),
                  [](const IndexFile& f) { return f.bytes == 0; })) {
    if (tree != nullptr && tree->size() > 0) {
      reportDamage(v, Remedy::kRebuildTables, base_name,
                   "tables of an empty index, which this is not; they are stale or damaged");
    }
    return;
  }
  bool sizes_sound = true;
  const uint64_t units[] = {sizeof(Signature), sizeof(SigFidRecord), kMetaFileBytes,
                            kMetaFileBytes};
  for (size_t i = 0; i < 4; ++i) {
    const bool sound = i < kWeakMeta ? files[i].bytes % units[i] == 0 : files[i].bytes == units[i];
    if (sound) continue;
    reportDamage(v, Remedy::kRebuildTables, tables.paths[i],
                 "is cut: a size of " + number(files[i].bytes));
    sizes_sound = false;
  }
  PrefixDirectory weak;
  PrefixDirectory strong;
  if (sizes_sound && scanTables(tables, tree, &weak, &strong, v)) {
    verifyMetaFiles(tables, weak, strong, meta_path, meta_data, v);
  }
}

}  // namespace dlp_btree
