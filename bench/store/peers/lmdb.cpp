// LMDB with packed duplicates: the first two bytes of a record are the key and the
// rest its duplicates of fixed size, which lie in their pages without heads. Of
// keys of 0, 1, 2, 4 and 8 bytes these made the fastest loads of five million
// postings and the smallest file. Batches come sorted, so that neighbours meet in
// one page, or in the order of arrival.
#include <lmdb.h>

#include <cstring>

#include "posting_store.h"

namespace {

constexpr size_t kKeyBytes = 2;
constexpr size_t kMapBytes = size_t{8} << 30;

class Lmdb {
 public:
  Lmdb(const std::string& directory, bool durable) {
    require(mdb_env_create(&environment_) == 0 && mdb_env_set_maxdbs(environment_, 3) == 0 &&
                mdb_env_set_mapsize(environment_, kMapBytes) == 0 &&
                mdb_env_open(environment_, directory.c_str(), durable ? 0 : MDB_NOSYNC, 0600) == 0,
            "mdb_env_open");
    begin(false);
    constexpr unsigned kFlags = MDB_CREATE | MDB_DUPSORT | MDB_DUPFIXED;
    require(mdb_dbi_open(transaction_, "fid_sig", kFlags, &fid_sig_) == 0 &&
                mdb_dbi_open(transaction_, "sig_fid", kFlags, &sig_fid_) == 0 &&
                mdb_dbi_open(transaction_, "src_fid", kFlags, &src_fid_) == 0,
            "mdb_dbi_open");
    commit();
  }
  ~Lmdb() { mdb_env_close(environment_); }
  Lmdb(const Lmdb&) = delete;
  Lmdb& operator=(const Lmdb&) = delete;

  void begin(bool read_only) {
    require(mdb_txn_begin(environment_, nullptr, read_only ? MDB_RDONLY : 0, &transaction_) == 0,
            "mdb_txn_begin");
  }
  void commit() {
    require(mdb_txn_commit(transaction_) == 0, "mdb_txn_commit");
    transaction_ = nullptr;
  }
  bool inTransaction() const { return transaction_ != nullptr; }

  MDB_cursor* cursor(MDB_dbi database) {
    MDB_cursor* cursor;
    require(mdb_cursor_open(transaction_, database, &cursor) == 0, "mdb_cursor_open");
    return cursor;
  }

  template <typename Record>
  static void put(MDB_cursor* cursor, const Record& record, unsigned flags) {
    auto* const bytes = const_cast<unsigned char*>(record.bytes);
    MDB_val key = {kKeyBytes, bytes};
    MDB_val data = {sizeof record.bytes - kKeyBytes, bytes + kKeyBytes};
    require(mdb_cursor_put(cursor, &key, &data, flags) == 0, "mdb_cursor_put");
  }

  void writeTables(const std::string& directory) {
    TableFiles tables(directory);
    begin(true);
    MDB_cursor* const all = cursor(sig_fid_);
    MDB_val key = {};
    MDB_val data = {};
    int status = mdb_cursor_get(all, &key, &data, MDB_FIRST);
    while (status == 0) {
      // A whole page of duplicates at a time; a single one stays as it is.
      require(mdb_cursor_get(all, &key, &data, MDB_GET_MULTIPLE) == 0, "MDB_GET_MULTIPLE");
      do {
        appendAll(key, data, &tables);
        status = mdb_cursor_get(all, &key, &data, MDB_NEXT_MULTIPLE);
      } while (status == 0);
      require(status == MDB_NOTFOUND, "MDB_NEXT_MULTIPLE");
      status = mdb_cursor_get(all, &key, &data, MDB_NEXT_NODUP);
    }
    require(status == MDB_NOTFOUND, "MDB_NEXT_NODUP");
    mdb_cursor_close(all);
    mdb_txn_abort(transaction_);
    transaction_ = nullptr;
    tables.finish();
  }

  MDB_dbi fidSig() const { return fid_sig_; }
  MDB_dbi sigFid() const { return sig_fid_; }
  MDB_dbi srcFid() const { return src_fid_; }

 private:
  static void appendAll(const MDB_val& key, const MDB_val& duplicates, TableFiles* tables) {
    constexpr size_t kRest = sizeof(Key) - kKeyBytes;
    Key record;
    std::memcpy(record.bytes, key.mv_data, kKeyBytes);
    const auto* const rests = static_cast<const unsigned char*>(duplicates.mv_data);
    for (size_t at = 0; at < duplicates.mv_size; at += kRest) {
      std::memcpy(record.bytes + kKeyBytes, rests + at, kRest);
      tables->append(record);
    }
  }

  MDB_env* environment_ = nullptr;
  MDB_txn* transaction_ = nullptr;
  MDB_dbi fid_sig_ = 0;
  MDB_dbi sig_fid_ = 0;
  MDB_dbi src_fid_ = 0;
};

class LmdbSorted final : public SortedBatchStore {
 public:
  LmdbSorted(const std::string& directory, bool durable) : lmdb_(directory, durable) {}

  void insert(const std::vector<Key>& fid_sig, const std::vector<Key>& sig_fid,
              const std::vector<SourceKey>& src_fid) override {
    lmdb_.begin(false);
    putAll(lmdb_.fidSig(), fid_sig, MDB_APPENDDUP);
    putAll(lmdb_.sigFid(), sig_fid, 0);
    putAll(lmdb_.srcFid(), src_fid, MDB_APPENDDUP);
    lmdb_.commit();
  }
  void writeTables(const std::string& directory) override { lmdb_.writeTables(directory); }

 private:
  template <typename Record>
  void putAll(MDB_dbi database, const std::vector<Record>& records, unsigned flags) {
    MDB_cursor* const cursor = lmdb_.cursor(database);
    for (const Record& record : records) Lmdb::put(cursor, record, flags);
    mdb_cursor_close(cursor);
  }

  Lmdb lmdb_;
};

class LmdbArrival final : public PostingStore {
 public:
  LmdbArrival(const std::string& directory, bool durable) : lmdb_(directory, durable) {}

  void add(uint32_t fid, uint32_t source, const std::vector<Signature>& signatures) override {
    if (!lmdb_.inTransaction()) {
      lmdb_.begin(false);
      fid_sig_ = lmdb_.cursor(lmdb_.fidSig());
      sig_fid_ = lmdb_.cursor(lmdb_.sigFid());
      src_fid_ = lmdb_.cursor(lmdb_.srcFid());
    }
    for (const Signature& signature : signatures) {
      Lmdb::put(fid_sig_, fidSigKey(fid, source, signature), 0);
      Lmdb::put(sig_fid_, sigFidKey(signature, fid, source), 0);
    }
    Lmdb::put(src_fid_, srcFidKey(source, fid), 0);
  }
  void commit() override {
    for (MDB_cursor* const cursor : {fid_sig_, sig_fid_, src_fid_}) mdb_cursor_close(cursor);
    lmdb_.commit();
  }
  void writeTables(const std::string& directory) override { lmdb_.writeTables(directory); }

 private:
  Lmdb lmdb_;
  MDB_cursor* fid_sig_ = nullptr;
  MDB_cursor* sig_fid_ = nullptr;
  MDB_cursor* src_fid_ = nullptr;
};

}  // namespace

std::unique_ptr<PostingStore> openLmdbSorted(const std::string& directory, bool durable) {
  return std::make_unique<LmdbSorted>(directory, durable);
}

std::unique_ptr<PostingStore> openLmdbArrival(const std::string& directory, bool durable) {
  return std::make_unique<LmdbArrival>(directory, durable);
}
