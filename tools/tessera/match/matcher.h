// Compares files with the index: each is opened, and every document in it is a query.
// Tests: tests/tool/match_test.py.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "extract/limits.h"
#include "extract/part.h"
#include "files/walk.h"
#include "inspect/inspector.h"
#include "library/fingerprint.h"
#include "library/library.h"
#include "match/passages.h"
#include "store/catalogue.h"
#include "store/home.h"

namespace tool {

// A document of the index that shares signatures with a query.
struct Finding {
  Match match;
  std::optional<DocumentEntry> document;  // none: the catalogue does not know it
  Passages passages;                      // when they were asked for

  std::string name() const;
};

// One document of an inspected file, and what became of it.
struct Query {
  std::string member;  // inside the file; empty: the file itself
  std::string type;
  std::string encoding;
  uint64_t size = 0;
  Sha256 sha256{};
  Form form = Form::kBinary;
  Reason reason = Reason::kNone;  // why it was not inspected, or not wholly
  std::string detail;
  bool inspected = false;  // at least in part
  size_t signatures = 0;   // that were searched
  size_t common = 0;       // that were left out of the search
  std::vector<Finding> findings;

  enum class Outcome { kMatch, kUninspected, kContainer, kTooShort, kNoMatch };
  Outcome outcome() const;

  std::string verdictText() const;  // "not wholly inspected: damaged (...)"
};

struct InspectedFile {
  FoundFile file;
  bool unreadable = false;  // which is an error; its only query says why
  std::vector<Query> queries;

  std::string nameOf(const Query& query) const {
    return query.member.empty() ? file.name : file.name + "!" + query.member;
  }
};

class Matcher {
 public:
  struct Settings {
    Limits limits;
    int min_level = 1;
    bool explain = false;
  };

  // Makes the home the current directory and keeps its tables from being rewritten.
  // Throws Failure when there is no index, or none that can be used.
  Matcher(const std::filesystem::path& home, const Settings& settings);

  // May be called from any thread. Throws Failure when nothing can be inspected at all.
  InspectedFile inspect(const FoundFile& file);

 private:
  void readCatalogue(const std::filesystem::path& home);
  void inspectOpened(int descriptor, InspectedFile* inspected);
  void search(const Part& part, Query* query);
  Finding finding(const Match& match);
  void explain(std::string_view text, const SignatureList& signatures, Query* query);

  const Settings settings_;
  std::unique_ptr<Catalogue> catalogue_;  // may be null
  std::mutex catalogue_mutex_;            // held while the catalogue is asked
  std::optional<Fingerprinter> fingerprinter_;
  std::optional<DirectoryLock> tables_;
  std::optional<MatchSession> session_;
  SignatureList common_;
  Inspector inspector_;
};

}  // namespace tool
