#include "store/catalogue.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string_view>

#include "cli/names.h"
#include "failure.h"
#include "text/canonical_text.h"

namespace fs = std::filesystem;

namespace tool {

namespace {

constexpr int kSchemaVersion = 2;

// AUTOINCREMENT is what keeps an ID from being handed out again after its document has
// gone. Paths, member names and labels are blobs: they need not be UTF-8. Lists have a
// table of their own, so that going through the documents does not read them.
constexpr char kSchema[] =
    "CREATE TABLE meta (key TEXT PRIMARY KEY, value TEXT NOT NULL) WITHOUT ROWID;"
    "CREATE TABLE files ("
    "  path BLOB PRIMARY KEY,"
    "  size INTEGER NOT NULL,"
    "  sha256 BLOB NOT NULL,"
    "  selection INTEGER NOT NULL,"
    "  label BLOB NOT NULL,"
    "  at INTEGER NOT NULL,"
    "  opened_by TEXT NOT NULL) WITHOUT ROWID;"
    "CREATE TABLE verdicts ("
    "  path BLOB NOT NULL,"
    "  member BLOB NOT NULL,"
    "  reason TEXT NOT NULL,"
    "  detail BLOB NOT NULL);"
    "CREATE INDEX verdicts_by_path ON verdicts(path);"
    "CREATE TABLE documents ("
    "  id INTEGER PRIMARY KEY AUTOINCREMENT,"
    "  path BLOB NOT NULL,"
    "  member BLOB NOT NULL,"
    "  size INTEGER NOT NULL,"
    "  sha256 BLOB NOT NULL,"
    "  type TEXT NOT NULL,"
    "  label BLOB NOT NULL,"
    "  selection INTEGER NOT NULL,"
    "  signatures INTEGER NOT NULL,"
    "  at INTEGER NOT NULL,"
    "  state INTEGER NOT NULL);"
    "CREATE INDEX documents_by_path ON documents(path);"
    "CREATE INDEX unsettled_documents ON documents(state) WHERE state != 0;"
    "CREATE TABLE lists (id INTEGER PRIMARY KEY, signatures BLOB NOT NULL);"
    "CREATE TABLE common_texts ("
    "  path BLOB PRIMARY KEY,"
    "  at INTEGER NOT NULL,"
    "  signatures BLOB NOT NULL) WITHOUT ROWID;"
    "PRAGMA user_version = 2;";

constexpr char kFileColumns[] = "path, size, sha256, selection, label, at, opened_by";
constexpr char kDocumentColumns[] =
    "id, path, member, size, sha256, type, label, selection, signatures, at, state";

constexpr int kBusyMilliseconds = 10000;

std::string_view bytesOf(const Sha256& hash) {
  return {reinterpret_cast<const char*>(hash.data()), hash.size()};
}

std::string_view bytesOf(const SignatureList& list) {
  return {reinterpret_cast<const char*>(list.data()), list.size() * sizeof(Signature)};
}

Reason reasonOf(std::string_view name) {
  for (unsigned i = 0; i < kReasons; ++i) {
    if (reasonName(static_cast<Reason>(i)) == name) return static_cast<Reason>(i);
  }
  return Reason::kUnsupported;  // a later version's
}

// A path as a URI has it.
std::string escaped(const std::string& path) {
  std::string uri;
  for (const unsigned char byte : path) {
    const bool plain = std::isalnum(byte) || byte == '/' || byte == '.' || byte == '-';
    uri += plain ? std::string(1, static_cast<char>(byte)) : fmt::format("%{:02x}", byte);
  }
  return uri;
}

// The paths of a directory stand together: between "DIR/" and "DIR0", the next byte.
std::pair<std::string, std::string> rangeBelow(const std::string& directory) {
  const std::string root = directory == "/" ? "" : directory;
  return {root + "/", root + "0"};
}

}  // namespace

// One use of one SQL statement.
class Catalogue::Statement {
 public:
  Statement(const Catalogue& catalogue, const std::string& sql) : catalogue_(catalogue) {
    check(sqlite3_prepare_v2(catalogue.database_, sql.c_str(), -1, &statement_, nullptr));
  }
  ~Statement() { sqlite3_finalize(statement_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  Statement& number(int64_t value) {
    check(sqlite3_bind_int64(statement_, ++bound_, value));
    return *this;
  }
  Statement& bytes(std::string_view value) {
    const char* data = value.empty() ? "" : value.data();  // a null pointer would be NULL
    check(sqlite3_bind_blob64(statement_, ++bound_, data, value.size(), SQLITE_TRANSIENT));
    return *this;
  }
  Statement& text(std::string_view value) {
    const char* data = value.empty() ? "" : value.data();
    check(sqlite3_bind_text64(statement_, ++bound_, data, value.size(), SQLITE_TRANSIENT,
                              SQLITE_UTF8));
    return *this;
  }

  bool step() {  // true: there is a row
    column_ = 0;
    const int outcome = sqlite3_step(statement_);
    if (outcome != SQLITE_ROW && outcome != SQLITE_DONE) catalogue_.fail();
    return outcome == SQLITE_ROW;
  }

  // The columns of a row, one after the other.
  int64_t number() { return sqlite3_column_int64(statement_, column_++); }
  std::string bytes() { return std::string(view()); }
  Sha256 hash() {
    Sha256 hash{};
    const std::string_view value = view();
    std::memcpy(hash.data(), value.data(), std::min(value.size(), hash.size()));
    return hash;
  }
  SignatureList list() {
    const std::string_view value = view();
    SignatureList list(value.size() / sizeof(Signature));
    if (!list.empty()) std::memcpy(list.data(), value.data(), list.size() * sizeof(Signature));
    return list;
  }
  FileEntry file() {  // of kFileColumns
    FileEntry file;
    file.path = bytes();
    file.size = static_cast<uint64_t>(number());
    file.sha256 = hash();
    file.selection = static_cast<Selection>(number());
    file.label = bytes();
    file.when = number();
    file.opened_by = bytes();
    return file;
  }
  DocumentEntry document() {  // of kDocumentColumns
    DocumentEntry document;
    document.id = number();
    document.path = bytes();
    document.member = bytes();
    document.size = static_cast<uint64_t>(number());
    document.sha256 = hash();
    document.type = bytes();
    document.label = bytes();
    document.selection = static_cast<Selection>(number());
    document.signatures = static_cast<uint64_t>(number());
    document.when = number();
    document.state = static_cast<State>(number());
    return document;
  }

 private:
  std::string_view view() {
    const auto* data = static_cast<const char*>(sqlite3_column_blob(statement_, column_));
    const int length = sqlite3_column_bytes(statement_, column_++);
    return data ? std::string_view(data, static_cast<size_t>(length)) : std::string_view();
  }
  void check(int outcome) const {
    if (outcome != SQLITE_OK) catalogue_.fail();
  }

  const Catalogue& catalogue_;
  sqlite3_stmt* statement_ = nullptr;
  int bound_ = 0;
  int column_ = 0;
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

Catalogue::Catalogue(const fs::path& file, Access access) : name_(fs::absolute(file).string()) {
  try {
    open(name_, access);
    prepareSchema();
    checkTextForm();
  } catch (...) {
    sqlite3_close(database_);  // no destructor runs for half an object
    throw;
  }
}

Catalogue::~Catalogue() { sqlite3_close(database_); }

// Readers, too, open for writing if they may: the last to leave folds the log into the
// database, and leaves no files beside it. Who may not write there could not even make
// the files that readers share, so when nobody has made them, the database is at rest.
void Catalogue::open(const fs::path& file, Access access) {
  const int create = access == Access::kWrite ? SQLITE_OPEN_CREATE : 0;
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_FULLMUTEX | SQLITE_OPEN_URI | create;
  const bool frozen = access == Access::kRead && ::access(file.parent_path().c_str(), W_OK) != 0 &&
                      !fs::exists(file.string() + "-wal");
  if (access == Access::kWrite) {  // the home may be one that others can enter
    const int made = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (made >= 0) ::close(made);  // whatever is wrong SQLite tells
  }
  const std::string uri = "file:" + escaped(file.string()) + (frozen ? "?immutable=1" : "");
  if (sqlite3_open_v2(uri.c_str(), &database_, flags, nullptr) != SQLITE_OK) fail();
  sqlite3_busy_timeout(database_, kBusyMilliseconds);
  if (access == Access::kWrite) {
    execute("PRAGMA journal_mode = WAL");
    // A commit lasts when it returns: the index relies on what was announced.
    execute("PRAGMA synchronous = FULL");
    execute("PRAGMA secure_delete = ON");  // what has left leaves no traces
  } else {
    execute("PRAGMA query_only = ON");
  }
}

void Catalogue::prepareSchema() {
  Statement version(*this, "PRAGMA user_version");
  version.step();
  const int64_t found = version.number();
  if (found == kSchemaVersion) return;
  Statement query_only(*this, "PRAGMA query_only");
  query_only.step();
  Statement tables(*this, "SELECT count(*) FROM sqlite_schema");
  tables.step();
  if (found == 0 && tables.number() == 0 && query_only.number() == 0) {
    Transaction transaction(*this);
    execute(kSchema);
    Statement(*this, "INSERT INTO meta VALUES ('text_form', ?)").text(kTextForm).step();
    transaction.commit();
    return;
  }
  throw Failure(
      found == 1
          ? fmt::format("{} was made by an earlier version of tessera, which fingerprinted "
                        "other forms of the documents\n"
                        "Move its directory away and run 'tessera index' on the documents again.",
                        shownName(name_))
          : fmt::format("{} is no catalogue of this version of tessera", shownName(name_)));
}

void Catalogue::checkTextForm() const {
  Statement select(*this, "SELECT value FROM meta WHERE key = 'text_form'");
  const std::string found = select.step() ? select.bytes() : "an unknown form";
  if (found == kTextForm) return;
  throw Failure(
      fmt::format("the index was made of texts in another form ({}) than this tessera makes ({}), "
                  "so that they would not match\n"
                  "Move the home of {} away and run 'tessera index' on the documents again, or "
                  "use the tessera that made it.",
                  shownName(found), kTextForm, shownName(name_)));
}

std::optional<FileEntry> Catalogue::file(const std::string& path) const {
  Statement select(*this, fmt::format("SELECT {} FROM files WHERE path = ?", kFileColumns));
  if (!select.bytes(path).step()) return std::nullopt;
  FileEntry file = select.file();
  Statement verdicts(*this, "SELECT member, reason, detail FROM verdicts WHERE path = ?");
  verdicts.bytes(path);
  while (verdicts.step()) {
    Verdict verdict;
    verdict.member = verdicts.bytes();
    verdict.reason = reasonOf(verdicts.bytes());
    verdict.detail = verdicts.bytes();
    file.verdicts.push_back(std::move(verdict));
  }
  return file;
}

std::optional<DocumentEntry> Catalogue::document(int64_t id) const {
  Statement select(*this, fmt::format("SELECT {} FROM documents WHERE id = ?", kDocumentColumns));
  if (!select.number(id).step()) return std::nullopt;
  return select.document();
}

std::vector<std::string> Catalogue::paths(const std::string& below) const {
  const auto [first, end] = rangeBelow(below.empty() ? "/" : below);
  Statement select(*this,
                   "SELECT path FROM files WHERE path = ?1 OR (path >= ?2 AND path < ?3) "
                   "UNION SELECT path FROM documents "
                   "WHERE (path = ?1 OR (path >= ?2 AND path < ?3)) AND state != 2 ORDER BY 1");
  select.bytes(below).bytes(first).bytes(end);
  std::vector<std::string> paths;
  while (select.step()) paths.push_back(select.bytes());
  return paths;
}

void Catalogue::eachFile(const std::string& below,
                         const std::function<void(const FileEntry&)>& visit) const {
  for (const std::string& path : paths(below)) {
    if (const std::optional<FileEntry> found = file(path)) visit(*found);
  }
}

void Catalogue::eachDocument(const std::string& below,
                             const std::function<void(const DocumentEntry&)>& visit) const {
  const auto [first, end] = rangeBelow(below.empty() ? "/" : below);
  Statement select(*this, fmt::format("SELECT {} FROM documents "
                                      "WHERE (path = ? OR (path >= ? AND path < ?)) AND state != 2 "
                                      "ORDER BY path, id",
                                      kDocumentColumns));
  select.bytes(below).bytes(first).bytes(end);
  while (select.step()) visit(select.document());
}

void Catalogue::eachList(const std::function<void(int64_t id, const SignatureList&)>& visit) const {
  Statement select(*this,
                   "SELECT id, lists.signatures FROM documents JOIN lists USING (id) "
                   "WHERE state != 2 ORDER BY id");
  while (select.step()) {
    const int64_t id = select.number();
    visit(id, select.list());
  }
}

SignatureList Catalogue::signatures(int64_t id) const {
  Statement select(*this, "SELECT signatures FROM lists WHERE id = ?");
  return select.number(id).step() ? select.list() : SignatureList();
}

SignatureList Catalogue::commonSignatures() const {
  SignatureList all;
  for (const CommonText& text : commonTexts()) {
    all.insert(all.end(), text.signatures.begin(), text.signatures.end());
  }
  makeList(&all);
  return all;
}

std::vector<CommonText> Catalogue::commonTexts() const {
  Statement select(*this, "SELECT path, at, signatures FROM common_texts ORDER BY path");
  std::vector<CommonText> texts;
  while (select.step()) {
    CommonText text;
    text.path = select.bytes();
    text.when = select.number();
    text.signatures = select.list();
    texts.push_back(std::move(text));
  }
  return texts;
}

std::vector<DocumentEntry> Catalogue::documentsOf(const std::string& path) const {
  Statement select(*this,
                   fmt::format("SELECT {} FROM documents WHERE path = ? AND state != 2 ORDER BY id",
                               kDocumentColumns));
  select.bytes(path);
  std::vector<DocumentEntry> documents;
  while (select.step()) documents.push_back(select.document());
  return documents;
}

void Catalogue::insertFile(const FileEntry& file) {
  Statement(*this, "DELETE FROM verdicts WHERE path = ?").bytes(file.path).step();
  Statement(*this, "INSERT OR REPLACE INTO files VALUES (?, ?, ?, ?, ?, ?, ?)")
      .bytes(file.path)
      .number(static_cast<int64_t>(file.size))
      .bytes(bytesOf(file.sha256))
      .number(static_cast<int64_t>(file.selection))
      .bytes(file.label)
      .number(file.when)
      .text(file.opened_by)
      .step();
  for (const Verdict& verdict : file.verdicts) {
    Statement(*this, "INSERT INTO verdicts VALUES (?, ?, ?, ?)")
        .bytes(file.path)
        .bytes(verdict.member)
        .text(reasonName(verdict.reason))
        .bytes(verdict.detail)
        .step();
  }
}

// A document without signatures has nothing to do with the index.
int64_t Catalogue::insertDocument(const FileEntry& file, const NewDocument& document) {
  const State state = document.signatures.empty() ? State::kPresent : State::kArriving;
  Statement(*this,
            "INSERT INTO documents(path, member, size, sha256, type, label, selection, "
            "signatures, at, state) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)")
      .bytes(file.path)
      .bytes(document.member)
      .number(static_cast<int64_t>(document.size))
      .bytes(bytesOf(document.sha256))
      .text(document.type)
      .bytes(file.label)
      .number(static_cast<int64_t>(file.selection))
      .number(static_cast<int64_t>(document.signatures.size()))
      .number(file.when)
      .number(static_cast<int64_t>(state))
      .step();
  const int64_t id = sqlite3_last_insert_rowid(database_);
  Statement(*this, "INSERT INTO lists VALUES (?, ?)")
      .number(id)
      .bytes(bytesOf(document.signatures))
      .step();
  return id;
}

std::vector<Arrival> Catalogue::announce(const std::vector<FileChange>& changes) {
  std::vector<Arrival> arrivals;
  Transaction transaction(*this);
  for (const auto& [file, documents] : changes) {
    std::vector<DocumentEntry> old = documentsOf(file.path);
    insertFile(file);
    for (const NewDocument& document : documents) {
      // Clang 14 takes no structured binding into a lambda.
      const auto selection = file.selection;
      const auto same = std::find_if(old.begin(), old.end(), [&](const DocumentEntry& entry) {
        return entry.member == document.member && entry.sha256 == document.sha256 &&
               entry.type == document.type && entry.selection == selection &&
               signatures(entry.id) == document.signatures;
      });
      if (same != old.end()) {
        Statement(*this, "UPDATE documents SET label = ? WHERE id = ?")
            .bytes(file.label)
            .number(same->id)
            .step();
        old.erase(same);
        continue;
      }
      const int64_t id = insertDocument(file, document);
      if (!document.signatures.empty()) arrivals.push_back({id, &document.signatures});
    }
    for (const DocumentEntry& gone : old) {
      Statement(*this, "UPDATE documents SET state = 2 WHERE id = ?").number(gone.id).step();
    }
  }
  transaction.commit();
  return arrivals;
}

size_t Catalogue::announceRemoval(const std::vector<std::string>& paths,
                                  const std::vector<int64_t>& ids) {
  size_t leaving = 0;
  Transaction transaction(*this);
  for (const int64_t id : ids) {
    Statement(*this,
              "UPDATE files SET sha256 = zeroblob(32) "
              "WHERE path = (SELECT path FROM documents WHERE id = ?)")
        .number(id)
        .step();
    Statement(*this, "UPDATE documents SET state = 2 WHERE id = ? AND state != 2")
        .number(id)
        .step();
    leaving += static_cast<size_t>(sqlite3_changes(database_));
  }
  for (const std::string& path : paths) {
    Statement(*this, "DELETE FROM verdicts WHERE path = ?").bytes(path).step();
    Statement(*this, "DELETE FROM files WHERE path = ?").bytes(path).step();
    Statement(*this, "UPDATE documents SET state = 2 WHERE path = ? AND state != 2")
        .bytes(path)
        .step();
    leaving += static_cast<size_t>(sqlite3_changes(database_));
  }
  transaction.commit();
  return leaving;
}

// Part of a transaction.
size_t Catalogue::announceThoseWith(const SignatureList& signatures) {
  std::vector<int64_t> affected;
  eachList([&](int64_t id, const SignatureList& list) {
    if (shareSignatures(list, signatures)) affected.push_back(id);
  });
  for (const int64_t id : affected) {
    Statement(*this, "UPDATE documents SET state = 1 WHERE id = ?").number(id).step();
  }
  return affected.size();
}

size_t Catalogue::addCommonTexts(const std::vector<CommonText>& texts) {
  Transaction transaction(*this);
  const SignatureList before = commonSignatures();
  for (const CommonText& text : texts) {
    Statement(*this, "INSERT OR REPLACE INTO common_texts VALUES (?, ?, ?)")
        .bytes(text.path)
        .number(text.when)
        .bytes(bytesOf(text.signatures))
        .step();
  }
  const SignatureList after = commonSignatures();
  SignatureList changed;
  std::set_symmetric_difference(before.begin(), before.end(), after.begin(), after.end(),
                                std::back_inserter(changed));
  const size_t affected = announceThoseWith(changed);
  transaction.commit();
  return affected;
}

size_t Catalogue::removeCommonText(const std::string& path) {
  Transaction transaction(*this);
  const SignatureList before = commonSignatures();
  Statement(*this, "DELETE FROM common_texts WHERE path = ?").bytes(path).step();
  const size_t affected = announceThoseWith(without(before, commonSignatures()));
  transaction.commit();
  return affected;
}

void Catalogue::announceAll() { execute("UPDATE documents SET state = 1 WHERE state = 0"); }

std::vector<Catalogue::Unsettled> Catalogue::unsettled() const {
  Statement select(*this, "SELECT id, state FROM documents WHERE state != 0 ORDER BY id");
  std::vector<Unsettled> documents;
  while (select.step()) {
    const int64_t id = select.number();
    documents.push_back({id, static_cast<State>(select.number())});
  }
  return documents;
}

void Catalogue::settle() {
  Transaction transaction(*this);
  execute("DELETE FROM lists WHERE id IN (SELECT id FROM documents WHERE state = 2)");
  execute("DELETE FROM documents WHERE state = 2");
  execute("UPDATE documents SET state = 0 WHERE state = 1");
  execute("INSERT OR REPLACE INTO meta SELECT 'settled', value FROM meta WHERE key = 'begun'");
  transaction.commit();
}

Catalogue::Generations Catalogue::generations() const {
  Statement select(*this,
                   "SELECT coalesce(max(CASE key WHEN 'begun' THEN CAST(value AS INTEGER) END), 0),"
                   " coalesce(max(CASE key WHEN 'settled' THEN CAST(value AS INTEGER) END), 0) "
                   "FROM meta");
  select.step();
  Generations generations;
  generations.begun = select.number();
  generations.settled = select.number();
  return generations;
}

int64_t Catalogue::beginGeneration() {
  const int64_t begun = generations().settled + 1;
  Statement(*this, "INSERT OR REPLACE INTO meta VALUES ('begun', ?)")
      .text(fmt::to_string(begun))
      .step();
  return begun;
}

int64_t Catalogue::lastId() const {
  Statement select(*this, "SELECT seq FROM sqlite_sequence WHERE name = 'documents'");
  return select.step() ? select.number() : 0;
}

std::vector<std::string> Catalogue::problems() const {
  std::vector<std::string> problems;
  Statement check(*this, "PRAGMA integrity_check");
  while (check.step()) {
    std::string line = check.bytes();
    if (line != "ok") problems.push_back(std::move(line));
  }
  return problems;
}

void Catalogue::execute(const char* sql) const {
  if (sqlite3_exec(database_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail();
}

void Catalogue::fail() const {
  throw Failure(fmt::format("the catalogue {} does not work: {}", shownName(name_),
                            database_ ? sqlite3_errmsg(database_) : "out of memory"));
}

}  // namespace tool
