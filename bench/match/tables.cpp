#include "tables.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <set>

#include "documents.h"
#include "meta_data.h"

namespace {

namespace fs = std::filesystem;

constexpr uint32_t kFiles = 1 << 20;

fs::path top;  // the work directory

// The sum of `letters` English letters, modulo 256, for a random 16-bit number: a
// byte of a window of 61 letters that is folded into 8.
std::vector<unsigned char> sumsOfLetters(int letters) {
  constexpr double kShares[26] = {8.2, 1.5, 2.8, 4.3, 12.7, 2.2, 2.0, 6.1, 7.0, 0.2, 0.8, 4.0, 2.4,
                                  6.7, 7.5, 1.9, 0.1, 6.0,  6.3, 9.1, 2.8, 1.0, 2.4, 0.2, 2.0, 0.1};
  std::array<double, 256> sums = {};
  sums[0] = 1;
  for (int n = 0; n < letters; ++n) {
    std::array<double, 256> next = {};
    for (size_t sum = 0; sum < 256; ++sum) {
      for (size_t letter = 0; letter < 26; ++letter) {
        next[(sum + 'a' + letter) % 256] += sums[sum] * kShares[letter] / 100.3;
      }
    }
    sums = next;
  }
  std::vector<unsigned char> table;
  double share = 0;
  for (size_t sum = 0; sum < 256; ++sum) {
    share += sums[sum];
    const auto end = std::min<size_t>(65536, static_cast<size_t>(share * 65536 + 0.5));
    while (table.size() < end) table.push_back(static_cast<unsigned char>(sum));
  }
  table.resize(65536, 0);
  return table;
}

uint64_t textKey(documents::Random* random) {
  static const std::vector<unsigned char> kEight = sumsOfLetters(8);
  static const std::vector<unsigned char> kSeven = sumsOfLetters(7);
  uint64_t key = 0;
  for (int half = 0; half < 2; ++half) {
    uint64_t numbers = random->next();
    for (int i = 0; i < 4; ++i, numbers >>= 16) {
      const auto& sums = half * 4 + i < 5 ? kEight : kSeven;  // 5 * 8 + 3 * 7 = 61
      key = key << 8 | sums[numbers & 0xffff];
    }
  }
  return key;
}

uint64_t keyOf(bool is_text, documents::Random* random) {
  return is_text ? textKey(random) : random->next();
}

struct Posting {
  uint64_t key;
  uint64_t pair;
};
bool operator<(const Posting& left, const Posting& right) {
  return left.key != right.key ? left.key < right.key : left.pair < right.pair;
}

std::vector<Posting> makePostings(bool is_text, uint32_t count) {
  documents::Random random(20240717);
  std::vector<Posting> postings;
  postings.reserve(count);
  while (postings.size() < count) {
    const uint64_t key = keyOf(is_text, &random);
    uint64_t copies = 1;
    if (is_text && random.oneIn(8)) copies = 2 + random.below(8);
    if (is_text && random.oneIn(1000000)) copies = 1000;
    for (; copies > 0 && postings.size() < count; --copies) {
      const uint64_t fid = random.below(kFiles);
      postings.push_back({key, fid << 32 | (fid & 0xffff)});
    }
  }
  std::sort(postings.begin(), postings.end());
  const auto same = [](const Posting& left, const Posting& right) {
    return left.key == right.key && left.pair == right.pair;
  };
  postings.erase(std::unique(postings.begin(), postings.end(), same), postings.end());
  return postings;
}

class MetaWriter {
 public:
  explicit MetaWriter(const std::string& path) : path_(path), directory_(kPrefixCount) {}
  void add(uint64_t key, uint32_t position) {
    PrefixRange& range = directory_[key >> 48];
    if (range.end == 0) range.start = position;
    range.end = position + 1;
  }
  void write() const {
    std::ofstream file(path_, std::ios::binary);
    const char record[kMetaDataBytes] = {0, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0};
    file.write(record, sizeof record);
    file.write(reinterpret_cast<const char*>(directory_.data()), kPrefixDirectoryBytes);
    require(file.good(), "meta file not written");
  }

 private:
  const std::string path_;
  std::vector<PrefixRange> directory_;
};

void writeTables(const std::vector<Posting>& postings) {
  fs::create_directory("sig_index_DB");
  const std::string base = "sig_index_DB/search_table";
  std::ofstream weak(base + kWeakTableSuffix, std::ios::binary);
  std::ofstream strong(base + kStrongTableSuffix, std::ios::binary);
  MetaWriter weak_meta(base + kWeakMetaSuffix);
  MetaWriter strong_meta(base + kStrongMetaSuffix);
  std::vector<StrongElement> piece;
  uint32_t signatures = 0;
  for (uint32_t i = 0; i < postings.size(); ++i) {
    const Posting& posting = postings[i];
    const Signature signature = signatureOf(posting.key);
    if (i == 0 || postings[i - 1].key != posting.key) {
      weak.write(reinterpret_cast<const char*>(&signature), sizeof signature);
      weak_meta.add(posting.key, signatures++);
    }
    piece.push_back({signature, static_cast<int32_t>(posting.pair >> 32),
                     static_cast<int32_t>(posting.pair & 0xffffffff)});
    strong_meta.add(posting.key, i);
    if (piece.size() == 65536 || i + 1 == postings.size()) {
      strong.write(reinterpret_cast<const char*>(piece.data()),
                   static_cast<std::streamsize>(piece.size() * sizeof(StrongElement)));
      piece.clear();
    }
  }
  weak_meta.write();
  strong_meta.write();
  require(weak.good() && strong.good(), "table not written");
}

Query makeQuery(bool is_text, uint32_t n, const std::vector<Posting>& postings,
                documents::Random* random) {
  const auto begin = [&](uint64_t key) {
    return std::lower_bound(postings.begin(), postings.end(), Posting{key, 0});
  };
  std::set<uint64_t> keys;
  while (keys.size() < n / 2) keys.insert(postings[random->below(postings.size())].key);
  while (keys.size() < n) {
    const uint64_t key = keyOf(is_text, random);
    const auto at = begin(key);
    if (at == postings.end() || at->key != key) keys.insert(key);
  }
  Query query;
  for (const uint64_t key : keys) {
    query.signatures.push_back(signatureOf(key));
    for (auto at = begin(key); at != postings.end() && at->key == key; ++at) {
      query.expected.push_back(at->pair);
    }
  }
  return query;
}

}  // namespace

WorkDirectory::WorkDirectory() {
  std::string name = (start_ / "match_search.XXXXXX").string();
  require(mkdtemp(name.data()) != nullptr, "no directory to work in");
  top = name;
}

WorkDirectory::~WorkDirectory() {
  std::error_code ignored;
  fs::current_path(start_, ignored);
  fs::remove_all(top, ignored);
}

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "%s\n", what);
  std::error_code ignored;
  fs::remove_all(top, ignored);
  std::exit(1);
}

const Table& table(const std::string& kind, const std::string& size) {
  static std::map<std::string, std::unique_ptr<Table>> tables;
  auto& made = tables[kind + size];
  if (!made) {
    made = std::make_unique<Table>();
    made->directory = top / (kind + size);
    fs::create_directory(made->directory);
    fs::current_path(made->directory);
    const bool is_text = kind == "text";
    const uint32_t count = 1000000 * static_cast<uint32_t>(std::atoi(size.c_str()));
    const std::vector<Posting> postings = makePostings(is_text, count);
    made->ele_num = static_cast<uint32_t>(postings.size());
    writeTables(postings);
    std::ofstream("index_sys_config.txt");  // all defaults
    documents::Random random(7);
    for (const uint32_t n : kQuerySizes) {
      for (uint32_t i = 0; i < 20000 / n; ++i) {
        made->queries[n].push_back(makeQuery(is_text, n, postings, &random));
      }
    }
  }
  fs::current_path(made->directory);
  return *made;
}

void forEachSignature(const Table& of,
                      const std::function<void(const Signature&, const Pairs&)>& take) {
  std::ifstream strong("sig_index_DB/search_table.stbl", std::ios::binary);
  std::vector<StrongElement> piece(65536);
  Signature signature = {};
  Pairs pairs;
  for (uint32_t done = 0; done < of.ele_num;) {
    const uint32_t count = std::min<uint32_t>(65536, of.ele_num - done);
    strong.read(reinterpret_cast<char*>(piece.data()),
                static_cast<std::streamsize>(count * sizeof(StrongElement)));
    require(strong.good(), "table not read back");
    for (uint32_t i = 0; i < count; ++i) {
      if (!pairs.empty() && !(piece[i].signature == signature)) {
        take(signature, pairs);
        pairs.clear();
      }
      signature = piece[i].signature;
      pairs.push_back(pairOf(piece[i].fid, piece[i].source));
    }
    done += count;
  }
  take(signature, pairs);
}
