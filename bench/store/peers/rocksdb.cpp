// RocksDB fed with sorted files: each batch becomes one file for each order,
// written outside the database and taken into it in one step.
#include <rocksdb/db.h>
#include <rocksdb/sst_file_writer.h>

#include <cstring>

#include "posting_store.h"

namespace {

class RocksDb final : public SortedBatchStore {
 public:
  explicit RocksDb(const std::string& directory) : directory_(directory) {
    options_.create_if_missing = true;
    options_.create_missing_column_families = true;
    options_.compression = rocksdb::kNoCompression;  // signatures have no pattern
    const std::vector<rocksdb::ColumnFamilyDescriptor> orders = {
        {rocksdb::kDefaultColumnFamilyName, options_},
        {"sig_fid", options_},
        {"src_fid", options_}};
    rocksdb::DB* database = nullptr;
    require(rocksdb::DB::Open(options_, directory, orders, &orders_, &database).ok(), "DB::Open");
    database_.reset(database);
  }
  ~RocksDb() override {
    for (rocksdb::ColumnFamilyHandle* const order : orders_) {
      require(database_->DestroyColumnFamilyHandle(order).ok(), "DestroyColumnFamilyHandle");
    }
  }
  RocksDb(const RocksDb&) = delete;
  RocksDb& operator=(const RocksDb&) = delete;

  void insert(const std::vector<Key>& fid_sig, const std::vector<Key>& sig_fid,
              const std::vector<SourceKey>& src_fid) override {
    std::vector<rocksdb::IngestExternalFileArg> files(3);
    writeFile(0, fid_sig, &files[0]);
    writeFile(1, sig_fid, &files[1]);
    writeFile(2, src_fid, &files[2]);
    require(database_->IngestExternalFiles(files).ok(), "IngestExternalFiles");
  }

  void writeTables(const std::string& directory) override {
    TableFiles tables(directory);
    rocksdb::ReadOptions options;
    options.fill_cache = false;
    options.readahead_size = size_t{1} << 20;
    const std::unique_ptr<rocksdb::Iterator> all(database_->NewIterator(options, orders_[1]));
    for (all->SeekToFirst(); all->Valid(); all->Next()) {
      Key key;
      std::memcpy(key.bytes, all->key().data(), sizeof key.bytes);
      tables.append(key);
    }
    require(all->status().ok(), "Next");
    tables.finish();
  }

 private:
  template <typename Record>
  void writeFile(size_t order, const std::vector<Record>& records,
                 rocksdb::IngestExternalFileArg* arg) {
    const std::string path = directory_ + "/batch" + std::to_string(order);
    rocksdb::SstFileWriter writer(rocksdb::EnvOptions(), options_, orders_[order]);
    require(writer.Open(path).ok(), "SstFileWriter::Open");
    for (const Record& record : records) {
      const rocksdb::Slice key(reinterpret_cast<const char*>(record.bytes), sizeof record.bytes);
      require(writer.Put(key, rocksdb::Slice()).ok(), "SstFileWriter::Put");
    }
    require(writer.Finish().ok(), "SstFileWriter::Finish");
    arg->column_family = orders_[order];
    arg->external_files = {path};
    arg->options.move_files = true;
  }

  const std::string directory_;
  rocksdb::Options options_;
  std::unique_ptr<rocksdb::DB> database_;
  std::vector<rocksdb::ColumnFamilyHandle*> orders_;
};

}  // namespace

// Not durable: the program swallows the syncs.
std::unique_ptr<PostingStore> openRocksDb(const std::string& directory, bool) {
  return std::make_unique<RocksDb>(directory);
}
