// What it costs that a batch happens whole: the same saves with the undo journal
// and without it.
//
// Without means written in place with one sync for each file: a System in front
// of the native one swallows the journal and the syncs of directories. The two
// take turns in one run, in fresh directories below the current one, and what is
// printed is the median of each and the ratio. Two kinds of batch: the first
// build of an index, which overwrites nothing but headers, and an addition that
// touches every leaf of an index of a million postings.
//
//   cmake --preset linux-release -DTESSERA_BENCH=ON && cmake --build --preset linux-release
//   build/linux-release/bench/commit_cost [ROUNDS]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "documents.h"
#include "forwarding_system.h"
#include "platform.h"
#include "vn_config.h"
#include "vn_fid_sig_index_collector_btree.h"

namespace {

using Clock = std::chrono::steady_clock;

uint64_t bytes_written = 0;

class CountingFile final : public ForwardingFile {
 public:
  using ForwardingFile::ForwardingFile;
  bool write(const void* data, size_t bytes) override {
    bytes_written += bytes;
    return ForwardingFile::write(data, bytes);
  }
};

// A journal that nobody keeps.
class NoFile final : public platform::File {
 public:
  bool seek(uint64_t) override { return true; }
  int64_t read(void*, size_t) override { return 0; }
  bool write(const void*, size_t) override { return true; }
  int64_t size() override { return 0; }
  bool truncate(uint64_t) override { return true; }
  bool sync() override { return true; }
};

class BenchSystem final : public ForwardingSystem {
 public:
  explicit BenchSystem(bool journal) : journal_(journal) {}

  std::unique_ptr<platform::File> open(const char* path, platform::OpenMode mode) override {
    if (!journal_ && std::string(path).ends_with(".jnl")) return std::make_unique<NoFile>();
    auto file = ForwardingSystem::open(path, mode);
    if (!file) return nullptr;
    return std::make_unique<CountingFile>(std::move(file));
  }
  bool syncDirectory(const char* path) override {
    return !journal_ || ForwardingSystem::syncDirectory(path);
  }

 private:
  const bool journal_;
};

constexpr uint32_t kSignaturesOfADocument = 120;

void add(dlp_btree::FidSigIndexCollector* collector, uint32_t first, uint32_t documents) {
  for (uint32_t fid = first; fid < first + documents; ++fid) {
    const auto signatures = documents::signatures(kSignaturesOfADocument, fid);
    if (collector->AddFidSignature(fid, fid, kSignaturesOfADocument, signatures.data()) != 0) {
      std::abort();
    }
  }
}

struct Cost {
  double milliseconds = 0;
  double megabytes = 0;
};

// The save of `batch` documents into an index of `before`.
Cost save(bool journal, uint32_t before, uint32_t batch) {
  const std::string directory = "commit_cost.tmp";
  std::filesystem::remove_all(directory);
  Cost cost;
  {
    const BenchSystem system(journal);
    IndexSysConfiguration configuration;
    dlp_btree::FidSigIndexCollector collector;
    if (collector.Init(configuration, directory.c_str()) != 0) std::abort();
    add(&collector, 0, before);
    if (collector.SaveFidSignature() != 0) std::abort();
    add(&collector, before, batch);
    bytes_written = 0;
    const Clock::time_point start = Clock::now();
    if (collector.SaveFidSignature() != 0) std::abort();
    cost.milliseconds = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    cost.megabytes = static_cast<double>(bytes_written) / 1e6;
  }
  std::filesystem::remove_all(directory);
  return cost;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

void compare(const char* what, uint32_t before, uint32_t batch, int rounds) {
  std::vector<double> in_place;
  std::vector<double> whole;
  std::vector<double> ratios;
  Cost plain;
  Cost journalled;
  for (int round = 0; round < rounds; ++round) {
    plain = save(false, before, batch);
    journalled = save(true, before, batch);
    in_place.push_back(plain.milliseconds);
    whole.push_back(journalled.milliseconds);
    ratios.push_back(journalled.milliseconds / plain.milliseconds);
  }
  std::printf("%-34s %8.1f ms %6.1f MB  %8.1f ms %6.1f MB  %5.2f times\n", what, median(in_place),
              plain.megabytes, median(whole), journalled.megabytes, median(ratios));
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 9;
  std::printf("%-34s %20s  %21s  %11s\n", "one save, median", "in place, one sync", "whole or not",
              "ratio");
  compare("first build, 1M postings", 0, 8384, rounds);
  compare("60k postings into 1M", 8384, 500, rounds);
  compare("1200 postings into 1M", 8384, 10, rounds);
  return 0;
}
