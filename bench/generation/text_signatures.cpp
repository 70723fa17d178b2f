// Text signatures against the straightforward form of the same, and against other
// functions that read a text once: a cryptographic hash, two fuzzy hashes, a fast hash
// and a copy.
//
//   text/client/64KiB/avx512     English text, client platform, one kernel
//   text/server/64KiB/straightforward   as one would first write it (straightforward.h)
//   text/server/64KiB/plain      server platform, what runs while a log sink is attached
//   text/sha256/64KiB/openssl    a peer
//   binarylike/...               the content of shared libraries in place of text
//
// All of them read the same content; bytes per second count what is read. The plain
// form and each kernel must give the straightforward list, byte by byte, before they are
// measured.
//
// fuzzy_hash_buf and TLSH are left out of the largest size: they would take most of
// the time, and say the same as at 1 MiB.
#include <benchmark/benchmark.h>
#include <fuzzy.h>
#include <openssl/evp.h>
#include <tlsh.h>
#include <xxhash.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "corpus.h"
#include "fpeSigGenFromText.h"
#include "fpeSigGenTable.h"
#include "fpeSignatureGenerator.h"
#include "scoped.h"
#include "straightforward.h"
#include "text_kernel.h"
#include "text_signatures.h"

namespace {

struct Size {
  const char* name;
  size_t bytes;
};

constexpr Size kSizes[] = {{"4KiB", 4 << 10},
                           {"16KiB", 16 << 10},
                           {"64KiB", 64 << 10},
                           {"1MiB", 1 << 20},
                           {"64MiB", 64 << 20}};
constexpr size_t kLargest = 64 << 20;
constexpr size_t kLargestForFuzzyHashes = 1 << 20;

// A content and what it is called in the names of the rows.
struct Content {
  const char* name;
  std::string (*make)(size_t bytes);
};

constexpr Content kContents[] = {{"text", corpus::english}, {"binarylike", corpus::binary}};

// The content of one size begins that of all larger ones.
const std::string& largest(const Content& content) {
  static std::map<std::string, std::string> made;
  std::string& all = made[content.name];
  if (all.empty()) all = content.make(kLargest);
  return all;
}

const unsigned char* bytes(const char* text) {
  return reinterpret_cast<const unsigned char*>(text);
}

struct List {
  Signature* signatures = nullptr;
  int count = 0;

  List() = default;
  List(const List&) = delete;
  List& operator=(const List&) = delete;
  ~List() { std::free(signatures); }
};

// A null kernel means the plain form.
void sign(const TextKernel* kernel, Platform platform, const char* text, size_t length,
          List* list) {
  const int bytes_in = static_cast<int>(length);
  if (kernel != nullptr) {
    signText(*kernel, platform, bytes(text), bytes_in, &list->signatures, &list->count, nullptr);
  } else if (platform == kServer) {
    getSignatureServer(bytes(text), bytes_in, &list->signatures, &list->count, nullptr,
                       getHashValues_KR, getHashValuesNoHorner_KR);
  } else {
    getSignatureClient(bytes(text), bytes_in, &list->signatures, &list->count, nullptr,
                       getHashValues_KR);
  }
}

bool agrees(const TextKernel* kernel, Platform platform, const char* text, size_t length) {
  const std::vector<Signature> expected = straightforwardSignatures(platform, bytes(text), length);
  List list;
  sign(kernel, platform, text, length, &list);
  return !expected.empty() && std::equal(expected.begin(), expected.end(), list.signatures,
                                         list.signatures + list.count);
}

void signatures(benchmark::State& state, const TextKernel* kernel, Platform platform,
                const Content& content, size_t length) {
  const char* const text = largest(content).data();
  if (!agrees(kernel, platform, text, length)) {
    std::fprintf(stderr, "%s: not the straightforward list\n", kernel ? kernel->name : "plain");
    std::exit(1);
  }
  int count = 0;
  for (auto _ : state) {
    List list;
    sign(kernel, platform, text, length, &list);
    count = list.count;
    benchmark::DoNotOptimize(list.signatures);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * length));
  state.counters["signatures"] = count;
}

void straightforward(benchmark::State& state, Platform platform, const Content& content,
                     size_t length) {
  const char* const text = largest(content).data();
  for (auto _ : state) {
    benchmark::DoNotOptimize(straightforwardSignatures(platform, bytes(text), length));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * length));
}

// ---- Peers ----

using Reader = void (*)(const char* text, size_t length);

void sha256(const char* text, size_t length) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned digest_length = 0;
  EVP_Digest(text, length, digest, &digest_length, EVP_sha256(), nullptr);
  benchmark::DoNotOptimize(digest);
}

void ssdeep(const char* text, size_t length) {
  char result[FUZZY_MAX_RESULT];
  fuzzy_hash_buf(bytes(text), static_cast<uint32_t>(length), result);
  benchmark::DoNotOptimize(result);
}

void tlsh(const char* text, size_t length) {
  Tlsh hash;
  hash.update(bytes(text), static_cast<unsigned>(length));
  hash.final();
  benchmark::DoNotOptimize(hash.getHash());
}

void xxh3(const char* text, size_t length) { benchmark::DoNotOptimize(XXH3_64bits(text, length)); }

std::vector<char> copy_of_text;

void copy(const char* text, size_t length) {
  std::memcpy(copy_of_text.data(), text, length);
  benchmark::DoNotOptimize(copy_of_text.data());
  benchmark::ClobberMemory();
}

void reads(benchmark::State& state, Reader reader, const Content& content, size_t length) {
  const char* const text = largest(content).data();
  copy_of_text.resize(length);
  for (auto _ : state) reader(text, length);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * length));
}

struct Peer {
  const char* name;
  Reader reader;
  size_t largest;
};

constexpr Peer kPeers[] = {{"sha256/%s/openssl", sha256, kLargest},
                           {"ssdeep/%s/libfuzzy", ssdeep, kLargestForFuzzyHashes},
                           {"tlsh/%s/tlsh", tlsh, kLargestForFuzzyHashes},
                           {"xxh3/%s/xxhash", xxh3, kLargest},
                           {"memcpy/%s/libc", copy, kLargest}};

// ---- Rows ----

void addRow(const std::string& name, const std::function<void(benchmark::State&)>& run) {
  benchmark::RegisterBenchmark(name.c_str(), run)->Unit(benchmark::kMicrosecond)->UseRealTime();
}

std::string replaced(std::string pattern, const std::string& size) {
  return pattern.replace(pattern.find("%s"), 2, size);
}

void addRows(const Content& content) {
  const std::string family = std::string(content.name) + "/";
  for (const Size& size : kSizes) {
    const size_t length = size.bytes;
    for (const auto& [name, platform] : {std::pair{"client/", kClient}, {"server/", kServer}}) {
      const std::string row = family + name + size.name + "/";
      for (const TextKernel* const kernel : supportedKernels()) {
        addRow(row + kernel->name, [=, &content](benchmark::State& state) {
          signatures(state, kernel, platform, content, length);
        });
      }
      addRow(row + "plain", [=, &content](benchmark::State& state) {
        signatures(state, nullptr, platform, content, length);
      });
      addRow(row + "straightforward", [=, &content](benchmark::State& state) {
        straightforward(state, platform, content, length);
      });
    }
    for (const Peer& peer : kPeers) {
      if (length > peer.largest) continue;
      addRow(family + replaced(peer.name, size.name),
             [reader = peer.reader, length, &content](benchmark::State& state) {
               reads(state, reader, content, length);
             });
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (initTextSignaturer(kClient, 3) != 0) return 1;
  setMaxContentSize(75 << 20);
  for (const Content& content : kContents) addRows(content);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
