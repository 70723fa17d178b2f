// The library as this command uses it: sessions that end by themselves, and
// failures with a reason. All of it works on the current directory, the home.
//
// The library's functions only tell that they failed; why stands in its log.
// The sessions therefore collect the messages and put the telling one into the
// Failure they throw. Tests: tests/tool/tool_test.py.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace tool {

using Signature = std::array<unsigned char, 8>;
using SignatureList = std::vector<Signature>;  // ascending, no two equal

struct Match {
  int64_t file_id;
  int level;  // 0, 1 or 2
};

// Turns texts into signatures while it lives. One at a time.
class Generator {
 public:
  Generator();  // writes the configuration file when there is none
  ~Generator();
  Generator(const Generator&) = delete;
  Generator& operator=(const Generator&) = delete;

  SignatureList signatures(std::string* text) const;  // empty: the text is too short
};

// An index open for writing. Its end writes what was added, whatever happens.
class IndexSession {
 public:
  IndexSession();
  ~IndexSession();
  IndexSession(const IndexSession&) = delete;
  IndexSession& operator=(const IndexSession&) = delete;

  // False, with *reason set, when the document was refused.
  bool add(int64_t file_id, SignatureList* signatures, std::string* reason);
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
  // level first, then by file ID.
  std::vector<Match> match(SignatureList* signatures, size_t bytes) const;
};

}  // namespace tool
