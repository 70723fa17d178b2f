// The library as this command uses it: sessions that end by themselves, and
// failures with a reason. All of it works on the current directory, the home.
//
// The library's functions only tell that they failed; why stands in its log.
// The sessions therefore collect the messages and put the telling one into the
// Failure they throw. They listen only during their own calls: while anybody does,
// texts are fingerprinted ten times as slowly. Tests: tests/tool/index_test.py.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "commands.h"
#include "library/signature_list.h"

namespace tool {

inline constexpr int64_t kRootFileId = -1;  // the library's own document in every index

struct Match {
  int64_t file_id;
  int level;      // 0, 1 or 2
  uint32_t hits;  // signatures that it shares with the query
};

// Every selected passage of a text.
SignatureList textSignatures(std::string_view text);

// The rest of what makes signatures. One lives at a time; any thread may use it.
class Generator {
 public:
  // The selection is that of sparseSignatures(). Writes the configuration file.
  explicit Generator(Selection selection);
  ~Generator();
  Generator(const Generator&) = delete;
  Generator& operator=(const Generator&) = delete;

  // A few evenly spread ones. The generator is for sparse selections.
  SignatureList sparseSignatures(std::string_view text) const;

  SignatureList binarySignatures(std::string_view content) const;
};

// An index open for writing. Its end writes what was added, whatever happens.
class IndexSession {
 public:
  IndexSession();
  ~IndexSession();
  IndexSession(const IndexSession&) = delete;
  IndexSession& operator=(const IndexSession&) = delete;

  // After a failure nothing tells what the index holds of what was added before.
  void add(int64_t file_id, SignatureList* signatures);
  void remove(std::vector<int64_t> file_ids);

  // Writes everything and the search tables; the session is over.
  void close();

 private:
  bool open_ = true;
};

// Loaded search tables.
class MatchSession {
 public:
  MatchSession();
  ~MatchSession();
  MatchSession(const MatchSession&) = delete;
  MatchSession& operator=(const MatchSession&) = delete;

  // The documents that share signatures with a query of `bytes` bytes, highest
  // level first, then most hits, then by file ID. May be called from several threads.
  std::vector<Match> match(SignatureList* signatures, size_t bytes) const;
};

}  // namespace tool
