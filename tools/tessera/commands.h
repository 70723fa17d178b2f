// What the tessera command can do: one function a verb, each with its options. A verb
// returns the exit status and throws Failure (failure.h) when it has to give up:
// main.cpp turns that into a message and the status 2. command_line.h fills the
// options in; what they mean for the user stands there.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "extract/limits.h"

namespace tool {

inline constexpr int kDone = 0;          // also: match found nothing
inline constexpr int kMatched = 1;       // match found a document
inline constexpr int kFailed = 2;        // something could not be done; stderr says what
inline constexpr int kNotInspected = 3;  // nothing matched, but not everything was opened

enum class ProgressStyle { kAuto, kNone, kJson };

// What every verb has.
struct CommonOptions {
  std::filesystem::path home;
  ProgressStyle progress = ProgressStyle::kAuto;
};

// Which files: what is named, and what is below it.
struct FileChoice {
  enum class Links { kNamed, kAll, kNone };

  std::vector<std::string> paths;       // "-" is standard input, where a verb takes it
  std::vector<std::string> files_from;  // lists of paths; "-" is standard input
  bool null_separated = false;          // the lists end each path with a NUL
  std::vector<std::string> include;     // globs as of grep --include: base names
  std::vector<std::string> exclude;
  std::vector<std::string> exclude_directories;
  Links links = Links::kNamed;
  bool one_file_system = false;
};

// How documents are opened.
struct InspectOptions {
  Limits limits;
  unsigned jobs = 0;  // documents opened at once; 0: as many as there are processors
};

enum class Selection { kFull, kSparse };

struct IndexOptions {
  FileChoice files;
  InspectOptions inspect;
  Selection selection = Selection::kFull;
  std::string label;
  bool prune = false;
  bool prune_empty = false;  // with it, also what was below named directories that are empty
};

enum class Report { kText, kJson, kSarif };

struct MatchOptions {
  FileChoice files;
  InspectOptions inspect;
  int min_level = 1;
  bool explain = false;
  bool lenient = false;
  Report report = Report::kText;
};

struct ListOptions {
  std::vector<std::string> paths;  // only these, and what is below them; none: all
  std::string label;
  bool json = false;
};

struct DeleteOptions {
  std::vector<std::string> paths;  // documents, or directories with all below
  std::vector<int64_t> ids;
  std::string label;  // all documents with this label
};

struct StatsOptions {
  bool json = false;
};

struct VerifyOptions {
  bool json = false;
};

struct RebuildOptions {
  bool from_catalogue = false;  // the trees too, not the search tables alone
};

struct ExportOptions {
  enum class What { kCatalogue, kTables };
  enum class Format { kCsv, kJson };

  What what = What::kCatalogue;
  Format format = Format::kCsv;
};

struct SigOptions {
  std::vector<std::string> files;  // "-" is standard input
  InspectOptions inspect;
  Selection selection = Selection::kFull;
  bool json = false;
};

struct TextOptions {
  std::string file;  // "-" is standard input
  InspectOptions inspect;
};

struct WatchOptions {
  IndexOptions index;
  unsigned settle_seconds = 2;  // how long a file must have been left alone
};

struct CommonTextOptions {
  enum class Action { kAdd, kRemove, kList, kSuggest };

  Action action = Action::kList;
  std::vector<std::string> files;
  unsigned min_documents = 0;  // kSuggest: signatures in at least as many; 0: a tenth
  bool json = false;           // kList, kSuggest
  InspectOptions inspect;
};

int indexCommand(const CommonOptions& common, const IndexOptions& options);
int matchCommand(const CommonOptions& common, const MatchOptions& options);
int listCommand(const CommonOptions& common, const ListOptions& options);
int deleteCommand(const CommonOptions& common, const DeleteOptions& options);
int statsCommand(const CommonOptions& common, const StatsOptions& options);
int verifyCommand(const CommonOptions& common, const VerifyOptions& options);
int rebuildCommand(const CommonOptions& common, const RebuildOptions& options);
int exportCommand(const CommonOptions& common, const ExportOptions& options);
int sigCommand(const CommonOptions& common, const SigOptions& options);
int textCommand(const CommonOptions& common, const TextOptions& options);
int watchCommand(const CommonOptions& common, const WatchOptions& options);
int commonCommand(const CommonOptions& common, const CommonTextOptions& options);

}  // namespace tool
