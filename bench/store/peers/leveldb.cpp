// LevelDB: a batch is one WriteBatch, in which every order is sorted. A leading
// byte tells the orders apart.
#include <leveldb/db.h>
#include <leveldb/write_batch.h>

#include <cstring>

#include "posting_store.h"

namespace {

class LevelDb final : public SortedBatchStore {
 public:
  LevelDb(const std::string& directory, bool durable) : durable_(durable) {
    leveldb::Options options;
    options.create_if_missing = true;
    options.compression = leveldb::kNoCompression;  // signatures have no pattern
    leveldb::DB* database = nullptr;
    require(leveldb::DB::Open(options, directory, &database).ok(), "DB::Open");
    database_.reset(database);
  }

  void insert(const std::vector<Key>& fid_sig, const std::vector<Key>& sig_fid,
              const std::vector<SourceKey>& src_fid) override {
    leveldb::WriteBatch batch;
    put('f', fid_sig, &batch);
    put('g', sig_fid, &batch);
    put('s', src_fid, &batch);
    leveldb::WriteOptions options;
    options.sync = durable_;
    require(database_->Write(options, &batch).ok(), "Write");
  }

  void writeTables(const std::string& directory) override {
    TableFiles tables(directory);
    leveldb::ReadOptions options;
    options.fill_cache = false;
    const std::unique_ptr<leveldb::Iterator> all(database_->NewIterator(options));
    for (all->Seek("g"); all->Valid() && all->key()[0] == 'g'; all->Next()) {
      Key key;
      std::memcpy(key.bytes, all->key().data() + 1, sizeof key.bytes);
      tables.append(key);
    }
    require(all->status().ok(), "Next");
    tables.finish();
  }

 private:
  template <typename Record>
  static void put(char order, const std::vector<Record>& records, leveldb::WriteBatch* batch) {
    char bytes[1 + sizeof(Record)];
    bytes[0] = order;
    for (const Record& record : records) {
      std::memcpy(bytes + 1, record.bytes, sizeof record.bytes);
      batch->Put(leveldb::Slice(bytes, sizeof bytes), leveldb::Slice());
    }
  }

  const bool durable_;
  std::unique_ptr<leveldb::DB> database_;
};

}  // namespace

std::unique_ptr<PostingStore> openLevelDb(const std::string& directory, bool durable) {
  return std::make_unique<LevelDb>(directory, durable);
}
