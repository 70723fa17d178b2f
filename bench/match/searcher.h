// Who searches: Tessera, its plain form, and stores that look the same signatures up.
#pragma once

#include <memory>

#include "tables.h"

class Searcher {
 public:
  virtual ~Searcher() = default;

  virtual void search(const Query& query) = 0;             // as it is measured: found and ranked
  virtual void pairs(const Query& query, Pairs* out) = 0;  // what was found, appended
};

// Each searches the table whose directory is the current one. The stores are filled
// there, and closed when their searcher goes.
std::unique_ptr<Searcher> makeTessera(const Table& of);
std::unique_ptr<Searcher> makePlain(const Table& of);
std::unique_ptr<Searcher> makeLmdb(const Table& of);
std::unique_ptr<Searcher> makeRocksDb(const Table& of);
std::unique_ptr<Searcher> makeSqlite(const Table& of);
