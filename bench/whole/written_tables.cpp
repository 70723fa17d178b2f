#include "written_tables.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>

namespace fs = std::filesystem;

namespace {

constexpr int64_t kFidBase = -1;  // of each index that InitIndexSystem() makes
constexpr uint32_t kLevel = 3;

struct Element {
  uint64_t key;  // signatureKey()
  int32_t fid;   // offset from the base
  int32_t source;
};

bool operator<(const Element& left, const Element& right) {
  return std::tie(left.key, left.fid, left.source) < std::tie(right.key, right.fid, right.source);
}

struct PrefixRange {
  uint32_t start = 0;
  uint32_t end = 0;
};
using PrefixDirectory = std::vector<PrefixRange>;

// A file written in order; little-endian numbers, as this processor's are.
class Output {
 public:
  explicit Output(const fs::path& path) : file_(std::fopen(path.c_str(), "wb")) {
    if (!file_) throw std::runtime_error("cannot open " + path.string());
    std::setvbuf(file_.get(), nullptr, _IOFBF, 1 << 20);
  }
  void write(const void* data, size_t bytes) {
    if (std::fwrite(data, 1, bytes, file_.get()) != bytes) fail();
  }
  void close() {
    if (std::fclose(file_.release()) != 0) fail();
  }

 private:
  struct Closer {
    void operator()(FILE* file) const { std::fclose(file); }
  };
  [[noreturn]] static void fail() { throw std::runtime_error("cannot write a search table"); }

  std::unique_ptr<FILE, Closer> file_;
};

std::vector<Element> sortedElements(size_t documents, const host::SignatureSource& signatures) {
  std::vector<Element> elements = {{~uint64_t{0}, 0, -1}};  // the root document
  elements.reserve(documents * 21);
  for (size_t i = 0; i < documents; ++i) {
    for (const Signature& signature : signatures(i)) {
      elements.push_back(
          {signatureKey(signature), static_cast<int32_t>(i - kFidBase), static_cast<int32_t>(i)});
    }
  }
  std::sort(elements.begin(), elements.end());
  return elements;
}

void writeMeta(const fs::path& path, const PrefixDirectory& prefixes) {
  Output meta(path);
  meta.write(&kFidBase, sizeof kFidBase);
  meta.write(&kLevel, sizeof kLevel);
  meta.write(prefixes.data(), prefixes.size() * sizeof(PrefixRange));
  meta.close();
}

// Takes the entry at `position` into the directory.
void cover(PrefixDirectory* prefixes, uint64_t key, uint32_t position) {
  PrefixRange& range = (*prefixes)[key >> 48];
  if (range.end == 0) range.start = position;
  range.end = position + 1;
}

// The eight sums, one in each byte, of `letters` letters.
uint64_t sums(const unsigned char* text, size_t letters) {
  Signature sums = {};
  for (size_t i = 0; i < letters; ++i) sums.bytes[i % 8] += text[i];
  return signatureKey(sums);
}

Signature bytewiseSum(uint64_t left, uint64_t right) {
  Signature sum;
  for (int i = 0; i < 8; ++i) {
    sum.bytes[i] = static_cast<unsigned char>((left >> (56 - 8 * i)) + (right >> (56 - 8 * i)));
  }
  return sum;
}

}  // namespace

size_t writeTables(const fs::path& directory, size_t documents,
                   const host::SignatureSource& signatures) {
  const std::vector<Element> elements = sortedElements(documents, signatures);
  host::enterNew(directory);
  const fs::path index = directory / "sig_index_DB";
  fs::create_directory(index);
  Output weak(index / "search_table.wtbl");
  Output strong(index / "search_table.stbl");
  PrefixDirectory weak_prefixes(65536);
  PrefixDirectory strong_prefixes(65536);
  uint32_t distinct = 0;
  for (size_t i = 0; i < elements.size(); ++i) {
    const Element& element = elements[i];
    const Signature signature = bytewiseSum(element.key, 0);
    if (i == 0 || elements[i - 1].key != element.key) {
      weak.write(&signature, sizeof signature);
      cover(&weak_prefixes, element.key, distinct++);
    }
    strong.write(&signature, sizeof signature);
    strong.write(&element.fid, sizeof element.fid);
    strong.write(&element.source, sizeof element.source);
    cover(&strong_prefixes, element.key, static_cast<uint32_t>(i));
  }
  weak.close();
  strong.close();
  writeMeta(index / "search_table.wmeta", weak_prefixes);
  writeMeta(index / "search_table.smeta", strong_prefixes);
  return elements.size();
}

Archive::Archive(const Collection& collection) : random_(3) {
  constexpr size_t kWindows = 1 << 18;
  constexpr size_t kWindow = 61;  // letters
  constexpr size_t kFirst = 32;
  std::string letters;
  for (const std::string& text : collection.indexed) {
    real_.push_back(host::generate(text, TESSERA_SERVER));
    if (letters.size() > kWindows + kWindow) continue;
    std::copy_if(text.begin(), text.end(), std::back_inserter(letters),
                 [](unsigned char c) { return std::isalnum(c) || c >= 128; });
  }
  const auto* const text = reinterpret_cast<const unsigned char*>(letters.data());
  for (size_t i = 0; i + kWindow <= std::min(letters.size(), kWindows + kWindow); ++i) {
    first_halves_.push_back(sums(text + i, kFirst));
    second_halves_.push_back(sums(text + i + kFirst, kWindow - kFirst));
  }
}

const host::Signatures& Archive::operator()(size_t document) {
  if (document < real_.size()) return real_[document];
  made_up_.resize(10 + random_.below(21));
  for (Signature& signature : made_up_) {
    signature = bytewiseSum(first_halves_[random_.below(first_halves_.size())],
                            second_halves_[random_.below(second_halves_.size())]);
  }
  std::sort(made_up_.begin(), made_up_.end());
  made_up_.erase(std::unique(made_up_.begin(), made_up_.end()), made_up_.end());
  return made_up_;
}
