#include "catalogue.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include "failure.h"

namespace fs = std::filesystem;

namespace tool {

namespace {

constexpr int kSchemaVersion = 1;

// AUTOINCREMENT is what keeps an ID from being handed out again after its
// document has gone. Paths are blobs: they need not be UTF-8.
constexpr char kSchema[] =
    "CREATE TABLE documents ("
    "  id INTEGER PRIMARY KEY AUTOINCREMENT,"
    "  path BLOB NOT NULL,"
    "  size INTEGER NOT NULL,"
    "  signatures INTEGER NOT NULL,"
    "  signatures_hash INTEGER NOT NULL,"
    "  state INTEGER NOT NULL);"
    "CREATE INDEX documents_by_path ON documents(path);"
    "CREATE UNIQUE INDEX one_present_document_per_path ON documents(path) WHERE state = 0;"
    "PRAGMA user_version = 1;";

constexpr int kBusyMilliseconds = 10000;

}  // namespace

// One use of one SQL statement.
class Catalogue::Statement {
 public:
  Statement(const Catalogue& catalogue, const char* sql) : catalogue_(catalogue) {
    check(sqlite3_prepare_v2(catalogue.database_, sql, -1, &statement_, nullptr));
  }
  ~Statement() { sqlite3_finalize(statement_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  Statement& bind(int64_t value) {
    check(sqlite3_bind_int64(statement_, ++bound_, value));
    return *this;
  }
  Statement& bind(const fs::path& path) {
    const std::string& bytes = path.native();
    check(sqlite3_bind_blob64(statement_, ++bound_, bytes.data(), bytes.size(), SQLITE_TRANSIENT));
    return *this;
  }

  bool step() {  // true: there is a row
    const int outcome = sqlite3_step(statement_);
    if (outcome != SQLITE_ROW && outcome != SQLITE_DONE) catalogue_.fail();
    return outcome == SQLITE_ROW;
  }

  int64_t number(int column) const { return sqlite3_column_int64(statement_, column); }
  fs::path path(int column) const {
    const void* bytes = sqlite3_column_blob(statement_, column);
    const int length = sqlite3_column_bytes(statement_, column);
    return bytes ? fs::path(std::string(static_cast<const char*>(bytes), length)) : fs::path();
  }
  Document document() const {  // of "SELECT *"
    return {number(0), path(1), static_cast<uint64_t>(number(2)), static_cast<uint32_t>(number(3)),
            static_cast<uint64_t>(number(4))};
  }

 private:
  void check(int outcome) const {
    if (outcome != SQLITE_OK) catalogue_.fail();
  }

  const Catalogue& catalogue_;
  sqlite3_stmt* statement_ = nullptr;
  int bound_ = 0;
};

// Rolls back unless it is committed.
class Catalogue::Transaction {
 public:
  explicit Transaction(const Catalogue& catalogue) : catalogue_(catalogue) {
    catalogue_.execute("BEGIN IMMEDIATE");
  }
  ~Transaction() {
    if (!committed_) sqlite3_exec(catalogue_.database_, "ROLLBACK", nullptr, nullptr, nullptr);
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  void commit() {
    catalogue_.execute("COMMIT");
    committed_ = true;
  }

 private:
  const Catalogue& catalogue_;
  bool committed_ = false;
};

Catalogue::Catalogue(const fs::path& file, Access access) : name_(file.string()) {
  const int flags =
      access == Access::kRead ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
  try {
    if (sqlite3_open_v2(file.c_str(), &database_, flags, nullptr) != SQLITE_OK) fail();
    sqlite3_busy_timeout(database_, kBusyMilliseconds);
    prepareSchema();
  } catch (...) {
    sqlite3_close(database_);  // no destructor runs for half an object
    throw;
  }
}

Catalogue::~Catalogue() { sqlite3_close(database_); }

void Catalogue::prepareSchema() {
  Statement version(*this, "PRAGMA user_version");
  version.step();
  const int64_t found = version.number(0);
  if (found == 0 && !sqlite3_db_readonly(database_, "main")) {
    Transaction transaction(*this);
    execute(kSchema);
    transaction.commit();
  } else if (found != kSchemaVersion) {
    throw Failure(fmt::format("{} is no catalogue of this version of tessera", name_));
  }
}

std::optional<Document> Catalogue::find(const fs::path& path) const {
  Statement select(*this, "SELECT * FROM documents WHERE path = ? AND state = 0");
  if (!select.bind(path).step()) return std::nullopt;
  return select.document();
}

std::optional<fs::path> Catalogue::name(int64_t id) const {
  Statement select(*this, "SELECT path FROM documents WHERE id = ?");
  if (!select.bind(id).step()) return std::nullopt;
  return select.path(0);
}

void Catalogue::announceArrivals(std::vector<Document>* documents) {
  Transaction transaction(*this);
  for (Document& document : *documents) {
    Statement(*this,
              "INSERT INTO documents(path, size, signatures, signatures_hash, state) "
              "VALUES (?, ?, ?, ?, 1)")
        .bind(document.path)
        .bind(static_cast<int64_t>(document.size))
        .bind(document.signatures)
        .bind(static_cast<int64_t>(document.signatures_hash))
        .step();
    document.id = sqlite3_last_insert_rowid(database_);
  }
  transaction.commit();
}

void Catalogue::announceDepartures(const std::vector<int64_t>& ids) {
  Transaction transaction(*this);
  for (const int64_t id : ids) {
    Statement(*this, "UPDATE documents SET state = 2 WHERE id = ?").bind(id).step();
  }
  transaction.commit();
}

void Catalogue::announceDepartureOfAll() { execute("UPDATE documents SET state = 2"); }

void Catalogue::cancelArrival(int64_t id) {
  Statement(*this, "DELETE FROM documents WHERE id = ? AND state = 1").bind(id).step();
}

std::vector<Document> Catalogue::unsettled() const {
  Statement select(*this, "SELECT * FROM documents WHERE state != 0 ORDER BY id");
  std::vector<Document> documents;
  while (select.step()) documents.push_back(select.document());
  return documents;
}

void Catalogue::turnArrivalsAway() { execute("UPDATE documents SET state = 2 WHERE state = 1"); }

void Catalogue::settle() {
  Transaction transaction(*this);
  execute("DELETE FROM documents WHERE state = 2");
  execute("UPDATE documents SET state = 0 WHERE state = 1");
  transaction.commit();
}

void Catalogue::execute(const char* sql) const {
  if (sqlite3_exec(database_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail();
}

void Catalogue::fail() const {
  throw Failure(fmt::format("the catalogue {} does not work: {}", name_,
                            database_ ? sqlite3_errmsg(database_) : "out of memory"));
}

}  // namespace tool
