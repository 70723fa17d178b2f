// Search tables that somebody else wrote. The input makes a valid set of four
// files, so that the checks of the loader are passed, then bends them: entries,
// bytes, lengths, before the loading or between loading and searching. What
// always holds: no more memory is asked for than the files justify, and a set
// that nobody bent gives the answer of a search that looks at every element.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "harness.h"
#include "input.h"
#include "match_twin.h"
#include "plain_tables.h"
#include "status.h"
#include "vn_fid_search_engine.h"

namespace {

constexpr const char* kFiles[] = {
    "sig_index_DB/search_table.wtbl", "sig_index_DB/search_table.stbl",
    "sig_index_DB/search_table.wmeta", "sig_index_DB/search_table.smeta"};

constexpr uint32_t kPrefixes[] = {0x0000, 0x0001, 0x20ff, 0x2100, 0x7fff, 0x8000, 0xfffe, 0xffff};

// Few prefixes, and few places under each, so that queries meet elements.
Signature madeSignature(Input* input) {
  const uint8_t choice = input->byte();
  const uint32_t prefix = kPrefixes[choice & 7];
  Signature signature = {};
  signature.bytes[0] = static_cast<unsigned char>(prefix >> 8);
  signature.bytes[1] = static_cast<unsigned char>(prefix);
  signature.bytes[2] = static_cast<unsigned char>((choice >> 3 & 7) * 36);  // some above 127
  signature.bytes[7] = static_cast<unsigned char>((choice >> 6) * 85);
  return signature;
}

// Elements with a number of copies each, in other files or in the same one.
std::vector<StrongElement> madeElements(Input* input) {
  std::vector<StrongElement> elements;
  const uint32_t distinct = 1 + input->below(48);
  for (uint32_t i = 0; i < distinct; ++i) {
    const Signature signature = madeSignature(input);
    const auto fid = static_cast<int32_t>(input->number<int8_t>());
    const uint8_t choice = input->byte();
    const int32_t source = (choice >> 5) - 2;
    for (int32_t run = 0; run <= (choice & 31); ++run) {
      const int32_t other = (choice & 1) != 0 ? fid + run : fid;
      elements.push_back({signature, run == 30 ? INT32_MIN + (other & 255) : other, source});
    }
  }
  plain_tables::sort(&elements);
  return elements;
}

std::vector<Signature> madeQuery(Input* input, const std::vector<StrongElement>& elements) {
  std::vector<Signature> query;
  const uint32_t count = input->below(80);
  for (uint32_t i = 0; i < count; ++i) {
    const uint8_t choice = input->byte();
    query.push_back((choice & 1) != 0 ? elements[choice / 2 * 7u % elements.size()].signature
                                      : madeSignature(input));
  }
  return query;
}

uint32_t numberAt(const std::string& file, size_t offset) {
  uint32_t number;
  std::memcpy(&number, file.data() + offset, sizeof number);
  return number;
}

// Changes one of the files. A changed entry may keep its length, or two entries
// the sum of theirs, so that the loader's check of the sum is passed.
void bend(Input* input, MemorySystem* system) {
  const uint8_t choice = input->byte();
  const char* const path = kFiles[choice & 3];
  std::string file = system->read(path);
  const bool is_meta = (choice & 2) != 0;
  switch (choice >> 2 & 7) {
    case 0:  // an entry moves
    case 1:  // an entry grows, the next one of the list shrinks
      if (is_meta && file.size() == 524300) {
        const uint32_t prefix = kPrefixes[input->byte() & 7];
        const uint32_t other = kPrefixes[input->byte() & 7];
        const auto by = (choice & 0x20) != 0 ? input->number<uint32_t>()
                                             : static_cast<uint32_t>(input->number<int8_t>());
        const bool moves = (choice >> 2 & 7) == 0;
        const uint32_t start = numberAt(file, 12 + 8 * prefix);
        const uint32_t end = numberAt(file, 16 + 8 * prefix);
        plain_tables::setRange(&file, prefix, moves ? start + by : start, end + by);
        if (!moves) {
          plain_tables::setRange(&file, other, numberAt(file, 12 + 8 * other),
                                 numberAt(file, 16 + 8 * other) - by);
        }
      }
      break;
    case 2:  // an entry is anything
      if (is_meta && file.size() == 524300) {
        const uint32_t prefix = input->number<uint16_t>();
        const uint32_t start = input->number<uint32_t>();
        plain_tables::setRange(&file, prefix, start, input->number<uint32_t>());
      }
      break;
    case 3: {  // bytes are overwritten
      const size_t at = input->number<uint16_t>();
      const std::string bytes = input->bytes(1 + input->below(32));
      if (at < file.size()) file.replace(at, std::min(bytes.size(), file.size() - at), bytes);
      break;
    }
    case 4:  // the end is missing
      file.resize(file.size() - std::min<size_t>(file.size(), input->number<uint16_t>()));
      break;
    case 5:  // something follows
      file.append(input->below(64), static_cast<char>(input->byte()));
      break;
    case 6:  // bytes of the meta data record
      if (is_meta && file.size() >= 12) file[input->below(12)] = static_cast<char>(input->byte());
      break;
    case 7:
      if ((choice & 0x20) != 0) {
        system->remove(path);
        return;
      }
      file.clear();
      break;
  }
  system->write(path, file);
}

void checkAnswer(const std::vector<StrongElement>& elements, const std::vector<Signature>& query,
                 const QueryRanges& ranges, uint32_t found, uint32_t fid_num, const FsidPair* files,
                 const uint32_t* freq) {
  uint32_t expected_found = 0;
  for (size_t i = 0; i < query.size(); ++i) {
    const match_twin::Range expected = match_twin::findRange(elements, query[i]);
    FUZZ_EQUAL(expected.found ? 1 : 0, ranges.bFind[i]);
    expected_found += ranges.bFind[i];
    if (!expected.found) continue;
    FUZZ_EQUAL(expected.first, ranges.st_pos[i]);
    FUZZ_EQUAL(expected.last, ranges.en_pos[i]);
  }
  FUZZ_EQUAL(expected_found, found);
  const auto expected = match_twin::candidates(match_twin::pairs(elements, query));
  FUZZ_EQUAL(expected.size(), fid_num);
  for (size_t i = 0; i < expected.size(); ++i) {
    FUZZ_EQUAL(expected[i].fid, files[i].fid);
    FUZZ_EQUAL(expected[i].source, files[i].source);
    FUZZ_EQUAL(expected[i].hits, freq[i]);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static constexpr uint32_t kLimits[] = {4, 0, 1, 2, 3, 7, 16, 64, 209600, UINT32_MAX};
  Input input(data, size);
  MemorySystem& system = fuzz::freshSystem();
  IndexSysConfiguration configuration;
  configuration.max_ele_num_load = input.oneOf(kLimits);
  const uint8_t choice = input.byte();
  const bool is_sorted = (choice & 7) != 7;
  const uint32_t bends_before = (choice >> 3 & 3) == 3 ? 1 + input.below(4) : 0;
  const uint32_t bends_between = (choice >> 5) == 7 ? 1 + input.below(4) : 0;

  const std::vector<StrongElement> elements = madeElements(&input);
  const plain_tables::Tables tables = plain_tables::make(elements, {-1, 3});
  system.write(kFiles[0], tables.wtbl);
  system.write(kFiles[1], tables.stbl);
  system.write(kFiles[2], tables.wmeta);
  system.write(kFiles[3], tables.smeta);
  std::vector<Signature> query = madeQuery(&input, elements);
  if (is_sorted) std::sort(query.begin(), query.end());
  for (uint32_t i = 0; i < bends_before; ++i) bend(&input, &system);
  const bool is_as_made = is_sorted && bends_before == 0 && bends_between == 0;

  FidIndexSearchEngine engine;
  FUZZ_EQUAL(0, engine.setConfig(configuration));
  MetaData meta;
  const int loaded = engine.Init(&meta);
  FUZZ_EQUAL(loaded == 0 ? 1 : 0, engine.initialised() ? 1 : 0);
  if (bends_before == 0) FUZZ_EQUAL(0, loaded);
  FUZZ_CHECK(loaded == kOk || loaded == kErrFile || loaded == kErrWeakTable ||
             loaded == kErrStrongTable);
  MetaData head;
  const int head_status = engine.getSearchTableMetaData(&head);
  if (loaded == kOk) {
    FUZZ_EQUAL(0, head_status);
    FUZZ_EQUAL(meta.fid_base, head.fid_base);
    FUZZ_EQUAL(meta.sig_gen_level, head.sig_gen_level);
  }
  FUZZ_CHECK(system.takeLargestRequest() <= kPrefixDirectoryBytes);
  FUZZ_EQUAL(0, system.openFiles());
  if (loaded != kOk) return 0;
  for (uint32_t i = 0; i < bends_between; ++i) bend(&input, &system);

  const auto n = static_cast<uint32_t>(query.size());
  std::vector<uint32_t> bFind(n), st_pos(n), en_pos(n);
  const QueryRanges ranges = {bFind.data(), st_pos.data(), en_pos.data()};
  // Exactly as long as it is, so that a look beyond is seen.
  const auto list = mallocArray<Signature>(n);
  std::copy(query.begin(), query.end(), list.get());
  uint32_t found = 0;
  uint32_t fid_num = 0;
  MallocArray<FsidPair> files;
  MallocArray<uint32_t> freq;
  const int status =
      engine.SearchSignatures(n, list.get(), &found, ranges, &fid_num, &files, &freq);
  if (is_as_made) {
    FUZZ_EQUAL(0, status);
    checkAnswer(elements, query, ranges, found, fid_num, files.get(), freq.get());
  }
  FUZZ_CHECK(status == kOk || status == kErrState || status == kErrMem || status == kErrFile);
  FUZZ_CHECK(found <= n);
  if (status != kOk) FUZZ_CHECK(!files && !freq);
  if (status == kOk && fid_num > 0) {
    // Whatever the files say, the ranks are in order and five of a source at most.
    FUZZ_CHECK(files && freq);
    for (uint32_t i = 1; i < fid_num; ++i) {
      FUZZ_CHECK(files[i - 1].source <= files[i].source);
      if (files[i - 1].source != files[i].source) continue;
      FUZZ_CHECK(freq[i - 1] > freq[i] ||
                 (freq[i - 1] == freq[i] && files[i - 1].fid < files[i].fid));
      if (i >= 5) FUZZ_CHECK(files[i - 5].source != files[i].source);
    }
  }
  // The table, a pair for every element and signature, the stacks.
  FUZZ_CHECK(system.takeLargestRequest() <= system.size(kFiles[1]) * (1 + n) + 65536);
  FUZZ_EQUAL(0, system.openFiles());
  return 0;
}
