// MatchSignature against a count by hand. The input says what goes into an index
// in a few sessions, through the exports, and what is asked of it. A document's
// source is a function of its file ID there, so some documents are added one
// level below with a source that others share: only so are five of a source ever
// too many.
#include <algorithm>
#include <cstring>

#include "harness.h"
#include "index_twin.h"
#include "status.h"
#include "tessera.h"
#include "vn_index_system_btree.h"

namespace {

// Small enough that pending documents are saved on the way, tables are written
// in pieces and a search takes many batches and reads. The match side reads it
// once in the life of a process, so it is the same for every input.
constexpr char kConfiguration[] = "max_fid_num=2\nmax_ele_num_save=3\nmax_ele_num_load=4\n";
constexpr uint64_t kCapacity = 4 * 2;

int64_t madeFileId(Input* input) {
  static constexpr int64_t kEdges[] = {INT64_MIN,
                                       INT64_MAX,
                                       -1,
                                       (int64_t{1} << 31) - 2,
                                       (int64_t{1} << 31) - 1,
                                       -(int64_t{1} << 31),
                                       -(int64_t{1} << 31) - 1,
                                       int64_t{1} << 32};
  const uint8_t choice = input->byte();
  return choice < 240 ? choice % 24 - 8 : kEdges[choice & 7];
}

using HostSignature = unsigned char (*)[8];
HostSignature hostsView(const Signatures& signatures) {
  return reinterpret_cast<HostSignature>(const_cast<Signature*>(signatures.data()));
}

void addDocument(Input* input, IndexTwin* twin) {
  const int64_t file_id = madeFileId(input);
  const uint8_t choice = input->byte();
  const Signatures signatures = crowdedSignatures(input, 1 + (choice & 15));
  const auto count = static_cast<int>(signatures.size());
  if ((choice & 0x80) == 0) {
    const int expected =
        file_id == -1 ? 1 : twin->add(file_id, static_cast<uint32_t>(file_id), signatures);
    FUZZ_EQUAL(expected, AddDocSignature(file_id, hostsView(signatures), count));
    return;
  }
  const auto source = static_cast<uint32_t>((choice >> 5 & 3) - 1);
  const int expected = twin->add(file_id, source, signatures);
  const int status = dlp_btree::vnAddDocSignature(file_id, source, static_cast<uint32_t>(count),
                                                  signatures.data());
  FUZZ_EQUAL(expected, status == kOk ? 0 : status == kErrPending ? 2 : 1);
}

void eraseDocuments(Input* input, IndexTwin* twin) {
  std::vector<int64_t> file_ids;
  for (uint32_t i = input->below(4); i > 0; --i) file_ids.push_back(madeFileId(input));
  file_ids.reserve(1);  // an empty list is no missing one
  FUZZ_EQUAL(twin->erase(file_ids),
             DelDocSignature(file_ids.data(), static_cast<int>(file_ids.size())));
}

void ask(Input* input, const IndexTwin& twin) {
  Signatures query = crowdedSignatures(input, input->below(64));
  // Strangers make the share of the known ones small.
  for (uint32_t i = input->byte(); i > 0 && query.size() < 250; --i) {
    const bool known_prefix = (i & 1) != 0;
    query.push_back({{static_cast<unsigned char>(known_prefix ? 128 : 7), 0, 5, 0, 0, 0, 0, 0}});
  }
  std::sort(query.begin(), query.end());
  query.reserve(1);
  const int fsz = static_cast<int8_t>(input->byte());

  const Matches expected = rank(IndexTwin::kBase, twin.saved(), query, fsz);
  _DLPSigMatchRet nothing;
  _DLPSigMatchRet* result = &nothing;
  int count = -1;
  FUZZ_EQUAL(
      0, MatchSignature(hostsView(query), static_cast<int>(query.size()), fsz, &result, &count));
  FUZZ_CHECK(result != &nothing);
  FUZZ_EQUAL(expected.size(), count);
  for (size_t i = 0; i < expected.size(); ++i) {
    FUZZ_EQUAL(expected[i].file_id, result[i].fileID);
    FUZZ_EQUAL(expected[i].level, result[i].match_level);
  }
  FUZZ_EQUAL(0, FreeSigMatchRet(result));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input(data, size);
  MemorySystem& system = fuzz::freshSystem();
  system.write("index_sys_config.txt", kConfiguration);

  IndexTwin twin;
  for (uint32_t sessions = 1 + input.below(3); sessions > 0; --sessions) {
    FUZZ_EQUAL(0, InitIndexSystem());
    twin.open(kCapacity);
    for (uint32_t steps = input.below(40); steps > 0; --steps) {
      if (input.below(8) == 7) {
        eraseDocuments(&input, &twin);
      } else {
        addDocument(&input, &twin);
      }
    }
    FUZZ_EQUAL(0, ExitIndexSystem());
    FUZZ_EQUAL(0, system.openFiles());
    twin.save();
  }
  std::string strong, weak;
  tableBytes(twin.saved(), &strong, &weak);
  FUZZ_CHECK(system.read("sig_index_DB/search_table.stbl") == strong);
  FUZZ_CHECK(system.read("sig_index_DB/search_table.wtbl") == weak);

  // Without a document, the root's included, there are no tables to load.
  FUZZ_EQUAL(twin.saved().empty() ? 1 : 0, InitMatchSystem());
  if (twin.saved().empty()) return 0;
  for (uint32_t queries = 1 + input.below(4); queries > 0; --queries) ask(&input, twin);
  FUZZ_EQUAL(0, ExitMatchSystem());
  FUZZ_EQUAL(0, system.openFiles());
  return 0;
}
