// What the programs of this directory share: the life of an index as a list of
// calls, a model of what each call leaves behind, and ways to look at what is
// really there afterwards.
//
// The model knows what a batch is: the opening of fresh trees, one saving of all
// pending documents, one deletion with all its file IDs. What is pending lives
// in memory only.
#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "forwarding_system.h"
#include "platform.h"
#include "signature.h"
#include "table_twin.h"

namespace story {

inline constexpr char kIndexDirectory[] = "sig_index_DB";
inline constexpr char kTreesBaseName[] = "sig_index_DB/fid_index";

// ---- The calls --------------------------------------------------------

enum class Kind { kConfigure, kOpen, kAdd, kDelete, kSave, kClose };

struct Call {
  Kind kind;
  std::vector<int64_t> file_ids = {};  // one for an addition; kConfigure: the content size
  std::vector<Signature> signatures = {};
};

// Files of the current directory that the calls need. The collector is full
// with 4 * max_fid_num documents.
inline constexpr uint64_t kMaxFidNum = 2;
void writeConfiguration();

// Four sessions: a fresh index, deletions that free blocks, documents that come
// back, tables of the same size with another content. The largest documents have
// `large` signatures; with kLargeDocuments a batch outgrows the caches
// when blocks are small.
inline constexpr size_t kLargeDocuments = 260;
std::vector<Call> calls(uint64_t seed, size_t large = kLargeDocuments);

// Makes the call: the export, or the index system's function where there is
// none of its own (saving).
int perform(const Call& call);

// ---- The model --------------------------------------------------------

using Record = std::tuple<int32_t, int32_t, uint64_t>;  // fid, source, signatureKey()
using Records = std::set<Record>;

struct Document {
  int32_t source;
  std::vector<uint64_t> signatures;
  auto operator<=>(const Document&) const = default;
};

// The index as the calls so far leave it.
struct Book {
  Records saved;
  std::map<int32_t, Document> pending;  // by fid
  bool open = false;
  bool untold = false;       // a deletion has failed, and no save has told so
  int64_t content_size = 0;  // configured; 0 before that
  auto operator<=>(const Book&) const = default;

  bool full() const { return pending.size() == 4 * kMaxFidNum; }
  bool queue(int64_t file_id, const std::vector<Signature>& signatures);  // false: pending already
  void save();
  void erase(const std::vector<int64_t>& file_ids);
};

// What the call does when nothing fails; returns what it must return.
int apply(const Call& call, Book* book);

// ---- What is there ----------------------------------------------------

// Opens the trees for writing, which undoes what a crash left, verifies each of
// them and compares them with each other. Null with a reason in *problem.
std::unique_ptr<Records> readIndex(std::string* problem);

// The bytes of the four tables that belong to these records, and whether they
// are what is on disk.
const table_twin::Files& tablesOf(const Records& records);
bool tablesOnDiskAre(const Records& records);

// Whether the configuration file is what it was, with this content size.
bool configurationIs(int64_t content_size);

// One search for each document of the story: file IDs and levels.
using Answers = std::vector<std::vector<std::pair<int64_t, int>>>;
const Answers& answersOf(const std::vector<Call>& calls, const Records& records);

// What the match exports answer: nothing when the tables are refused. A search
// that fails has one answer with the level -1.
std::optional<Answers> search(const std::vector<Call>& calls);

// tablesOf() and answersOf() keep what they made; this gives the memory back.
void forgetWhatWasMade();

std::string readFile(const std::string& name);
bool exists(const std::string& name);

// ---- A system for these tests ----------------------------------------

// The native system with small blocks, which give trees of several levels from
// few records, and without syncs: the system outlives a killed process, so they
// would only take time.
class QuickSystem : public ForwardingSystem {
 public:
  explicit QuickSystem(uint32_t block_bytes) : block_bytes_(block_bytes) {}

  std::unique_ptr<platform::File> open(const char* path, platform::OpenMode mode) override;
  bool syncDirectory(const char*) override { return true; }
  uint32_t allocationGranularity() override { return block_bytes_; }

 private:
  const uint32_t block_bytes_;
};

// ---- How much of a sweep runs ----------------------------------------

enum class Build { kPlain, kAddressSanitizer, kThreadSanitizer, kWine };
Build build();

// Every how many points are tried: `plain`, or one of the others where a run
// costs more. TESSERA_STRIDE overrides them all.
uint64_t stride(uint64_t plain, uint64_t address, uint64_t thread, uint64_t wine);

// The only point to be tried, from TESSERA_POINT, or 0.
uint64_t onlyPoint();

// "TESSERA_SEED=1 TESSERA_POINT=7 build/.../tests/PROGRAM --gtest_filter=SUITE.TEST"
std::string repeatLine(uint64_t seed, uint64_t point);

}  // namespace story
