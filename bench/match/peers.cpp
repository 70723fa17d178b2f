// The stores. They stay open, with all they hold in memory or mapped.
#include <lmdb.h>
#include <rocksdb/cache.h>
#include <rocksdb/db.h>
#include <rocksdb/filter_policy.h>
#include <rocksdb/table.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstring>

#include "ranking.h"
#include "searcher.h"

namespace {

namespace fs = std::filesystem;

class Collector : public Searcher {
 public:
  void search(const Query& query) override {
    found_.clear();
    collect(query, &found_);
    auto hits = mallocArray<FsidPair>(found_.size());
    std::transform(found_.begin(), found_.end(), hits.get(), [](uint64_t pair) {
      return FsidPair{static_cast<int32_t>(pair >> 32), static_cast<int32_t>(pair & 0xffffffff)};
    });
    ranking_.rank(static_cast<uint32_t>(found_.size()), &hits);
  }
  void pairs(const Query& query, Pairs* out) override { collect(query, out); }

 protected:
  virtual void collect(const Query& query, Pairs* out) = 0;

 private:
  Pairs found_;
  Ranking ranking_;
};

class Lmdb final : public Collector {
 public:
  explicit Lmdb(const Table& of) {
    const fs::path path = of.directory / "lmdb";
    fs::create_directory(path);
    check(mdb_env_create(&env_));
    check(mdb_env_set_mapsize(env_, size_t{64} << 30));
    check(mdb_env_open(env_, path.c_str(), MDB_NOSYNC | MDB_WRITEMAP, 0600));
    MDB_txn* txn;
    check(mdb_txn_begin(env_, nullptr, 0, &txn));
    check(mdb_dbi_open(txn, nullptr, MDB_DUPSORT | MDB_DUPFIXED | MDB_INTEGERDUP, &dbi_));
    MDB_cursor* cursor;
    check(mdb_cursor_open(txn, dbi_, &cursor));
    forEachSignature(of, [&](const Signature& signature, const Pairs& pairs) {
      for (uint64_t pair : pairs) {
        MDB_val key = {sizeof signature, const_cast<Signature*>(&signature)};
        MDB_val value = {sizeof pair, &pair};
        check(mdb_cursor_put(cursor, &key, &value, MDB_APPENDDUP));
      }
    });
    mdb_cursor_close(cursor);
    check(mdb_txn_commit(txn));
  }
  ~Lmdb() override { mdb_env_close(env_); }
  Lmdb(const Lmdb&) = delete;
  Lmdb& operator=(const Lmdb&) = delete;

 private:
  static void check(int status) { require(status == 0, mdb_strerror(status)); }

  void collect(const Query& query, Pairs* out) override {
    MDB_txn* txn;
    check(mdb_txn_begin(env_, nullptr, MDB_RDONLY, &txn));
    MDB_cursor* cursor;
    check(mdb_cursor_open(txn, dbi_, &cursor));
    for (const Signature& signature : query.signatures) {
      MDB_val key = {sizeof signature, const_cast<Signature*>(&signature)};
      MDB_val value;
      for (int status = mdb_cursor_get(cursor, &key, &value, MDB_SET_KEY); status != MDB_NOTFOUND;
           status = mdb_cursor_get(cursor, &key, &value, MDB_NEXT_DUP)) {
        check(status);
        uint64_t pair;
        std::memcpy(&pair, value.mv_data, sizeof pair);
        out->push_back(pair);
      }
    }
    mdb_cursor_close(cursor);
    mdb_txn_abort(txn);
  }

  MDB_env* env_ = nullptr;
  MDB_dbi dbi_ = 0;
};

class RocksDb final : public Collector {
 public:
  explicit RocksDb(const Table& of) {
    rocksdb::BlockBasedTableOptions blocks;
    blocks.filter_policy.reset(rocksdb::NewBloomFilterPolicy(10));
    blocks.block_cache = rocksdb::NewLRUCache(size_t{4} << 30);
    rocksdb::Options options;
    options.create_if_missing = true;
    options.compression = rocksdb::kNoCompression;
    options.table_factory.reset(rocksdb::NewBlockBasedTableFactory(blocks));
    rocksdb::DB* db = nullptr;
    check(rocksdb::DB::Open(options, (of.directory / "rocksdb").string(), &db));
    db_.reset(db);
    rocksdb::WriteOptions unlogged;
    unlogged.disableWAL = true;
    forEachSignature(of, [&](const Signature& signature, const Pairs& pairs) {
      check(db_->Put(unlogged, slice(signature),
                     {reinterpret_cast<const char*>(pairs.data()), 8 * pairs.size()}));
    });
    check(db_->CompactRange({}, nullptr, nullptr));
  }

 private:
  static void check(const rocksdb::Status& status) {
    require(status.ok(), status.ToString().c_str());
  }
  static rocksdb::Slice slice(const Signature& signature) {
    return {reinterpret_cast<const char*>(signature.bytes), sizeof signature};
  }

  void collect(const Query& query, Pairs* out) override {
    rocksdb::PinnableSlice value;
    for (const Signature& signature : query.signatures) {
      value.Reset();
      const auto status = db_->Get({}, db_->DefaultColumnFamily(), slice(signature), &value);
      if (status.IsNotFound()) continue;
      check(status);
      for (size_t at = 0; at < value.size(); at += 8) {
        uint64_t pair;
        std::memcpy(&pair, value.data() + at, sizeof pair);
        out->push_back(pair);
      }
    }
  }

  std::unique_ptr<rocksdb::DB> db_;
};

class Sqlite final : public Collector {
 public:
  explicit Sqlite(const Table& of) {
    require(sqlite3_open((of.directory / "sqlite").c_str(), &db_) == SQLITE_OK, "no database");
    run("PRAGMA journal_mode=OFF");
    run("PRAGMA synchronous=OFF");
    run("PRAGMA mmap_size=17179869184");
    run("PRAGMA cache_size=-4194304");
    run("CREATE TABLE postings(signature BLOB, pair INTEGER, PRIMARY KEY(signature, pair)) "
        "WITHOUT ROWID");
    sqlite3_stmt* const insert = prepare("INSERT OR IGNORE INTO postings VALUES(?, ?)");
    run("BEGIN");
    forEachSignature(of, [&](const Signature& signature, const Pairs& pairs) {
      for (const uint64_t pair : pairs) {
        bind(insert, signature);
        sqlite3_bind_int64(insert, 2, static_cast<int64_t>(pair));
        require(sqlite3_step(insert) == SQLITE_DONE, "not inserted");
        sqlite3_reset(insert);
      }
    });
    run("COMMIT");
    sqlite3_finalize(insert);
    select_ = prepare("SELECT pair FROM postings WHERE signature = ? ORDER BY pair");
  }
  ~Sqlite() override {
    sqlite3_finalize(select_);
    sqlite3_close(db_);
  }
  Sqlite(const Sqlite&) = delete;
  Sqlite& operator=(const Sqlite&) = delete;

 private:
  void run(const char* sql) {
    require(sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK, sql);
  }
  sqlite3_stmt* prepare(const char* sql) {
    sqlite3_stmt* statement = nullptr;
    require(sqlite3_prepare_v2(db_, sql, -1, &statement, nullptr) == SQLITE_OK, sql);
    return statement;
  }
  static void bind(sqlite3_stmt* statement, const Signature& signature) {
    sqlite3_bind_blob(statement, 1, signature.bytes, sizeof signature, SQLITE_STATIC);
  }

  void collect(const Query& query, Pairs* out) override {
    run("BEGIN");
    for (const Signature& signature : query.signatures) {
      bind(select_, signature);
      while (sqlite3_step(select_) == SQLITE_ROW) {
        out->push_back(static_cast<uint64_t>(sqlite3_column_int64(select_, 0)));
      }
      sqlite3_reset(select_);
    }
    run("COMMIT");
  }

  sqlite3* db_ = nullptr;
  sqlite3_stmt* select_ = nullptr;
};

}  // namespace

std::unique_ptr<Searcher> makeLmdb(const Table& of) { return std::make_unique<Lmdb>(of); }
std::unique_ptr<Searcher> makeRocksDb(const Table& of) { return std::make_unique<RocksDb>(of); }
std::unique_ptr<Searcher> makeSqlite(const Table& of) { return std::make_unique<Sqlite>(of); }
