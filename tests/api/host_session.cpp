#include "host_session.h"

#if defined(__SANITIZE_THREAD__)
// Without tables the match side unlocks a mutex that it does not hold; the mutex
// refuses, and nothing comes of it.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
  return "mutex:vnGetSearchTableSigGenLevel\n";
}
#endif

namespace {

using Generate = int (*)(char*, int, unsigned char (**)[8], int*);

Signatures generate(Generate function, const std::string& content) {
  unsigned char(*list)[8] = nullptr;
  int count = -1;
  EXPECT_EQ(0, function(const_cast<char*>(content.data()), static_cast<int>(content.size()), &list,
                        &count));
  const auto first = reinterpret_cast<const Signature*>(list);
  const Signatures signatures(first, first + count);
  EXPECT_EQ(count == 0, list == nullptr);
  EXPECT_EQ(0, FreeSignature(list));
  return signatures;
}

unsigned char (*exported(const Signatures& signatures))[8] {
  return reinterpret_cast<unsigned char(*)[8]>(const_cast<Signature*>(signatures.data()));
}

}  // namespace

Signatures textSignatures(const std::string& text) {
  return generate(GenerateSignature4Text, text);
}

Signatures binarySignatures(const std::string& content) {
  return generate(GenerateSignature4Binary, content);
}

int addDocument(int64_t file_id, const Signatures& signatures) {
  return AddDocSignature(file_id, exported(signatures), static_cast<int>(signatures.size()));
}

int deleteDocuments(std::vector<int64_t> file_ids) {
  return DelDocSignature(file_ids.data(), static_cast<int>(file_ids.size()));
}

Matches match(const Signatures& query, int fsz) {
  _DLPSigMatchRet any;
  _DLPSigMatchRet* result = &any;
  int count = -1;
  EXPECT_EQ(0,
            MatchSignature(exported(query), static_cast<int>(query.size()), fsz, &result, &count));
  EXPECT_NE(&any, result);
  Matches matches;
  for (int i = 0; i < count; ++i) matches.push_back({result[i].fileID, result[i].match_level});
  if (result != &any) {
    EXPECT_EQ(0, FreeSigMatchRet(result));
  }
  return matches;
}

int tryMatch(const Signatures& query, int fsz, Matches* matches) {
  _DLPSigMatchRet any;
  _DLPSigMatchRet* result = &any;
  int count = 0;
  const int status =
      MatchSignature(exported(query), static_cast<int>(query.size()), fsz, &result, &count);
  if (status != 0) return status;
  matches->clear();
  for (int i = 0; i < count; ++i) matches->push_back({result[i].fileID, result[i].match_level});
  FreeSigMatchRet(result);
  return 0;
}

TableFiles readTables(const TempDir& dir, const std::string& name) {
  TableFiles files;
  for (const char* suffix : {".wtbl", ".stbl", ".wmeta", ".smeta"}) {
    files[suffix] = dir.read("sig_index_DB/" + name + suffix);
  }
  return files;
}

void writeTables(const TempDir& dir, const TableFiles& files, const std::string& name) {
  if (!dir.exists("sig_index_DB")) dir.makeDirectory("sig_index_DB");
  for (const auto& [suffix, content] : files) {
    dir.write("sig_index_DB/" + name + suffix, content);
  }
}

void expectTables(const TableFiles& expected, const TableFiles& actual) {
  for (const auto& [suffix, content] : expected) {
    EXPECT_EQ(content.size(), actual.at(suffix).size()) << suffix;
    EXPECT_TRUE(content == actual.at(suffix)) << suffix << " differs";
  }
}

LibraryTest::~LibraryTest() {
  ExitMatchSystem();
  ExitIndexSystem();
  ExitSignatureGenerator();
  setMaxStblSize(0x80000000u);
}
