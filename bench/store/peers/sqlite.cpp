// SQLite: three tables without row numbers whose key is the whole record, one
// transaction for a batch, each order inserted sorted.
#include <sqlite3.h>

#include <cstring>

#include "posting_store.h"

namespace {

class Sqlite final : public SortedBatchStore {
 public:
  Sqlite(const std::string& directory, bool durable) {
    require(sqlite3_open((directory + "/postings.db").c_str(), &database_) == SQLITE_OK,
            "sqlite3_open");
    execute("PRAGMA journal_mode = WAL");
    execute(durable ? "PRAGMA synchronous = FULL" : "PRAGMA synchronous = OFF");
    execute("PRAGMA cache_size = -65536");  // 64 MiB
    for (const char* const order : {"fid_sig", "sig_fid", "src_fid"}) {
      execute("CREATE TABLE " + std::string(order) + " (record BLOB PRIMARY KEY) WITHOUT ROWID");
    }
  }
  ~Sqlite() override { sqlite3_close(database_); }
  Sqlite(const Sqlite&) = delete;
  Sqlite& operator=(const Sqlite&) = delete;

  void insert(const std::vector<Key>& fid_sig, const std::vector<Key>& sig_fid,
              const std::vector<SourceKey>& src_fid) override {
    execute("BEGIN");
    put("fid_sig", fid_sig);
    put("sig_fid", sig_fid);
    put("src_fid", src_fid);
    execute("COMMIT");
  }

  void writeTables(const std::string& directory) override {
    TableFiles tables(directory);
    sqlite3_stmt* const all = prepare("SELECT record FROM sig_fid ORDER BY record");
    int status;
    while ((status = sqlite3_step(all)) == SQLITE_ROW) {
      Key key;
      std::memcpy(key.bytes, sqlite3_column_blob(all, 0), sizeof key.bytes);
      tables.append(key);
    }
    require(status == SQLITE_DONE, "sqlite3_step");
    sqlite3_finalize(all);
    tables.finish();
  }

 private:
  void execute(const std::string& sql) {
    require(sqlite3_exec(database_, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK,
            sql.c_str());
  }

  sqlite3_stmt* prepare(const std::string& sql) {
    sqlite3_stmt* statement = nullptr;
    require(sqlite3_prepare_v2(database_, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK,
            sql.c_str());
    return statement;
  }

  template <typename Record>
  void put(const std::string& order, const std::vector<Record>& records) {
    sqlite3_stmt* const insert = prepare("INSERT INTO " + order + " VALUES (?)");
    for (const Record& record : records) {
      sqlite3_bind_blob(insert, 1, record.bytes, sizeof record.bytes, SQLITE_STATIC);
      require(sqlite3_step(insert) == SQLITE_DONE, "sqlite3_step");
      sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
  }

  sqlite3* database_ = nullptr;
};

}  // namespace

std::unique_ptr<PostingStore> openSqlite(const std::string& directory, bool durable) {
  return std::make_unique<Sqlite>(directory, durable);
}
