#include "host.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace fs = std::filesystem;

namespace host {

namespace {

constexpr int64_t kRootFileId = -1;  // the library's own document in every index

fs::path loaded_tables;  // empty: none

void check(bool worked, const char* what) {
  if (!worked) throw std::runtime_error(what);
}

unsigned char (*plain(const Signatures& signatures))[8] {
  // The exports take what they only read without const.
  return reinterpret_cast<unsigned char(*)[8]>(const_cast<Signature*>(signatures.data()));
}

void prepareGenerator(int platform) {
  static int prepared = 0;
  if (prepared == platform) return;
  if (prepared != 0) check(ExitSignatureGenerator() == 0, "ExitSignatureGenerator fails");
  prepared = 0;
  check(InitSignatureGenerator(platform) == 0, "InitSignatureGenerator fails");
  prepared = platform;
}

}  // namespace

Signatures generate(std::string_view text, int platform) {
  prepareGenerator(platform);
  unsigned char(*list)[8] = nullptr;
  int count = 0;
  check(GenerateSignature4Text(const_cast<char*>(text.data()), static_cast<int>(text.size()), &list,
                               &count) == 0,
        "GenerateSignature4Text fails");
  Signatures signatures(static_cast<size_t>(count));
  if (count > 0) std::memcpy(signatures.data(), list, signatures.size() * sizeof(Signature));
  FreeSignature(list);
  return signatures;
}

void enterNew(const fs::path& directory) {
  fs::create_directory(directory);
  fs::current_path(directory);
  check(SetMaxContentSize(6 << 20) == 0, "SetMaxContentSize fails");  // writes the file
}

void makeIndex(const fs::path& directory, size_t documents, const SignatureSource& signatures) {
  enterNew(directory);
  check(InitIndexSystem() == 0, "InitIndexSystem fails");
  for (size_t i = 0; i < documents; ++i) {
    const Signatures& list = signatures(i);
    if (list.empty()) continue;
    if (AddDocSignature(static_cast<int64_t>(i), plain(list), static_cast<int>(list.size())) != 0) {
      ExitIndexSystem();
      throw std::runtime_error("AddDocSignature fails");
    }
  }
  check(ExitIndexSystem() == 0, "ExitIndexSystem fails");
}

uintmax_t indexBytes(const fs::path& directory) {
  uintmax_t bytes = 0;
  for (const fs::directory_entry& entry : fs::directory_iterator(directory / "sig_index_DB")) {
    bytes += entry.file_size();
  }
  return bytes;
}

void loadTables(const fs::path& directory) {
  if (loaded_tables != directory) {
    releaseTables();
    fs::current_path(directory);
    check(InitMatchSystem() == 0, "InitMatchSystem fails");
    loaded_tables = directory;
  }
  fs::current_path(directory);  // the strong table is opened by each search
}

void releaseTables() {
  if (loaded_tables.empty()) return;
  loaded_tables.clear();
  check(ExitMatchSystem() == 0, "ExitMatchSystem fails");
}

std::vector<Match> match(const Signatures& signatures, size_t bytes) {
  if (signatures.empty()) return {};  // too short a text
  _DLPSigMatchRet placeholder;
  _DLPSigMatchRet* records = &placeholder;  // must not be null
  int count = 0;
  // A size of 0 would switch the levels off.
  const int size = static_cast<int>(std::max<size_t>(bytes, 1));
  check(MatchSignature(plain(signatures), static_cast<int>(signatures.size()), size, &records,
                       &count) == 0,
        "MatchSignature fails");
  std::vector<Match> matches;
  for (int i = 0; i < count; ++i) {
    if (records[i].fileID != kRootFileId) {
      matches.push_back({records[i].fileID, records[i].match_level});
    }
  }
  FreeSigMatchRet(records);
  return matches;
}

}  // namespace host
