// The slow, obvious twin of a whole index: what the exports of the index and
// match families answer, and which bytes the search tables hold, after the same
// calls. It knows nothing of trees, buffers or bisection. Used by the tests that
// see only the built library; host_session.h makes the real calls.
#pragma once

#include <cstdint>
#include <map>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "documents.h"

using Signatures = std::vector<Signature>;

// A posting, in the order of the strong table.
struct Element {
  Signature signature;
  int32_t fid;  // the file ID's distance from the base
  int32_t source;
};
bool operator<(const Element& left, const Element& right);

// The bytes of the four search tables, by suffix: ".wtbl", ".stbl", ".wmeta" and
// ".smeta".
using TableFiles = std::map<std::string, std::string>;
TableFiles searchTables(int64_t base, uint32_t level, const std::set<Element>& elements);

// The twelve bytes of "meta_data.bin", which also head both meta files.
std::string metaData(int64_t base, uint32_t level);

struct Match {
  int64_t file_id;
  int level;
};
bool operator==(const Match& left, const Match& right);
std::ostream& operator<<(std::ostream& out, const Match& match);
using Matches = std::vector<Match>;

// What MatchSignature() finds for `query` in an index of these elements.
Matches rank(int64_t base, const std::set<Element>& elements, const Signatures& query, int fsz);

// An index over several sessions. open(), add(), erase() and close() return what
// InitIndexSystem(), AddDocSignature(), DelDocSignature() and ExitIndexSystem()
// do.
class IndexModel {
 public:
  explicit IndexModel(size_t capacity = 4 * 2096, int64_t base = -1)
      : capacity_(capacity), base_(base) {}

  int open();
  int add(int64_t file_id, const Signatures& signatures);
  int erase(const std::vector<int64_t>& file_ids);
  int close();

  const std::set<Element>& saved() const { return saved_; }
  TableFiles tables() const { return searchTables(base_, 3, saved_); }
  Matches match(const Signatures& query, int fsz) const { return rank(base_, saved_, query, fsz); }

 private:
  struct Document {
    int32_t source;
    Signatures signatures;
  };
  int queue(int64_t file_id, const Signatures& signatures);
  void save();

  size_t capacity_;  // pending documents, the root document among them
  int64_t base_;
  bool opened_ = false;
  std::map<int32_t, Document> pending_;  // by fid
  std::set<Element> saved_;
};
