#include "index_story.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <new>

#include "btree.h"
#include "documents.h"
#include "match_twin.h"
#include "signature.h"
#include "tessera.h"
#include "tree_records.h"
#include "vn_index_system_btree.h"

#if defined(__has_feature)
#define STORY_HAS_FEATURE(name) __has_feature(name)
#else
#define STORY_HAS_FEATURE(name) 0
#endif

#if defined(__SANITIZE_THREAD__)
// Without tables the match side unlocks a mutex that it does not hold; the mutex
// refuses, and nothing comes of it.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
  return "mutex:vnGetSearchTableSigGenLevel\n";
}
#endif

namespace story {

namespace {

constexpr int64_t kBase = -1;
constexpr uint32_t kLevel = 3;
constexpr Signature kRootSignature = {{255, 255, 255, 255, 255, 255, 255, 255}};

int32_t fidOf(int64_t file_id) { return static_cast<int32_t>(file_id - kBase); }

unsigned char (*exported(const std::vector<Signature>& signatures))[8] {
  return reinterpret_cast<unsigned char(*)[8]>(const_cast<Signature*>(signatures.data()));
}

}  // namespace

#ifndef _WIN32
namespace {

// The sweeps write hundreds of thousands of files that live for milliseconds:
// they do so in memory when there is room, unless a place is named.
[[maybe_unused]] const bool kInMemory = [] {
  constexpr char kMemory[] = "/dev/shm";
  constexpr uintmax_t kRoom = 48 << 20;
  std::error_code failed;
  const auto space = std::filesystem::space(kMemory, failed);
  return !failed && space.available >= kRoom && setenv("TMPDIR", kMemory, 0) == 0;
}();

}  // namespace
#endif

// ---- The calls ----

namespace {

constexpr char kConfiguration[] = "index_sys_config.txt";

std::string configuration(int64_t content_size) {
  return "max_fid_num=" + std::to_string(kMaxFidNum) + "\nmax_ele_num_save=100\n" +
         (content_size == 0 ? "" : "max_content_size=" + std::to_string(content_size) + "\n");
}

}  // namespace

void writeConfiguration() { std::ofstream(kConfiguration, std::ios::binary) << configuration(0); }

std::vector<Call> calls(uint64_t seed, size_t large) {
  // Documents share a pool, so that signatures have several holders.
  const std::vector<Signature> pool = documents::signatures(1500, seed, 512);
  documents::Random random(seed);
  const auto some = [&](size_t count) {
    std::vector<Signature> picked;
    for (size_t i = 0; i < count; ++i) picked.push_back(pool[random.below(pool.size())]);
    return picked;
  };
  std::vector<Call> calls;
  const auto add = [&](int64_t file_id, std::vector<Signature> signatures) {
    calls.push_back({Kind::kAdd, {file_id}, std::move(signatures)});
  };
  const auto erase = [&](std::vector<int64_t> file_ids) {
    calls.push_back({Kind::kDelete, std::move(file_ids)});
  };
  const auto call = [&](Kind kind) { calls.push_back({kind}); };

  calls.push_back({Kind::kConfigure, {2 << 20}});
  call(Kind::kOpen);
  for (int64_t file_id = 1; file_id <= 7; ++file_id) add(file_id, some(large));
  add(8, some(5));  // the collector is full
  add(-9, some(12));
  call(Kind::kSave);
  call(Kind::kClose);

  calls.push_back({Kind::kConfigure, {3 << 20}});
  call(Kind::kOpen);
  erase({1, 3, 4, 7});
  add(10, some(7));
  erase({10, 2, 77});  // the first is pending and stays
  add(1, some(40));
  add(8, some(3));
  call(Kind::kSave);
  erase({1});
  add(1, some(70));
  for (int64_t file_id = 20; file_id < 28; ++file_id) add(file_id, some(2));
  call(Kind::kClose);

  // Two documents alike but for what they hold.
  const auto fresh = documents::signatures(40, seed + 1, 512);
  call(Kind::kOpen);
  add(30, {fresh.begin(), fresh.begin() + 20});
  call(Kind::kClose);
  call(Kind::kOpen);
  erase({30});
  add(30, {fresh.begin() + 20, fresh.end()});
  call(Kind::kSave);
  call(Kind::kClose);
  return calls;
}

int perform(const Call& call) {
  switch (call.kind) {
    case Kind::kConfigure:
      return SetMaxContentSize(static_cast<int>(call.file_ids[0]));
    case Kind::kOpen:
      return InitIndexSystem();
    case Kind::kAdd:
      return AddDocSignature(call.file_ids[0], exported(call.signatures),
                             static_cast<int>(call.signatures.size()));
    case Kind::kDelete: {
      std::vector<int64_t> file_ids = call.file_ids;
      return DelDocSignature(file_ids.data(), static_cast<int>(file_ids.size()));
    }
    case Kind::kSave:
      return dlp_btree::vnStopDocIndex();
    case Kind::kClose:
      return ExitIndexSystem();
  }
  return -1;
}

// ---- The model ----

bool Book::queue(int64_t file_id, const std::vector<Signature>& signatures) {
  Document document = {static_cast<int32_t>(static_cast<uint32_t>(file_id)), {}};
  for (const Signature& signature : signatures) {
    document.signatures.push_back(signatureKey(signature));
  }
  return pending.try_emplace(fidOf(file_id), std::move(document)).second;
}

void Book::save() {
  for (const auto& [fid, document] : pending) {
    for (const uint64_t key : document.signatures) saved.insert({fid, document.source, key});
  }
  pending.clear();
}

void Book::erase(const std::vector<int64_t>& file_ids) {
  for (const int64_t file_id : file_ids) {
    const int32_t fid = fidOf(file_id);
    saved.erase(saved.lower_bound({fid, INT32_MIN, 0}), saved.upper_bound({fid, INT32_MAX, ~0ull}));
  }
}

int apply(const Call& call, Book* book) {
  switch (call.kind) {
    case Kind::kConfigure:
      book->content_size = call.file_ids[0];
      return 0;
    case Kind::kOpen:
      book->open = true;
      book->queue(kBase, {kRootSignature});
      return 0;
    case Kind::kAdd:
      if (book->full()) book->save();
      return book->queue(call.file_ids[0], call.signatures) ? 0 : 2;
    case Kind::kDelete:
      book->erase(call.file_ids);
      return 0;
    case Kind::kSave:
      book->save();
      return 0;
    case Kind::kClose:
      book->save();
      book->open = false;
      return 0;
  }
  return -1;
}

// ---- What is there ----

namespace {

template <typename Tree, typename Visit>
bool walk(TreeStore* store, size_t number, std::string* problem, Visit visit) {
  Tree tree(store, number);
  if (!tree.verify(problem)) {
    *problem = "tree " + std::to_string(number) + ": " + *problem;
    return false;
  }
  uint64_t count = 0;
  for (uint64_t leaf = tree.nextLeaf(0); leaf != 0; leaf = tree.nextLeaf(leaf)) {
    count += visit(&tree, leaf);
  }
  if (tree.is_valid() && tree.size() == count) return true;
  *problem = "tree " + std::to_string(number) + " cannot be read";
  return false;
}

template <typename Record>
auto gather(std::vector<Record>* all) {
  return [all](auto* tree, uint64_t leaf) {
    std::vector<Record> records;
    tree->readLeaf(leaf, &records);
    all->insert(all->end(), records.begin(), records.end());
    return records.size();
  };
}

}  // namespace

std::unique_ptr<Records> readIndex(std::string* problem) {
  auto records = std::make_unique<Records>();
  if (!exists(kIndexDirectory)) return records;
  TreeStore store(kTreesBaseName, {".fidt", ".sidt", ".sigt"}, AccessType::kReadWrite, {});
  if (!store.valid()) {
    *problem = "the trees cannot be opened";
    return nullptr;
  }
  std::vector<FidSigRecord> fid_sig;
  std::vector<SrcFidRecord> src_fid;
  std::vector<SigFidRecord> sig_fid;
  if (!walk<FidSigTree>(&store, 0, problem, gather(&fid_sig)) ||
      !walk<SrcFidTree>(&store, 1, problem, gather(&src_fid)) ||
      !walk<SigFidTree>(&store, 2, problem, gather(&sig_fid))) {
    return nullptr;
  }
  std::set<std::pair<int32_t, int32_t>> sources, expected_sources;
  for (const FidSigRecord& r : fid_sig) {
    records->insert({r.fid, r.source, signatureKey(r.signature)});
    expected_sources.insert({r.source, r.fid});
  }
  for (const SrcFidRecord& r : src_fid) sources.insert({r.source, r.fid});
  Records by_signature;
  for (const SigFidRecord& r : sig_fid) {
    by_signature.insert({r.fid, r.source, signatureKey(r.signature)});
  }
  if (by_signature != *records || sources != expected_sources) {
    *problem = "the trees hold different records";
    return nullptr;
  }
  return records;
}

namespace {

// A sweep meets the same few states again and again.
std::map<Records, table_twin::Files> made_tables;
std::map<std::pair<uint64_t, Records>, Answers> made_answers;

}  // namespace

void forgetWhatWasMade() {
  made_tables.clear();
  made_answers.clear();
}

const table_twin::Files& tablesOf(const Records& records) {
  const auto known = made_tables.find(records);
  if (known != made_tables.end()) return known->second;
  std::set<IndexModel::SigFid> postings;
  for (const auto& [fid, source, key] : records) {
    postings.insert({IndexModel::bytesOf(signatureOf(key)), fid, source});
  }
  return made_tables.emplace(records, table_twin::files(postings, kBase, kLevel)).first->second;
}

bool tablesOnDiskAre(const Records& records) {
  const table_twin::Files& expected = tablesOf(records);
  const std::string base = std::string(kIndexDirectory) + "/search_table";
  return readFile(base + ".wtbl") == expected.weak && readFile(base + ".stbl") == expected.strong &&
         readFile(base + ".wmeta") == expected.weak_meta &&
         readFile(base + ".smeta") == expected.strong_meta;
}

bool configurationIs(int64_t content_size) {
  return readFile(kConfiguration) == configuration(content_size);
}

namespace {

std::vector<std::vector<Signature>> queries(const std::vector<Call>& calls) {
  std::vector<std::vector<Signature>> queries = {{kRootSignature}};
  for (const Call& call : calls) {
    if (call.kind != Kind::kAdd) continue;
    std::vector<Signature> query = call.signatures;
    std::sort(query.begin(), query.end());
    query.erase(std::unique(query.begin(), query.end()), query.end());
    queries.push_back(std::move(query));
  }
  return queries;
}

}  // namespace

const Answers& answersOf(const std::vector<Call>& calls, const Records& records) {
  uint64_t stories = calls.size();  // tells one list of queries from another
  for (const Call& call : calls) {
    for (const Signature& signature : call.signatures) {
      stories = (stories ^ signatureKey(signature)) * 1099511628211u;
    }
  }
  const auto known = made_answers.find({stories, records});
  if (known != made_answers.end()) return known->second;
  Answers answers;
  for (const std::vector<Signature>& query : queries(calls)) {
    std::set<uint64_t> wanted;
    for (const Signature& signature : query) wanted.insert(signatureKey(signature));
    std::vector<match_twin::Pair> hits;
    for (const auto& [fid, source, key] : records) {
      if (wanted.contains(key)) hits.push_back({fid, source});
    }
    answers.emplace_back();
    for (const match_twin::Candidate& candidate : match_twin::candidates(hits)) {
      answers.back().push_back(
          {kBase + candidate.fid, static_cast<int>(match_twin::level(
                                      static_cast<uint32_t>(query.size()), 1, candidate.hits))});
    }
  }
  return made_answers.emplace(std::pair{stories, records}, std::move(answers)).first->second;
}

std::optional<Answers> search(const std::vector<Call>& calls) {
  if (InitMatchSystem() != 0) return std::nullopt;
  Answers answers;
  for (const std::vector<Signature>& query : queries(calls)) {
    _DLPSigMatchRet any;
    _DLPSigMatchRet* result = &any;
    int count = 0;
    const int status =
        MatchSignature(exported(query), static_cast<int>(query.size()), 1, &result, &count);
    answers.emplace_back();
    if (status != 0) {
      answers.back().push_back({0, -1});
      continue;
    }
    for (int i = 0; i < count; ++i) {
      answers.back().push_back({result[i].fileID, result[i].match_level});
    }
    FreeSigMatchRet(result);
  }
  EXPECT_EQ(0, ExitMatchSystem());
  return answers;
}

std::string readFile(const std::string& name) {
  std::ifstream file(name, std::ios::binary | std::ios::ate);
  std::string content(file ? static_cast<size_t>(file.tellg()) : 0, '\0');
  file.seekg(0);
  file.read(content.data(), static_cast<std::streamsize>(content.size()));
  return content;
}

bool exists(const std::string& name) {
  std::error_code ignored;
  return std::filesystem::exists(name, ignored);
}

// ---- A system for these tests ----

namespace {

class QuickFile final : public platform::File {
 public:
  void wrap(std::unique_ptr<platform::File> file) { file_ = std::move(file); }
  bool seek(uint64_t offset) override { return file_->seek(offset); }
  int64_t read(void* buffer, size_t bytes) override { return file_->read(buffer, bytes); }
  bool write(const void* data, size_t bytes) override { return file_->write(data, bytes); }
  int64_t size() override { return file_->size(); }
  bool truncate(uint64_t size) override { return file_->truncate(size); }
  bool sync() override { return true; }

 private:
  std::unique_ptr<platform::File> file_;
};

}  // namespace

std::unique_ptr<platform::File> QuickSystem::open(const char* path, platform::OpenMode mode) {
  // The memory first: a failed opening has changed nothing.
  std::unique_ptr<QuickFile> file(new (std::nothrow) QuickFile);
  if (!file) return nullptr;
  auto native = platform::native().open(path, mode);
  if (!native) return nullptr;
  file->wrap(std::move(native));
  return file;
}

// ---- How much of a sweep runs ----

Build build() {
#if defined(_WIN32)
  return Build::kWine;
#elif defined(__SANITIZE_THREAD__)
  return Build::kThreadSanitizer;
#elif defined(__SANITIZE_ADDRESS__) || STORY_HAS_FEATURE(address_sanitizer)
  return Build::kAddressSanitizer;
#else
  return Build::kPlain;
#endif
}

namespace {

uint64_t number(const char* variable, uint64_t fallback) {
  const char* const given = std::getenv(variable);
  return given != nullptr ? std::strtoull(given, nullptr, 0) : fallback;
}

// kill_test.cpp is built into fault_kill.
std::string programOf(const char* source) {
  const std::string stem = std::filesystem::path(source).stem().string();
  return "fault_" + stem.substr(0, stem.rfind("_test"));
}

}  // namespace

uint64_t stride(uint64_t plain, uint64_t address, uint64_t thread, uint64_t wine) {
  const uint64_t strides[] = {plain, address, thread, wine};
  return std::max<uint64_t>(1, number("TESSERA_STRIDE", strides[static_cast<int>(build())]));
}

uint64_t onlyPoint() { return number("TESSERA_POINT", 0); }

std::string repeatLine(uint64_t seed, uint64_t point) {
  const testing::TestInfo* const test = testing::UnitTest::GetInstance()->current_test_info();
  return "to repeat: TESSERA_SEED=" + std::to_string(seed) +
         " TESSERA_POINT=" + std::to_string(point) + " " + programOf(test->file()) +
         " --gtest_filter=" + test->test_suite_name() + "." + test->name();
}

}  // namespace story
