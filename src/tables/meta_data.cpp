#define LOG_TAG "fpe_sig_index"

#include "meta_data.h"

#include "little_endian.h"
#include "log.h"
#include "paths.h"
#include "platform.h"
#include "status.h"
#include "vn_win32_charset_chg.h"

void encodeMetaData(const MetaData& meta, unsigned char (*record)[kMetaDataBytes]) {
  storeLittle64(*record, static_cast<uint64_t>(meta.fid_base));
  storeLittle32(*record + 8, meta.sig_gen_level);
}

MetaData decodeMetaData(const unsigned char (&record)[kMetaDataBytes]) {
  return {static_cast<int64_t>(loadLittle64(record)), loadLittle32(record + 8)};
}

namespace dlp_btree {

int load_meta_data(const std::string& directory, const char* file_name, MetaData* meta) {
  const std::string path = filePath(directory, file_name);
  if (!vn_exists(path.c_str())) {
    LOG_ERROR("meta data file dosn't exist");
    return kErrState;
  }
  const auto file = platform::current().open(path.c_str(), platform::OpenMode::kRead);
  if (!file) {
    LOG_ERROR("open meta data file (r) fail");
    return kErrFile;
  }
  unsigned char record[kMetaDataBytes];
  if (file->read(record, sizeof record) != static_cast<int64_t>(sizeof record)) {
    LOG_ERROR("read meta data file fail");
    return kErrFile;
  }
  *meta = decodeMetaData(record);
  return kOk;
}

int save_meta_data(const std::string& directory, const char* file_name, const MetaData& meta) {
  const std::string path = filePath(directory, file_name);
  platform::System& system = platform::current();
  const auto file = system.open(path.c_str(), platform::OpenMode::kUpdate);
  if (!file) {
    LOG_ERROR("open meta data file (w) fail");
    return kOk;
  }
  unsigned char record[kMetaDataBytes];
  encodeMetaData(meta, &record);
  if (!file->write(record, sizeof record) || !file->truncate(sizeof record) || !file->sync() ||
      !system.syncDirectory(directoryOf(path).c_str())) {
    LOG_ERROR("write meta data file fail");
  }
  return kOk;
}

}  // namespace dlp_btree
