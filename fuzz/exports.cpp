// The fifteen exports in any order, with any arguments that a host may pass by
// mistake, under any configuration file, and over index files that somebody
// damages. A small model follows the state and tells what must be answered. It
// gives up on contents, and only on them, once they cannot be foretold: after
// damage, or when the configuration names files that no plain name makes.
#include <algorithm>
#include <climits>
#include <cstring>
#include <map>
#include <optional>
#include <string>

#include "config_lines.h"
#include "config_twin.h"
#include "fpeSignatureGenerator.h"
#include "generator_twin.h"
#include "harness.h"
#include "index_twin.h"
#include "tessera.h"

namespace {

constexpr uint32_t kTableLimit = 0x80000000;  // of a library that was just loaded
constexpr char kDirectory[] = "sig_index_DB";

using HostSignature = unsigned char (*)[8];
using Postings = std::set<Element>;

bool isPlain(const std::string& name) {
  return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
  });
}

bool areEqual(const Postings& left, const Postings& right) {
  return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                    [](const Element& l, const Element& r) { return !(l < r) && !(r < l); });
}

class Sequence {
 public:
  Sequence(Input* input, MemorySystem* system) : input_(*input), system_(*system) {}

  void run() {
    system_.write(tessera::kConfigFileName, "");
    while (!input_.empty()) step();
    // Back to the state of a library that was just loaded.
    FUZZ_EQUAL(match_open_ ? 0 : 1, ExitMatchSystem());
    exitIndex();
    FUZZ_EQUAL(generator_open_ ? 0 : 1, ExitSignatureGenerator());
    FUZZ_EQUAL(0, setMaxStblSize(kTableLimit));
    FUZZ_EQUAL(0, system_.openFiles());
  }

 private:
  void step() {
    switch (input_.below(20)) {
      case 0:
        configure();
        break;
      case 1:
        initGenerator();
        break;
      case 2:
        generate();
        break;
      case 3:
        setContentSize();
        break;
      case 4:
        FUZZ_EQUAL(generator_open_ ? 0 : 1, ExitSignatureGenerator());
        generator_open_ = false;
        break;
      case 5:
        FUZZ_EQUAL(0, FreeSignature(nullptr));
        FUZZ_EQUAL(0, FreeSigMatchRet(nullptr));
        break;
      case 6:
      case 7:
        initIndex();
        break;
      case 8:
      case 9:
      case 10:
        addDocument();
        break;
      case 11:
        eraseDocuments();
        break;
      case 12:
      case 13:
        exitIndex();
        break;
      case 14:
        setTableLimit();
        break;
      case 15:
        initMatch();
        break;
      case 16:
      case 17:
        match();
        break;
      case 18:
        FUZZ_EQUAL(match_open_ ? 0 : 1, ExitMatchSystem());
        match_open_ = false;
        break;
      case 19:
        damage();
        break;
    }
  }

  // ---- Configuration

  void configure() {
    static constexpr const char* kLines[] = {
        "max_fid_num=1\n",
        "max_fid_num = 0\n",
        "max_fid_num=4294967295\n",
        "max_ele_num_save=1\n",
        "max_ele_num_save=0\n",
        "max_ele_num_save=4294967295\n",
        "max_content_size=1048576\n",
        "MAX_Content_Size\t= 2000000 \r\n",
        "max_content_size=5\n",
        "max_content_size=\"6MB\"\n",
        "fid_index_fname=\"other\"\n",
        "search_table_fname=\"sig_table\"\n",
        "search_table_fname=\"search_table\"\r\n",
        "search_table_fname=7\n",
        "fid_index_fname=\"../x\"\n",
        "no setting\n",
    };
    const uint8_t choice = input_.byte();
    if (choice == 255) {
      system_.remove(tessera::kConfigFileName);
      return;
    }
    std::string content;
    for (uint32_t lines = choice & 3; lines > 0; --lines) content += input_.oneOf(kLines);
    if ((choice & 0xe0) == 0xe0) content += input_.bytes(input_.byte());
    system_.write(tessera::kConfigFileName, content);
  }

  // ---- Generation

  // The configured size where it is one, else 6 MiB.
  int expectedContentSize() {
    std::string text;
    tessera::readConfigValue(tessera::kConfigFileName, "max_content_size", &text);
    const bool digits = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
    text.erase(0, text.find_first_not_of('0'));
    if (!digits || text.empty() || text.size() > 9) return 6291456;
    const int size = std::stoi(text);
    return size >= 1048576 && size <= 78643200 ? size : 6291456;
  }

  void checkContentSize(int expected) {
    FUZZ_EQUAL(expected, maxContentSize());
    std::string text;
    tessera::readConfigValue(tessera::kConfigFileName, "max_content_size", &text);
    FUZZ_CHECK(text == std::to_string(expected));
  }

  void initGenerator() {
    static constexpr int kPlatforms[] = {TESSERA_SERVER, TESSERA_CLIENT, 0, 3, -1, INT_MAX};
    const int platform = input_.oneOf(kPlatforms);
    const int expected_size = expectedContentSize();
    const bool succeeds =
        !generator_open_ && (platform == TESSERA_SERVER || platform == TESSERA_CLIENT);
    FUZZ_EQUAL(succeeds ? 0 : 1, InitSignatureGenerator(platform));
    if (!succeeds) return;
    generator_open_ = true;
    is_server_ = platform == TESSERA_SERVER;
    checkContentSize(expected_size);
  }

  void setContentSize() {
    static constexpr int kSizes[] = {1048576, 1048575, 78643200, 78643201, 2000000,
                                     0,       -1,      INT_MIN,  INT_MAX};
    const int size = input_.oneOf(kSizes);
    const std::string before = system_.read(tessera::kConfigFileName);
    const bool succeeds = size >= 1048576 && size <= 78643200;
    FUZZ_EQUAL(succeeds ? 0 : 1, SetMaxContentSize(size));
    if (succeeds) {
      checkContentSize(size);
    } else {
      FUZZ_CHECK(system_.read(tessera::kConfigFileName) == before);
    }
  }

  void generate() {
    const uint8_t choice = input_.byte();
    const bool is_text = (choice & 1) != 0;
    const auto call = is_text ? GenerateSignature4Text : GenerateSignature4Binary;
    std::string passage = input_.bytes(choice >> 3);
    std::string text;
    for (int copies = 0; copies < 30; ++copies) text += passage;
    int length = static_cast<int>(text.size());
    char* content = text.data();
    if ((choice & 6) == 2) length = (choice & 8) != 0 ? -length : INT_MIN;
    if ((choice & 6) == 4) {
      content = nullptr;
      length = (choice & 8) != 0 ? INT_MAX : -1;
    }
    unsigned char nothing[8];
    unsigned char(*list)[8] = &nothing;
    int count = -1;
    FUZZ_EQUAL(generator_open_ ? 0 : 1, call(content, length, &list, &count));
    twin::List expected;
    if (generator_open_ && content != nullptr && length > 0) {
      const auto maximum = static_cast<size_t>(maxContentSize());
      expected = !is_text     ? twin::binary(text)
                 : is_server_ ? twin::server(twin::Family::kKarpRabin, text, maximum)
                              : twin::client(twin::Family::kKarpRabin, text, maximum);
    }
    FUZZ_EQUAL(expected.size(), count);
    FUZZ_CHECK((list == nullptr) == (count == 0));
    for (size_t i = 0; i < expected.size(); ++i) {
      FUZZ_EQUAL(0, std::memcmp(expected[i].data(), list[i], 8));
    }
    FUZZ_EQUAL(0, FreeSignature(list));
  }

  // ---- Index

  void initIndex() {
    IndexSysConfiguration configuration;
    const bool loads =
        system_.exists(tessera::kConfigFileName) &&
        config_twin::load(system_.read(tessera::kConfigFileName), &configuration) == 0;
    const std::string index_name = configuration.fid_index_fname;
    const std::string table_name = configuration.search_table_fname;
    if (index_open_ || !loads || index_name.empty() || table_name.empty()) {
      FUZZ_EQUAL(1, InitIndexSystem());
      return;
    }
    if (!isPlain(index_name) || !isPlain(table_name)) certain_ = false;
    const int result = InitIndexSystem();
    FUZZ_CHECK(result == 0 || result == 1);
    if (certain_) FUZZ_EQUAL(0, result);
    index_open_ = result == 0;
    if (!index_open_) return;
    index_ = &indexes_[index_name];
    table_name_ = table_name;
    // The two buffers of the table writer.
    tables_fit_ = uint64_t{configuration.max_ele_num_save} * 16 <= MemorySystem::kMemoryBytes;
    index_->open(uint64_t{4} * configuration.max_fid_num);
  }

  int64_t madeFileId() {
    static constexpr int64_t kEdges[] = {-1,
                                         -2,
                                         INT64_MIN,
                                         INT64_MAX,
                                         (int64_t{1} << 31) - 2,
                                         (int64_t{1} << 31) - 1,
                                         -(int64_t{1} << 31),
                                         -(int64_t{1} << 31) - 1};
    const uint8_t choice = input_.byte();
    return choice < 200 ? choice % 16 : kEdges[choice & 7];
  }

  void addDocument() {
    const int64_t file_id = madeFileId();
    const uint8_t choice = input_.byte();
    const Signatures signatures = crowdedSignatures(&input_, choice & 7);
    auto list = reinterpret_cast<HostSignature>(const_cast<Signature*>(signatures.data()));
    auto count = static_cast<int>(signatures.size());
    const uint8_t mistake = choice >> 3;
    if (mistake == 1) count = INT_MIN;
    if (mistake == 2) list = nullptr;
    if (mistake == 3) list = nullptr, count = INT_MAX;
    if (mistake == 4) list = nullptr, count = -1;
    if (mistake == 5) count = -1;
    const bool too_large =
        system_.size(std::string(kDirectory) + "/sig_table.stbl") >= table_limit_;
    const bool passes = index_open_ && file_id != -1 && !too_large && count > 0 && list != nullptr;
    system_.takeLargestRequest();
    const int result = AddDocSignature(file_id, list, count);
    if (!passes) {
      FUZZ_EQUAL(1, result);
      FUZZ_EQUAL(0, system_.takeLargestRequest());  // not even looked at
      return;
    }
    const int expected = index_->add(file_id, static_cast<uint32_t>(file_id), signatures);
    if (certain_) FUZZ_EQUAL(expected, result);
  }

  void eraseDocuments() {
    const uint8_t choice = input_.byte();
    std::vector<int64_t> file_ids(1);  // never a null list
    file_ids.clear();
    for (int i = choice & 3; i > 0; --i) file_ids.push_back(madeFileId());
    auto count = static_cast<int>(file_ids.size());
    int64_t* list = file_ids.data();
    const uint8_t mistake = choice >> 3;
    if (mistake == 1) count = INT_MIN;
    if (mistake == 2) list = nullptr;
    if (mistake == 3) list = nullptr, count = INT_MAX;
    if (mistake == 4) list = nullptr, count = -1;
    system_.takeLargestRequest();
    const int result = DelDocSignature(list, count);
    if (!index_open_ || count < 0 || list == nullptr) {
      FUZZ_EQUAL(1, result);
      FUZZ_EQUAL(0, system_.takeLargestRequest());
      return;
    }
    const int expected = index_->erase(file_ids);
    if (certain_) FUZZ_EQUAL(expected, result);
  }

  void exitIndex() {
    const int result = ExitIndexSystem();
    FUZZ_CHECK(result == 0 || result == 1);
    if (!index_open_) FUZZ_EQUAL(1, result);
    if (index_open_ && certain_) {
      FUZZ_EQUAL(0, result);
      index_->save();
      auto& table = tables_[table_name_];
      table.reset();
      if (tables_fit_ || index_->saved().empty()) {
        table = index_->saved();
        checkTables(*table);
      }
    }
    index_open_ = false;
  }

  void checkTables(const Postings& postings) {
    const std::string base = std::string(kDirectory) + "/" + table_name_;
    std::string strong, weak;
    tableBytes(postings, &strong, &weak);
    FUZZ_CHECK(system_.read(base + ".stbl") == strong);
    FUZZ_CHECK(system_.read(base + ".wtbl") == weak);
    const uint64_t meta_size = postings.empty() ? 0 : 524300;
    FUZZ_EQUAL(meta_size, system_.size(base + ".smeta"));
    FUZZ_EQUAL(meta_size, system_.size(base + ".wmeta"));
  }

  void setTableLimit() {
    static constexpr uint32_t kLimits[] = {kTableLimit, 0, 1, 16, 17, 100, UINT32_MAX};
    table_limit_ = input_.oneOf(kLimits);
    FUZZ_EQUAL(0, setMaxStblSize(table_limit_));
  }

  // ---- Matching

  // What the search would load; nothing when that cannot be told.
  std::optional<Postings> tablesOnDisk() {
    const auto found = tables_.find("search_table");
    return found == tables_.end() ? Postings() : found->second;
  }

  void initMatch() {
    const int result = InitMatchSystem();
    FUZZ_CHECK(result == 0 || result == 1);
    const std::optional<Postings> postings = tablesOnDisk();
    if (match_open_) {
      FUZZ_EQUAL(1, result);
    } else if (certain_ && postings) {
      FUZZ_EQUAL(postings->empty() ? 1 : 0, result);
    }
    if (result == 0) {
      match_open_ = true;
      loaded_ = postings;
    }
  }

  void match() {
    const uint8_t choice = input_.byte();
    Signatures query = crowdedSignatures(&input_, choice & 15);
    std::sort(query.begin(), query.end());
    query.reserve(1);
    const int fsz = static_cast<int8_t>(input_.byte());
    auto list = reinterpret_cast<HostSignature>(query.data());
    auto count = static_cast<int>(query.size());
    _DLPSigMatchRet nothing = {};
    _DLPSigMatchRet* result = &nothing;
    int result_count = -7;
    switch (choice >> 4) {
      case 1:
        FUZZ_EQUAL(1, MatchSignature(list, count, fsz, nullptr, &result_count));
        FUZZ_EQUAL(-7, result_count);
        return;
      case 2:
        result = nullptr;
        FUZZ_EQUAL(1, MatchSignature(list, count, fsz, &result, &result_count));
        FUZZ_EQUAL(-7, result_count);
        return;
      case 3:
        FUZZ_EQUAL(1, MatchSignature(list, count, fsz, &result, nullptr));
        FUZZ_CHECK(result == nullptr);
        return;
      case 4:
        count = -1;
        break;
      case 5:
        count = INT_MIN;
        break;
      case 6:
        list = nullptr;
        break;
      case 7:
        list = nullptr;
        count = INT_MAX;
        break;
    }
    system_.takeLargestRequest();
    const int status = MatchSignature(list, count, fsz, &result, &result_count);
    FUZZ_CHECK(status == 0 || status == 1);
    FUZZ_CHECK(result != &nothing);
    FUZZ_CHECK(result_count >= 0);
    if (!match_open_ || count < 0 || list == nullptr) {
      FUZZ_EQUAL(1, status);
      FUZZ_EQUAL(0, system_.takeLargestRequest());
    }
    if (status == 1) FUZZ_CHECK(result == nullptr);
    // Tables that were rewritten since they were loaded may be refused.
    const std::optional<Postings> on_disk = tablesOnDisk();
    if (match_open_ && count >= 0 && list != nullptr && certain_ && loaded_ && on_disk &&
        areEqual(*loaded_, *on_disk)) {
      FUZZ_EQUAL(0, status);
      const Matches expected = rank(IndexTwin::kBase, *loaded_, query, fsz);
      FUZZ_EQUAL(expected.size(), result_count);
      for (size_t i = 0; i < expected.size(); ++i) {
        FUZZ_EQUAL(expected[i].file_id, result[i].fileID);
        FUZZ_EQUAL(expected[i].level, result[i].match_level);
      }
    }
    FUZZ_EQUAL(0, FreeSigMatchRet(result));
  }

  // ---- Somebody else

  void damage() {
    const std::vector<std::string> names = system_.names(kDirectory);
    if (names.empty()) return;
    const std::string path = std::string(kDirectory) + "/" + names[input_.byte() % names.size()];
    const uint8_t choice = input_.byte();
    const size_t at = input_.number<uint16_t>();
    std::string content = system_.read(path);
    certain_ = false;
    if ((choice & 3) == 0) {
      system_.remove(path.c_str());
      return;
    }
    if ((choice & 3) == 1) content.resize(std::min(content.size(), at));
    if ((choice & 3) == 2) content.append(input_.below(64), '\1');
    if ((choice & 3) == 3 && at < content.size()) content[at] = static_cast<char>(input_.byte());
    system_.write(path, content);
  }

  Input& input_;
  MemorySystem& system_;
  bool certain_ = true;

  bool generator_open_ = false;
  bool is_server_ = false;

  bool index_open_ = false;
  IndexTwin* index_ = nullptr;  // the open one
  std::string table_name_;
  bool tables_fit_ = true;
  uint32_t table_limit_ = kTableLimit;
  std::map<std::string, IndexTwin> indexes_;               // by the name of their trees
  std::map<std::string, std::optional<Postings>> tables_;  // by name; nothing: not known

  bool match_open_ = false;
  std::optional<Postings> loaded_;
};

// The match side reads the configuration once in the life of a process. That must
// not be one that an input happens to bring, or what an input shows would depend
// on its predecessors.
bool settleMatchSystem(MemorySystem* system) {
  _DLPSigMatchRet nothing = {};
  _DLPSigMatchRet* result = &nothing;
  int count = -1;
  unsigned char signature[1][8] = {};
  FUZZ_EQUAL(1, ExitMatchSystem());
  FUZZ_EQUAL(1, InitMatchSystem());  // no configuration
  system->write(tessera::kConfigFileName, "malformed");
  FUZZ_EQUAL(1, InitMatchSystem());
  system->write(tessera::kConfigFileName, "max_ele_num_load=3\n");
  FUZZ_EQUAL(1, InitMatchSystem());  // no tables, but from here on the configuration stays
  FUZZ_EQUAL(1, MatchSignature(signature, 1, 0, &result, &count));
  FUZZ_EQUAL(1, ExitMatchSystem());
  system->clear();
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  MemorySystem& system = fuzz::freshSystem();
  static const bool is_settled = settleMatchSystem(&system);
  Input input(data, size);
  if (is_settled) Sequence(&input, &system).run();
  return 0;
}
