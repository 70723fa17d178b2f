// The engine's configuration, and the loading of the tables.

#define LOG_TAG "fpe_sig_search"

#include "vn_fid_search_engine.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "log.h"
#include "platform.h"
#include "status.h"
#include "vn_search_table_data.h"

namespace {

constexpr char kTableDirectory[] = "sig_index_DB";
constexpr size_t kLongestName = 31;

static_assert(kLongestName + sizeof kWeakMetaSuffix <= kTableNameSize, "every file name fits");
static_assert(sizeof kTableDirectory + kTableNameSize <= kTablePathSize, "every path fits");

bool readMetaData(platform::File* file, MetaData* meta) {
  unsigned char record[kMetaDataBytes];
  if (!readWhole(file, record, sizeof record)) return false;
  *meta = decodeMetaData(record);
  return true;
}

// The table's entries as the directory has them, modulo 2^32.
uint32_t sumOfRanges(const PrefixRange* ranges) {
  uint32_t sum = 0;
  for (uint32_t prefix = 0; prefix < kPrefixCount; ++prefix) {
    sum += ranges[prefix].end - ranges[prefix].start;
  }
  return sum;
}

// Entries whose sum is right may still be wrong one by one.
bool rangesInside(const PrefixRange* ranges, uint32_t ele_num) {
  return std::all_of(ranges, ranges + kPrefixCount, [ele_num](const PrefixRange& range) {
    return range.start <= range.end && range.end <= ele_num;
  });
}

// Null when memory is out: nothing may be thrown past a mutex that is held.
std::shared_ptr<LoadedTables> newTables() {
  try {
    return std::make_shared<LoadedTables>();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

}  // namespace

int FidIndexSearchEngine::setConfig(const IndexSysConfiguration& configuration) {
  return setConfig(configuration, configuration.search_table_fname);
}

int FidIndexSearchEngine::setConfig(const IndexSysConfiguration& configuration,
                                    const char* search_table_fname) {
  release();
  configured_ = 0;
  sig_length_ = configuration.sig_length;
  max_sig_num_load_ = configuration.max_sig_num_load;
  max_ele_num_load_ = configuration.max_ele_num_load;
  if (*search_table_fname == '\0') {
    LOG_ERROR("invalid search table file name");
    return kErrTableName;
  }
  if (std::strlen(search_table_fname) > kLongestName) {
    LOG_ERROR("search table file name %s too long ", search_table_fname);
    return kErrTableName;
  }
  std::snprintf(wtbl_name_, sizeof wtbl_name_, "%s%s", search_table_fname, kWeakTableSuffix);
  std::snprintf(wmeta_name_, sizeof wmeta_name_, "%s%s", search_table_fname, kWeakMetaSuffix);
  std::snprintf(stbl_name_, sizeof stbl_name_, "%s%s", search_table_fname, kStrongTableSuffix);
  std::snprintf(smeta_name_, sizeof smeta_name_, "%s%s", search_table_fname, kStrongMetaSuffix);
  configured_ = 1;
  return kOk;
}

// The length test looks at what the wmeta path holds now, not at what it will
// hold: kept as it is. What is written is bounded all the same.
int FidIndexSearchEngine::gen_search_table_path(const char* directory, TablePath* wtbl,
                                                TablePath* wmeta, TablePath* stbl,
                                                TablePath* smeta) const {
  if (std::strlen(directory) + std::strlen(wmeta_path_) + 2 > kTablePathSize) {
    LOG_ERROR("search table path too long");
    return kErrParam;
  }
  const struct {
    TablePath* path;
    const char* name;
  } destinations[] = {
      {wtbl, wtbl_name_}, {wmeta, wmeta_name_}, {stbl, stbl_name_}, {smeta, smeta_name_}};
  for (const auto& [path, name] : destinations) {
    if (path != nullptr) std::snprintf(*path, sizeof *path, "%s/%s", directory, name);
  }
  return kOk;
}

int FidIndexSearchEngine::Init(MetaData* meta) {
  if (configured_ == 0) {
    LOG_ERROR("Init search engine before configuring it");
    return kErrState;
  }
  if (initialised()) release();
  int ret =
      gen_search_table_path(kTableDirectory, &wtbl_path_, &wmeta_path_, &stbl_path_, &smeta_path_);
  if (ret != kOk) {
    LOG_ERROR("gen_search_table_path fail");
    return ret;
  }
  platform::System& system = platform::current();

  auto file = system.open(wtbl_path_, platform::OpenMode::kRead);
  if (!file) {
    LOG_ERROR("open file %s fail", wtbl_path_);
    return kErrFile;
  }
  uint32_t sig_num = 0;
  ret = chk_sig_num_in_weak_search_table(file.get(), &sig_num);
  if (ret != kOk) {
    LOG_ERROR("get the sig num in file %s fail", wtbl_path_);
    return ret;
  }
  if (sig_num == 0) {
    LOG_ERROR("weak search table %s empty", wtbl_path_);
    return kErrWeakTable;
  }

  const auto tables = newTables();
  auto weak_sig_block = mallocArray<PrefixRange>(kPrefixCount);
  if (!tables || !weak_sig_block) {
    LOG_ERROR("no mem for weak_sig_block");
    return kErrMem;
  }
  file = system.open(wmeta_path_, platform::OpenMode::kRead);
  if (!file) {
    LOG_ERROR("open file %s fail", wmeta_path_);
    return kErrFile;
  }
  if (!readMetaData(file.get(), meta)) {
    LOG_ERROR("read file (mdata) %s fail", wmeta_path_);
    return kErrFile;
  }
  if (!readWhole(file.get(), weak_sig_block.get(), kPrefixDirectoryBytes)) {
    LOG_ERROR("read file %s fail", wmeta_path_);
    return kErrFile;
  }
  if (sumOfRanges(weak_sig_block.get()) != sig_num) {
    LOG_ERROR("sig nums from weak search table and its meta info differ");
    return kErrWeakTable;
  }

  file = system.open(stbl_path_, platform::OpenMode::kRead);
  if (!file) {
    LOG_ERROR("open file %s fail", stbl_path_);
    return kErrFile;
  }
  uint32_t ele_num = 0;
  ret = chk_search_table_ele_num(file.get(), &ele_num);
  if (ret != kOk) {
    LOG_ERROR("get the ele num in file %s fail", stbl_path_);
    return ret;
  }
  if (ele_num == 0) {
    LOG_ERROR("strong search table %s empty", stbl_path_);
    return kErrWeakTable;
  }

  auto strong_sig_block = mallocArray<PrefixRange>(kPrefixCount);
  if (!strong_sig_block) {
    LOG_ERROR("no mem for strong_sig_block");
    return kErrMem;
  }
  file = system.open(smeta_path_, platform::OpenMode::kRead);
  if (!file) {
    LOG_ERROR("open file %s fail", smeta_path_);
    return kErrFile;
  }
  MetaData strong_meta;
  if (!readMetaData(file.get(), &strong_meta)) {
    LOG_ERROR("read file (mdata) %s fail", smeta_path_);
    return kErrFile;
  }

  // Tables that were not written together: reported, but no reason not to start.
  // An empty directory keeps the search from mixing up their file IDs.
  bool consistent = true;
  if (meta->fid_base != strong_meta.fid_base) {
    LOG_ERROR("inconsistent fid_base (%d -- %d)", static_cast<int>(meta->fid_base),
              static_cast<int>(strong_meta.fid_base));
    consistent = false;
  } else if (meta->sig_gen_level != strong_meta.sig_gen_level) {
    LOG_ERROR("inconsistent sig_gen_level (%d -- %d)", static_cast<int>(meta->sig_gen_level),
              static_cast<int>(strong_meta.sig_gen_level));
    consistent = false;
  }
  if (!consistent) {
    std::memset(strong_sig_block.get(), 0, kPrefixDirectoryBytes);
  } else if (!readWhole(file.get(), strong_sig_block.get(), kPrefixDirectoryBytes)) {
    LOG_ERROR("read file %s fail", smeta_path_);
    return kErrFile;
  } else if (sumOfRanges(strong_sig_block.get()) != ele_num ||
             !rangesInside(strong_sig_block.get(), ele_num)) {
    LOG_ERROR("element nums from strong search table and its meta info differ");
    return kErrStrongTable;
  }

  tables->meta = *meta;
  tables->ele_num = ele_num;
  tables->weak_sig_block = std::move(weak_sig_block);
  tables->spread = Spread(strong_sig_block.get());
  tables->strong_sig_block = std::move(strong_sig_block);
  tables_ = tables;
  return kOk;
}

int FidIndexSearchEngine::getSearchTableMetaData(MetaData* meta) const {
  if (configured_ == 0) {
    LOG_ERROR("Init search engine before configuring it");
    return kErrState;
  }
  TablePath path;
  const int ret = gen_search_table_path(kTableDirectory, nullptr, &path, nullptr, nullptr);
  if (ret != kOk) {
    LOG_ERROR("gen_search_table_path fail");
    return ret;
  }
  const auto file = platform::current().open(path, platform::OpenMode::kRead);
  if (!file) {
    LOG_ERROR("open file %s fail", path);
    return kErrFile;
  }
  if (!readMetaData(file.get(), meta)) {
    LOG_ERROR("read file (mdata) %s fail", path);
    return kErrFile;
  }
  return kOk;
}

void FidIndexSearchEngine::release() {
  tables_.reset();
  wtbl_path_[0] = wmeta_path_[0] = stbl_path_[0] = smeta_path_[0] = '\0';
}

// Stores the elements of the strong table as it is open now. Returns 0; -5 when
// it has no proper size, or another one than at the loading.
int FidIndexSearchEngine::countElements(platform::File* strong_table, uint32_t* ele_num) const {
  const int ret = chk_search_table_ele_num(strong_table, ele_num);
  if (ret != kOk) return ret;
  return tables_ && *ele_num == tables_->ele_num ? kOk : kErrFile;
}
