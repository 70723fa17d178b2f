// Microseconds of one search: Tessera against its plain form and against stores
// that look the same signatures up.
//
// Rows are match/KIND/ELEMENTS/SIGNATURES/WHO. KIND uniform has random signatures
// with one element each; text has signatures that crowd as those of English do,
// one in eight with 2 to 9 elements and a few with a thousand. Half of a query's
// signatures are present. Many queries take turns, so that no row reads one place
// over and over; all of it is in the system's page cache.
//
//   tessera  the whole search: tables opened, ranges found, hits read and ranked
//   plain    the same with loads of max_ele_num_load elements
//            (tests/reference/plain_search.h)
//   lmdb     one read transaction, a cursor set to each signature, all its packed
//            duplicates copied; the environment stays open and mapped
//   rocksdb  a Get for each signature, whose value is all its pairs; bloom filter,
//            and a block cache that holds everything
//   sqlite   a prepared SELECT for each signature in one transaction, WITHOUT
//            ROWID; cache and mapping hold everything
//
// All hand their (file, source) pairs to the same ranking, so that what is compared
// is the answer to the same question; and the peers keep everything open, while
// Tessera opens its table for each search. The pairs of all are compared with the
// elements that the tables were made from before anything is measured.
//
// Counters: "bytes" and "reads" are what Tessera and its plain form read per query,
// counted beforehand; "items_per_second" counts signatures, so that its reciprocal is to
// be compared from size to size. Rows match/threads/... are searches through the
// search system, lock and counted snapshot included, by one and two threads:
// "items_per_second" counts their queries.
//
//   cmake --preset linux-release -DTESSERA_BENCH=ON
//   cmake --build build/linux-release --target match_search
//   build/linux-release/bench/match_search --benchmark_enable_random_interleaving
//
// MATCH_ELEMENTS=100M adds tables of 100M elements (1.6 GB each, and 5 GB of
// memory while they are made). RocksDB and SQLite are built up to 1M only unless
// MATCH_PEERS=all.
#include <benchmark/benchmark.h>
#include <lmdb.h>
#include <rocksdb/cache.h>
#include <rocksdb/db.h>
#include <rocksdb/filter_policy.h>
#include <rocksdb/table.h>
#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "documents.h"
#include "forwarding_system.h"
#include "plain_search.h"
#include "vn_fid_search_engine.h"
#include "vn_search_system.h"

namespace {

namespace fs = std::filesystem;

constexpr uint32_t kSizes[] = {40, 400, 4000};
constexpr uint32_t kFiles = 1 << 20;

fs::path top;  // of what this program makes

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "%s\n", what);
  std::error_code ignored;
  fs::remove_all(top, ignored);
  std::exit(1);
}

// The pairs of a query in order: file << 32 | source.
using Pairs = std::vector<uint64_t>;

uint64_t pairOf(const StrongElement& element) {
  return uint64_t{static_cast<uint32_t>(element.fid)} << 32 | static_cast<uint32_t>(element.source);
}

// ---- Signatures ----------------------------------------------------------------

Signature signatureOf(uint64_t key) {
  Signature signature;
  for (int i = 8; i-- > 0; key >>= 8) signature.bytes[i] = static_cast<unsigned char>(key);
  return signature;
}

// The sum of `letters` English letters, modulo 256, for a random 16-bit number: a
// byte of a window of 61 letters that is folded into 8.
std::vector<unsigned char> sumsOfLetters(int letters) {
  constexpr double kShares[26] = {8.2, 1.5, 2.8, 4.3, 12.7, 2.2, 2.0, 6.1, 7.0, 0.2, 0.8, 4.0, 2.4,
                                  6.7, 7.5, 1.9, 0.1, 6.0,  6.3, 9.1, 2.8, 1.0, 2.4, 0.2, 2.0, 0.1};
  std::array<double, 256> sums = {};
  sums[0] = 1;
  for (int n = 0; n < letters; ++n) {
    std::array<double, 256> next = {};
    for (size_t sum = 0; sum < 256; ++sum) {
      for (size_t letter = 0; letter < 26; ++letter) {
        next[(sum + 'a' + letter) % 256] += sums[sum] * kShares[letter] / 100.3;
      }
    }
    sums = next;
  }
  std::vector<unsigned char> table;
  double share = 0;
  for (size_t sum = 0; sum < 256; ++sum) {
    share += sums[sum];
    const auto end = std::min<size_t>(65536, static_cast<size_t>(share * 65536 + 0.5));
    while (table.size() < end) table.push_back(static_cast<unsigned char>(sum));
  }
  table.resize(65536, 0);
  return table;
}

uint64_t textKey(documents::Random* random) {
  static const std::vector<unsigned char> kEight = sumsOfLetters(8);
  static const std::vector<unsigned char> kSeven = sumsOfLetters(7);
  uint64_t key = 0;
  for (int half = 0; half < 2; ++half) {
    uint64_t numbers = random->next();
    for (int i = 0; i < 4; ++i, numbers >>= 16) {
      const auto& table = half * 4 + i < 5 ? kEight : kSeven;  // 5 * 8 + 3 * 7 = 61
      key = key << 8 | table[numbers & 0xffff];
    }
  }
  return key;
}

uint64_t keyOf(bool is_text, documents::Random* random) {
  return is_text ? textKey(random) : random->next();
}

// ---- Tables and queries --------------------------------------------------------

struct Query {
  std::vector<Signature> signatures;
  Pairs expected;
};

struct Table {
  std::string kind;
  std::string size;
  uint32_t ele_num;
  fs::path directory;
  std::map<uint32_t, std::vector<Query>> queries;  // by the number of signatures
};

struct Posting {
  uint64_t key;
  uint64_t pair;
};
bool operator<(const Posting& left, const Posting& right) {
  return left.key != right.key ? left.key < right.key : left.pair < right.pair;
}

std::vector<Posting> makePostings(bool is_text, uint32_t count) {
  documents::Random random(20240717);
  std::vector<Posting> postings;
  postings.reserve(count);
  while (postings.size() < count) {
    const uint64_t key = keyOf(is_text, &random);
    uint64_t copies = 1;
    if (is_text && random.oneIn(8)) copies = 2 + random.below(8);
    if (is_text && random.oneIn(1000000)) copies = 1000;
    for (; copies > 0 && postings.size() < count; --copies) {
      const uint64_t fid = random.below(kFiles);
      postings.push_back({key, fid << 32 | (fid & 0xffff)});
    }
  }
  std::sort(postings.begin(), postings.end());
  const auto same = [](const Posting& left, const Posting& right) {
    return left.key == right.key && left.pair == right.pair;
  };
  postings.erase(std::unique(postings.begin(), postings.end(), same), postings.end());
  return postings;
}

class MetaWriter {
 public:
  explicit MetaWriter(const std::string& path) : path_(path), directory_(kPrefixCount) {}
  void add(uint64_t key, uint32_t position) {
    PrefixRange& range = directory_[key >> 48];
    if (range.end == 0) range.start = position;
    range.end = position + 1;
  }
  void write() const {
    std::ofstream file(path_, std::ios::binary);
    const char record[kMetaDataBytes] = {0, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0};
    file.write(record, sizeof record);
    file.write(reinterpret_cast<const char*>(directory_.data()), kPrefixDirectoryBytes);
    require(file.good(), "meta file not written");
  }

 private:
  const std::string path_;
  std::vector<PrefixRange> directory_;
};

void writeTables(const std::vector<Posting>& postings) {
  fs::create_directory("sig_index_DB");
  const std::string base = "sig_index_DB/search_table";
  std::ofstream weak(base + kWeakTableSuffix, std::ios::binary);
  std::ofstream strong(base + kStrongTableSuffix, std::ios::binary);
  MetaWriter weak_meta(base + kWeakMetaSuffix);
  MetaWriter strong_meta(base + kStrongMetaSuffix);
  std::vector<StrongElement> piece;
  uint32_t signatures = 0;
  for (uint32_t i = 0; i < postings.size(); ++i) {
    const Posting& posting = postings[i];
    const Signature signature = signatureOf(posting.key);
    if (i == 0 || postings[i - 1].key != posting.key) {
      weak.write(reinterpret_cast<const char*>(&signature), sizeof signature);
      weak_meta.add(posting.key, signatures++);
    }
    piece.push_back({signature, static_cast<int32_t>(posting.pair >> 32),
                     static_cast<int32_t>(posting.pair & 0xffffffff)});
    strong_meta.add(posting.key, i);
    if (piece.size() == 65536 || i + 1 == postings.size()) {
      strong.write(reinterpret_cast<const char*>(piece.data()),
                   static_cast<std::streamsize>(piece.size() * sizeof(StrongElement)));
      piece.clear();
    }
  }
  weak_meta.write();
  strong_meta.write();
  require(weak.good() && strong.good(), "table not written");
}

Query makeQuery(bool is_text, uint32_t n, const std::vector<Posting>& postings,
                documents::Random* random) {
  const auto begin = [&](uint64_t key) {
    return std::lower_bound(postings.begin(), postings.end(), Posting{key, 0});
  };
  std::set<uint64_t> keys;
  while (keys.size() < n / 2) keys.insert(postings[random->below(postings.size())].key);
  while (keys.size() < n) {
    const uint64_t key = keyOf(is_text, random);
    const auto at = begin(key);
    if (at == postings.end() || at->key != key) keys.insert(key);
  }
  Query query;
  for (const uint64_t key : keys) {
    query.signatures.push_back(signatureOf(key));
    for (auto at = begin(key); at != postings.end() && at->key == key; ++at) {
      query.expected.push_back(at->pair);
    }
  }
  return query;
}

const Table& table(const std::string& kind, const std::string& size) {
  static std::map<std::string, std::unique_ptr<Table>> tables;
  auto& made = tables[kind + size];
  if (!made) {
    made = std::make_unique<Table>();
    made->kind = kind;
    made->size = size;
    made->directory = top / (kind + size);
    fs::create_directory(made->directory);
    fs::current_path(made->directory);
    const bool is_text = kind == "text";
    const uint32_t count = 1000000 * static_cast<uint32_t>(std::atoi(size.c_str()));
    const std::vector<Posting> postings = makePostings(is_text, count);
    made->ele_num = static_cast<uint32_t>(postings.size());
    writeTables(postings);
    std::ofstream("index_sys_config.txt");  // all defaults
    documents::Random random(7);
    for (const uint32_t n : kSizes) {
      for (uint32_t i = 0; i < 20000 / n; ++i) {
        made->queries[n].push_back(makeQuery(is_text, n, postings, &random));
      }
    }
  }
  fs::current_path(made->directory);
  return *made;
}

// Calls `take` for every signature of the table with all its pairs.
void forEachSignature(const Table& of,
                      const std::function<void(const Signature&, const Pairs&)>& take) {
  std::ifstream strong("sig_index_DB/search_table.stbl", std::ios::binary);
  std::vector<StrongElement> piece(65536);
  Signature signature = {};
  Pairs pairs;
  for (uint32_t done = 0; done < of.ele_num;) {
    const uint32_t count = std::min<uint32_t>(65536, of.ele_num - done);
    strong.read(reinterpret_cast<char*>(piece.data()),
                static_cast<std::streamsize>(count * sizeof(StrongElement)));
    require(strong.good(), "table not read back");
    for (uint32_t i = 0; i < count; ++i) {
      if (!pairs.empty() && !(piece[i].signature == signature)) {
        take(signature, pairs);
        pairs.clear();
      }
      signature = piece[i].signature;
      pairs.push_back(pairOf(piece[i]));
    }
    done += count;
  }
  take(signature, pairs);
}

// ---- Who searches --------------------------------------------------------------

class Searcher {
 public:
  virtual ~Searcher() = default;
  virtual void search(const Query& query) = 0;         // as it is measured
  virtual void pairs(const Query& query, Pairs*) = 0;  // for the comparison
};

class Ranking {
 public:
  void rank(uint32_t count, MallocArray<FsidPair>* hits) {
    MallocArray<uint32_t> counts;
    require(engine_.process_fid_info(&count, hits, &counts) == 0, "ranking failed");
    benchmark::DoNotOptimize(hits->get());
  }

 private:
  FidIndexSearchEngine engine_;
};

class Tessera final : public Searcher {
 public:
  explicit Tessera(const Table&) {
    MetaData meta;
    require(engine_.setConfig(IndexSysConfiguration()) == 0 && engine_.Init(&meta) == 0,
            "tables not loaded");
  }

  void search(const Query& query) override {
    prepare(query);
    MallocArray<FsidPair> files;
    MallocArray<uint32_t> counts;
    uint32_t found = 0;
    uint32_t files_num = 0;
    require(engine_.SearchSignatures(n_, query.signatures.data(), &found, ranges(), &files_num,
                                     &files, &counts) == 0,
            "search failed");
    benchmark::DoNotOptimize(files.get());
  }

  void pairs(const Query& query, Pairs* out) override {
    prepare(query);
    uint32_t found = 0;
    require(engine_.SearchSignatures(n_, query.signatures.data(), &found, ranges()) == 0 &&
                found == n_ / 2,
            "search failed");
    uint32_t count = 0;
    MallocArray<FsidPair> hits;
    require(engine_.build_sig_fid_info_tbl(n_, ranges(), &count, &hits) == 0, "hits not read");
    for (uint32_t i = 0; i < count; ++i) {
      out->push_back(pairOf({{}, hits[i].fid, hits[i].source}));
    }
  }

 private:
  void prepare(const Query& query) {
    n_ = static_cast<uint32_t>(query.signatures.size());
    numbers_.resize(3 * query.signatures.size());
  }
  QueryRanges ranges() {
    return {numbers_.data(), numbers_.data() + n_, numbers_.data() + 2 * size_t{n_}};
  }

  FidIndexSearchEngine engine_;
  uint32_t n_ = 0;
  std::vector<uint32_t> numbers_;
};

class Plain final : public Searcher {
 public:
  explicit Plain(const Table&) : search_(IndexSysConfiguration().max_ele_num_load) {}

  void search(const Query& query) override {
    uint32_t count = 0;
    auto hits = find(query, &count);
    ranking_.rank(count, &hits);
  }

  void pairs(const Query& query, Pairs* out) override {
    uint32_t count = 0;
    const auto hits = find(query, &count);
    for (uint32_t i = 0; i < count; ++i) {
      out->push_back(pairOf({{}, hits[i].fid, hits[i].source}));
    }
  }

 private:
  MallocArray<FsidPair> find(const Query& query, uint32_t* count) {
    const auto n = static_cast<uint32_t>(query.signatures.size());
    plain_search::Ranges ranges(n);
    search_.ranges(n, query.signatures.data(), &ranges);
    return search_.pairs(n, ranges, count);
  }

  plain_search::Search search_;
  Ranking ranking_;
};

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

// ---- Rows ----------------------------------------------------------------------

class CountingSystem final : public ForwardingSystem {
 public:
  uint64_t bytes_read = 0;
  uint64_t reads = 0;

  std::unique_ptr<platform::File> open(const char* path, platform::OpenMode mode) override {
    auto file = ForwardingSystem::open(path, mode);
    if (!file) return nullptr;
    return std::make_unique<CountingFile>(this, std::move(file));
  }

 private:
  class CountingFile final : public ForwardingFile {
   public:
    CountingFile(CountingSystem* owner, std::unique_ptr<platform::File> file)
        : ForwardingFile(std::move(file)), owner_(owner) {}
    int64_t read(void* buffer, size_t bytes) override {
      const int64_t got = ForwardingFile::read(buffer, bytes);
      ++owner_->reads;
      owner_->bytes_read += static_cast<uint64_t>(std::max<int64_t>(got, 0));
      return got;
    }

   private:
    CountingSystem* const owner_;
  };
};

std::vector<std::unique_ptr<Searcher>> searchers;  // all of them: gone before their files

// Made once for each table, and everything it answers compared at once.
template <typename Kind>
Searcher& searcher(const Table& of) {
  static std::map<const Table*, Searcher*> made;
  Searcher*& one = made[&of];
  if (one == nullptr) {
    searchers.push_back(std::make_unique<Kind>(of));
    one = searchers.back().get();
    Pairs pairs;
    for (const auto& [n, queries] : of.queries) {
      for (const Query& query : queries) {
        pairs.clear();
        one->pairs(query, &pairs);
        require(pairs == query.expected, "different pairs found");
      }
    }
  }
  return *one;
}

template <typename Kind>
void BM_Search(benchmark::State& state, const std::string& kind, const std::string& size,
               uint32_t n, bool counts_bytes) {
  const Table& on = table(kind, size);
  Searcher& by = searcher<Kind>(on);
  const std::vector<Query>& queries = on.queries.at(n);
  if (counts_bytes) {
    CountingSystem counting;
    for (const Query& query : queries) by.search(query);
    const auto searches = static_cast<double>(queries.size());
    state.counters["bytes"] = static_cast<double>(counting.bytes_read) / searches;
    state.counters["reads"] = static_cast<double>(counting.reads) / searches;
  }
  size_t next = 0;
  for (auto _ : state) {
    by.search(queries[next]);
    next = next + 1 < queries.size() ? next + 1 : 0;
  }
  state.SetItemsProcessed(state.iterations() * n);
}

void BM_Threads(benchmark::State& state, const std::string& size, uint32_t n) {
  static const Table* on = nullptr;
  if (state.thread_index() == 0) {
    on = &table("uniform", size);
    require(vnInitSearchSystem() == 0 && vnStartSearchEngine("", 0, nullptr) == 0, "not started");
  }
  size_t next = 0;
  for (auto _ : state) {  // the threads wait for each other here
    const std::vector<Query>& queries = on->queries.at(n);
    const size_t mine = (next++ + 7 * static_cast<size_t>(state.thread_index())) % queries.size();
    SearchResult result;
    require(vnSearchSignatures(n, queries[mine].signatures.data(), 1, &result) == 0 &&
                result.sig_find_num == n / 2,
            "search failed");
  }
  state.SetItemsProcessed(state.iterations());
  if (state.thread_index() == 0) vnStopSearchEngine();
}

bool environmentIs(const char* name, const char* value) {
  const char* const text = std::getenv(name);
  return text != nullptr && std::strcmp(text, value) == 0;
}

using Row = void (*)(benchmark::State&, const std::string&, const std::string&, uint32_t, bool);

void addRow(const std::string& kind, const std::string& size, uint32_t n, const std::string& who,
            Row row, bool counts_bytes) {
  const std::string name = "match/" + kind + "/" + size + "/" + std::to_string(n) + "/" + who;
  benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) {
    row(state, kind, size, n, counts_bytes);
  })->Unit(benchmark::kMicrosecond);
}

void addRows() {
  std::vector<std::string> sizes = {"1M", "10M"};
  if (environmentIs("MATCH_ELEMENTS", "100M")) sizes.push_back("100M");
  for (const std::string kind : {"uniform", "text"}) {
    for (const std::string& size : sizes) {
      for (const uint32_t n : kSizes) {
        addRow(kind, size, n, "tessera", BM_Search<Tessera>, true);
        addRow(kind, size, n, "plain", BM_Search<Plain>, true);
        addRow(kind, size, n, "lmdb", BM_Search<Lmdb>, false);
        if (size != "1M" && !environmentIs("MATCH_PEERS", "all")) continue;
        addRow(kind, size, n, "rocksdb", BM_Search<RocksDb>, false);
        addRow(kind, size, n, "sqlite", BM_Search<Sqlite>, false);
      }
    }
  }
  for (const uint32_t n : {40u, 400u}) {
    for (const int threads : {1, 2}) {
      const std::string name = "match/threads/1M/" + std::to_string(n);
      benchmark::RegisterBenchmark(name.c_str(),
                                   [n](benchmark::State& state) { BM_Threads(state, "1M", n); })
          ->Unit(benchmark::kMicrosecond)

          ->Threads(threads)
          ->UseRealTime();
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  // Short rounds unless something else is asked for: there are many rows.
  char min_time[] = "--benchmark_min_time=0.05";
  std::vector<char*> arguments(argv, argv + argc);
  arguments.insert(arguments.begin() + 1, min_time);
  argc = static_cast<int>(arguments.size());
  arguments.push_back(nullptr);
  argv = arguments.data();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  const fs::path start = fs::current_path();
  std::string name = (start / "match_search.XXXXXX").string();
  require(mkdtemp(name.data()) != nullptr, "no directory to work in");
  top = name;
  addRows();
  benchmark::RunSpecifiedBenchmarks();
  searchers.clear();
  fs::current_path(start);
  fs::remove_all(top);
  return 0;
}
