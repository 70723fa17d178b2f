// The index store against other stores: postings loaded in durable batches until
// the four search tables are written.
//
//   load/SIZE/STORE          from an empty directory to the tables; SIZE postings,
//                            100 to a document, a commit every 8384 documents
//   load/SIZE/STORE_nosync   the same, but nothing is synced
//   load/SIZE/limit          sorted in memory instead of stored
//   add/SIZE/STORE           100 documents more, and the tables written anew
//
// A row is one whole run. Its tables are compared with plainly sorted postings, so
// a row fails whose store loses anything. Counters: peak_MiB of the process (so
// run one row in a process: --benchmark_filter=^NAME$), disk_MiB that the store
// takes without the tables, and disk_ratio of that to the bare records.
//
//   cmake --preset linux-release -DTESSERA_BENCH=ON && cmake --build --preset linux-release
//   build/linux-release/bench/store_load --benchmark_filter='^load/1M/tessera$'
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "peers/posting_store.h"

namespace {

bool syncs_reach_disk = true;

}  // namespace

// The syncs of all stores pass through these, so that all of them can be without.
#pragma GCC visibility push(default)
extern "C" int fsync(int descriptor) {
  return syncs_reach_disk ? static_cast<int>(::syscall(SYS_fsync, descriptor)) : 0;
}
extern "C" int fdatasync(int descriptor) {
  return syncs_reach_disk ? static_cast<int>(::syscall(SYS_fdatasync, descriptor)) : 0;
}
#pragma GCC visibility pop

namespace {

namespace fs = std::filesystem;
using OpenStore = std::unique_ptr<PostingStore> (*)(const std::string& directory, bool durable);

constexpr uint32_t kSignaturesOfADocument = 100;
constexpr uint32_t kDocumentsOfABatch = 8384;
constexpr uint32_t kDocumentsAdded = 100;
constexpr uint64_t kPostingBytes = 16 + 16;  // in the orders by document and by signature
constexpr uint64_t kDocumentBytes = 8;       // in the order by source

uint64_t mix(uint64_t value) {
  value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9u;
  value = (value ^ (value >> 27)) * 0x94D049BB133111EBu;
  return value ^ (value >> 31);
}

// Ascending: one from each hundredth of all signatures. One in eight is from a
// common stock, so that documents share some.
void makeSignatures(uint32_t document, std::vector<Signature>* signatures) {
  constexpr uint64_t kPart = UINT64_MAX / kSignaturesOfADocument;
  signatures->resize(kSignaturesOfADocument);
  for (uint32_t i = 0; i < kSignaturesOfADocument; ++i) {
    const uint64_t random = mix((uint64_t{document} << 8 | i) + 0x9E3779B97F4A7C15u);
    const uint64_t shared = mix(random % 4096 + 1) ^ i;
    const uint64_t value = i * kPart + (random >> 61 == 0 ? mix(shared) : random) % kPart;
    for (int byte = 0; byte < 8; ++byte) {
      (*signatures)[i].bytes[byte] = static_cast<unsigned char>(value >> (56 - 8 * byte));
    }
  }
}

// Documents first to end - 1; document d is file ID d, at distance d + 1 from the
// root document.
void add(PostingStore* store, uint32_t first, uint32_t end) {
  std::vector<Signature> signatures;
  for (uint32_t document = first; document < end; ++document) {
    makeSignatures(document, &signatures);
    store->add(document + 1, document, signatures);
    if ((document + 1) % kDocumentsOfABatch == 0) store->commit();
  }
  if (end % kDocumentsOfABatch != 0) store->commit();
}

// Do two directories hold the same four tables?
bool sameTables(const std::string& left, const std::string& right) {
  for (const char* const suffix :
       {kWeakTableSuffix, kStrongTableSuffix, kWeakMetaSuffix, kStrongMetaSuffix}) {
    const std::string name = std::string("/search_table") + suffix;
    std::ifstream one(left + name, std::ios::binary);
    std::ifstream other(right + name, std::ios::binary);
    std::vector<char> of_one(size_t{1} << 20);
    std::vector<char> of_other(of_one.size());
    do {
      one.read(of_one.data(), static_cast<std::streamsize>(of_one.size()));
      other.read(of_other.data(), static_cast<std::streamsize>(of_other.size()));
      if (one.bad() || other.bad() || one.gcount() == 0 || one.gcount() != other.gcount() ||
          !std::equal(of_one.begin(), of_one.begin() + one.gcount(), of_other.begin())) {
        return false;
      }
    } while (one);
  }
  return true;
}

double diskBytes(const std::string& directory) {
  double bytes = 0;
  for (const auto& entry : fs::recursive_directory_iterator(directory)) {
    if (entry.is_regular_file()) bytes += static_cast<double>(entry.file_size());
  }
  return bytes;
}

double peakMebibytes() {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024;
}

// A fresh directory below the current one, removed with what is in it.
class Directory {
 public:
  Directory() : path_("store_load." + std::to_string(::getpid())) {
    fs::remove_all(path_);
    for (const char* const name : {"/store", "/tables", "/expected"}) {
      fs::create_directories(path_ + name);
    }
  }
  ~Directory() { fs::remove_all(path_); }
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;

  std::string store() const { return path_ + "/store"; }
  std::string tables() const { return path_ + "/tables"; }
  std::string expected() const { return path_ + "/expected"; }

 private:
  const std::string path_;
};

// `stored` documents are loaded first, outside the measurement, then `documents`.
void run(benchmark::State& state, OpenStore open, bool durable, uint32_t stored,
         uint32_t documents) {
  const Directory directory;
  const uint32_t end = stored + documents;
  for (auto _ : state) {
    state.PauseTiming();
    std::unique_ptr<PostingStore> store;
    if (stored > 0) {
      store = open(directory.store(), durable);
      syncs_reach_disk = false;
      add(store.get(), 0, stored);
      store->writeTables(directory.tables());
      syncs_reach_disk = true;
      ::sync();
    }
    syncs_reach_disk = durable;
    state.ResumeTiming();
    if (!store) store = open(directory.store(), durable);
    add(store.get(), stored, end);
    store->writeTables(directory.tables());
    store.reset();
  }
  state.counters["peak_MiB"] = peakMebibytes();
  const double disk = diskBytes(directory.store());
  if (disk > 0) {
    const double bare =
        static_cast<double>(end) * (kSignaturesOfADocument * kPostingBytes + kDocumentBytes);
    state.counters["disk_MiB"] = disk / (1 << 20);
    state.counters["disk_ratio"] = disk / bare;
  }
  syncs_reach_disk = false;
  const std::unique_ptr<PostingStore> expected = openLimit("", false);
  add(expected.get(), 0, end);
  expected->writeTables(directory.expected());
  syncs_reach_disk = true;
  if (!sameTables(directory.tables(), directory.expected())) {
    state.SkipWithError("the tables are not those of the postings");
  }
  ::sync();  // what this row left to write is not the next one's
}

void addRow(const std::string& name, OpenStore open, bool durable, uint32_t stored,
            uint32_t documents) {
  benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) {
    run(state, open, durable, stored, documents);
  })->Unit(benchmark::kMillisecond);
}

void addRows() {
  struct Size {
    const char* name;
    uint32_t documents;
  };
  struct Peer {
    const char* name;
    OpenStore open;
  };
  for (const Size& size : {Size{"1M", 10000}, Size{"5M", 50000}}) {
    const std::string of_size = std::string(size.name) + "/";
    for (const Peer& peer :
         {Peer{"tessera", openTessera}, Peer{"lmdb_sorted", openLmdbSorted},
          Peer{"lmdb_arrival", openLmdbArrival}, Peer{"rocksdb", openRocksDb},
          Peer{"leveldb", openLevelDb}, Peer{"sqlite", openSqlite}, Peer{"limit", openLimit}}) {
      addRow("load/" + of_size + peer.name, peer.open, true, 0, size.documents);
      addRow("load/" + of_size + peer.name + "_nosync", peer.open, false, 0, size.documents);
    }
    for (const Peer& peer : {Peer{"tessera", openTessera}, Peer{"lmdb_sorted", openLmdbSorted}}) {
      addRow("add/" + of_size + peer.name, peer.open, true, size.documents, kDocumentsAdded);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  addRows();
  // One run of each row, whatever it takes, and no word of that in its name.
  std::vector<char*> arguments(argv, argv + argc);
  char once[] = "--benchmark_min_time=0";
  arguments.insert(arguments.begin() + 1, once);
  argc = static_cast<int>(arguments.size());
  argv = arguments.data();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
