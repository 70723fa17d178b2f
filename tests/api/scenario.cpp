#include "scenario.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "documents.h"
#include "prose.h"
#include "tessera.h"

namespace scenario {

namespace {

using Signatures = std::vector<Signature>;

void require(int expected, int actual, const std::string& call) {
  if (expected == actual) return;
  throw std::runtime_error(call + " returned " + std::to_string(actual) + ", not " +
                           std::to_string(expected));
}
#define REQUIRE(expected, call) require(expected, call, #call)

unsigned char (*exported(const Signatures& signatures))[8] {
  return reinterpret_cast<unsigned char(*)[8]>(const_cast<Signature*>(signatures.data()));
}

void add(int expected, int64_t file_id, const Signatures& list) {
  REQUIRE(expected, AddDocSignature(file_id, exported(list), static_cast<int>(list.size())));
}

std::string takeList(unsigned char (*list)[8], int count) {
  const std::string bytes(reinterpret_cast<const char*>(list), static_cast<size_t>(count) * 8);
  FreeSignature(list);
  return bytes;
}

// Documents draw their signatures from one pool, so that they share some.
constexpr size_t kPool = 3000;
Signatures pool(uint64_t seed) { return documents::signatures(kPool, seed, 700); }

Signatures draw(const Signatures& from, documents::Random* random, size_t most) {
  Signatures list(1 + random->below(most));
  for (Signature& each : list) each = from[random->below(from.size())];
  return list;
}

constexpr int64_t kDocuments = 500;
constexpr int64_t kFirst = -2147483648, kLast = 2147483646;

// Spread over the whole range; never the root's -1.
int64_t fileId(int64_t document) {
  if (document == 0) return kFirst;
  if (document == kDocuments - 1) return kLast;
  return document % 3 == 0 ? -2 - document : document * 1000003;
}

}  // namespace

std::map<std::string, std::string> signatureLists(uint64_t seed) {
  // Short ones as well: below 4096 bytes a server takes several signatures from
  // a piece.
  const std::map<std::string, std::string> texts = {
      {"prose", joined(paragraphs(30, seed))},
      {"note", joined(paragraphs(1, seed + 1))},
      {"letters1000", documents::letters(1000, seed)},
      {"letters2000", documents::letters(2000, seed)},
      {"letters3500", documents::letters(3500, seed)},
      {"letters9000", documents::letters(9000, seed)},
      {"words", documents::words(30000, seed)},
      {"bytes", documents::bytes(30000, seed)},
      {"same", std::string(5000, '\x89')},
  };
  std::map<std::string, std::string> lists;
  for (const auto& [platform, name] :
       {std::pair{TESSERA_SERVER, "server"}, {TESSERA_CLIENT, "client"}}) {
    REQUIRE(0, InitSignatureGenerator(platform));
    for (auto [key, text] : texts) {
      unsigned char(*list)[8];
      int count;
      REQUIRE(0, GenerateSignature4Text(text.data(), static_cast<int>(text.size()), &list, &count));
      lists[key + "." + name] = takeList(list, count);
    }
    REQUIRE(0, ExitSignatureGenerator());
  }
  REQUIRE(0, InitSignatureGenerator(TESSERA_SERVER));
  std::string binary;
  for (const size_t length : {1, 3, 4, 20, 21, 100, 10239, 10240, 70000}) {
    std::string content = documents::bytes(length, seed + length);
    unsigned char(*list)[8];
    int count;
    REQUIRE(0, GenerateSignature4Binary(content.data(), static_cast<int>(length), &list, &count));
    binary += takeList(list, count);
  }
  REQUIRE(0, ExitSignatureGenerator());
  lists["contents.binary"] = binary;
  return lists;
}

void createIndex(uint64_t seed) {
  std::ofstream("index_sys_config.txt", std::ios::binary) << "max_fid_num = 12\n";
  const Signatures from = pool(seed);
  documents::Random random(seed);

  REQUIRE(0, InitIndexSystem());
  for (int64_t i = 0; i < kDocuments; ++i) add(0, fileId(i), draw(from, &random, 40));
  add(2, fileId(kDocuments - 1), draw(from, &random, 40));
  add(1, kLast + 1, from);
  REQUIRE(0, ExitIndexSystem());

  REQUIRE(0, InitIndexSystem());
  std::vector<int64_t> deleted = {-5, 12345};  // nobody's
  for (int64_t i = 0; i < kDocuments; ++i) {
    if (!random.oneIn(3)) deleted.push_back(fileId(i));
  }
  REQUIRE(0, DelDocSignature(deleted.data(), static_cast<int>(deleted.size())));
  for (int64_t i = 0; i < kDocuments; i += 20) add(0, fileId(i), draw(from, &random, 40));
  for (int64_t i = 0; i < 10; ++i) add(0, 7 + i, draw(from, &random, 60));
  REQUIRE(0, ExitIndexSystem());

  REQUIRE(0, InitIndexSystem());
  REQUIRE(0, ExitIndexSystem());
}

void growIndex(uint64_t seed) {
  const Signatures from = pool(seed);
  documents::Random random(seed + 1);
  REQUIRE(0, InitIndexSystem());
  std::vector<int64_t> deleted;
  for (int64_t i = 0; i < kDocuments; i += 2) deleted.push_back(fileId(i));
  REQUIRE(0, DelDocSignature(deleted.data(), static_cast<int>(deleted.size())));
  for (int64_t i = 0; i < 60; ++i) add(0, 500 + i, draw(from, &random, 50));
  add(0, fileId(0), draw(from, &random, 50));
  REQUIRE(0, ExitIndexSystem());
}

std::vector<std::string> matchIndex(uint64_t seed) {
  const Signatures from = pool(seed);
  documents::Random random(seed + 2);
  std::vector<std::string> answers;
  REQUIRE(0, InitMatchSystem());
  for (int i = 0; i < 40; ++i) {
    Signatures query = draw(from, &random, 30);
    const Signatures strangers = documents::signatures(random.below(60), seed + 3, 700);
    query.insert(query.end(), strangers.begin(), strangers.end());
    std::sort(query.begin(), query.end());
    _DLPSigMatchRet any;
    _DLPSigMatchRet* result = &any;
    int count;
    REQUIRE(
        0, MatchSignature(exported(query), static_cast<int>(query.size()), i % 4, &result, &count));
    std::ostringstream answer;
    answer << i << ":";
    for (int k = 0; k < count; ++k) {
      answer << " " << result[k].fileID << "/" << result[k].match_level;
    }
    FreeSigMatchRet(result);
    answers.push_back(answer.str());
  }
  REQUIRE(0, ExitMatchSystem());
  return answers;
}

}  // namespace scenario
