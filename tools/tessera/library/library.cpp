#include "library/library.h"

#include <fmt/format.h>

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <new>
#include <string>
#include <tuple>

#include "failure.h"
#include "store/home.h"
#include "tessera.h"
#include "tessera_log.h"
#include "tessera_scan.h"
#include "tessera_search.h"

namespace tool {

namespace {

std::mutex log_mutex;
std::vector<std::string> log_lines;  // guarded by log_mutex; the texts alone

// A line reads "Error [tag] - (file:line):: #<function>#text". Only errors are
// kept; the first is the one nearest to the cause.
int collectMessage(const char* format, va_list arguments) {
  char line[1024];
  std::vsnprintf(line, sizeof line, format, arguments);
  const std::string_view text(line);
  const size_t head = text.find(">#");
  if (!text.starts_with("Error ") || head == std::string_view::npos) return 0;
  // The library adds its own document whenever it opens an index, and says this of it.
  if (text.substr(head + 2).starts_with("duplicated ")) return 0;
  const std::lock_guard lock(log_mutex);
  if (log_lines.size() < 16) log_lines.emplace_back(text.substr(head + 2));
  return 0;
}

// Hears what the library says about the call that is about to be made.
class Listening {
 public:
  Listening() {
    {
      const std::lock_guard lock(log_mutex);
      log_lines.clear();
    }
    tessera_set_log_sink(3, collectMessage);
  }
  ~Listening() { tessera_set_log_sink(3, nullptr); }
  Listening(const Listening&) = delete;
  Listening& operator=(const Listening&) = delete;
};

bool heard(std::string_view text) {
  const std::lock_guard lock(log_mutex);
  return std::find(log_lines.begin(), log_lines.end(), text) != log_lines.end();
}

std::string firstMessage() {
  const std::lock_guard lock(log_mutex);
  return log_lines.empty() ? "the library gives no reason" : log_lines.front();
}

std::string here(const char* name) { return (std::filesystem::current_path() / name).string(); }

std::string malformedConfiguration() {
  return fmt::format("the configuration {} cannot be used: {}", here(kConfigName), firstMessage());
}

unsigned char (*plain(SignatureList* signatures))[8] {
  return reinterpret_cast<unsigned char(*)[8]>(signatures->data());
}

constexpr int kGeneratorBytes = 75 << 20;  // no call looks at more of a text

SignatureList generated(decltype(GenerateSignature4Text) generate, std::string_view content) {
  unsigned char(*list)[8] = nullptr;
  int count = 0;
  // The library only reads the content.
  if (generate(const_cast<char*>(content.data()), static_cast<int>(content.size()), &list,
               &count) != 0) {
    throw std::bad_alloc();  // nothing else can fail
  }
  SignatureList signatures(static_cast<size_t>(count));
  for (size_t i = 0; i < signatures.size(); ++i) std::copy_n(list[i], 8, signatures[i].begin());
  FreeSignature(list);
  return signatures;
}

}  // namespace

SignatureList textSignatures(std::string_view text) {
  SignatureList signatures;
  const auto collect = [](const tessera_window* window, void* context) {
    Signature signature;
    std::copy_n(window->signature, signature.size(), signature.begin());
    try {
      static_cast<SignatureList*>(context)->push_back(signature);
    } catch (const std::bad_alloc&) {
      return 1;  // through C code no exception may pass
    }
    return 0;
  };
  if (tessera_scan_text(text.data(), text.size(), collect, &signatures) != TESSERA_SCAN_DONE) {
    throw std::bad_alloc();
  }
  makeList(&signatures);
  return signatures;
}

Generator::Generator(Selection selection) {
  const bool sparse = selection == Selection::kSparse;
  const Listening listening;
  if (InitSignatureGenerator(sparse ? TESSERA_SERVER : TESSERA_CLIENT) != 0) {
    throw Failure(fmt::format("cannot prepare the generator: {}", firstMessage()));
  }
  if (sparse && SetMaxContentSize(kGeneratorBytes) != 0) {
    ExitSignatureGenerator();
    throw Failure(fmt::format("cannot set up the generator: {}", firstMessage()));
  }
}

Generator::~Generator() { ExitSignatureGenerator(); }

SignatureList Generator::sparseSignatures(std::string_view text) const {
  SignatureList signatures;
  for (size_t begin = 0; begin < text.size(); begin += kGeneratorBytes) {
    const SignatureList section =
        generated(GenerateSignature4Text, text.substr(begin, kGeneratorBytes));
    signatures.insert(signatures.end(), section.begin(), section.end());
  }
  makeList(&signatures);
  return signatures;
}

SignatureList Generator::binarySignatures(std::string_view content) const {
  return generated(GenerateSignature4Binary, content.substr(0, INT_MAX));
}

IndexSession::IndexSession() {
  const Listening listening;
  if (InitIndexSystem() == 0) return;
  if (heard("load index sys configuration fail")) throw Failure(malformedConfiguration());
  if (indexIsOpenElsewhere()) throw IndexInUse(std::filesystem::current_path());
  throw Failure(
      fmt::format("cannot open the index {}: {}\n"
                  "Is the disk full or the index damaged? 'tessera rebuild --from-catalogue' "
                  "makes a new one.",
                  here(kIndexName), firstMessage()));
}

IndexSession::~IndexSession() {
  if (open_) ExitIndexSystem();
}

void IndexSession::add(int64_t file_id, SignatureList* signatures) {
  const Listening listening;
  if (AddDocSignature(file_id, plain(signatures), static_cast<int>(signatures->size())) != 0) {
    throw Failure(fmt::format("cannot add to the index {}: {}", here(kIndexName), firstMessage()));
  }
}

void IndexSession::remove(std::vector<int64_t> file_ids) {
  const Listening listening;
  if (DelDocSignature(file_ids.data(), static_cast<int>(file_ids.size())) != 0) {
    throw Failure(fmt::format("cannot remove documents from the index: {}", firstMessage()));
  }
}

void IndexSession::close() {
  open_ = false;
  const Listening listening;
  if (ExitIndexSystem() != 0 || heard("create search table fail")) {
    throw Failure(fmt::format("cannot write the index {}: {}", here(kIndexName), firstMessage()));
  }
}

MatchSession::MatchSession() {
  const Listening listening;
  if (InitMatchSystem() == 0) return;
  if (heard("load search sys configuration fail")) throw Failure(malformedConfiguration());
  throw Failure(
      fmt::format("cannot load the search tables of the index {}: {}\n"
                  "'tessera rebuild' writes them anew.",
                  here(kIndexName), firstMessage()));
}

MatchSession::~MatchSession() { ExitMatchSystem(); }

std::vector<Match> MatchSession::match(SignatureList* signatures, size_t bytes) const {
  // A size of 0 would switch the levels off.
  const int size = static_cast<int>(std::clamp<size_t>(bytes, 1, INT_MAX));
  tessera_hit* hits = nullptr;
  int count = 0;
  if (tessera_search(plain(signatures), static_cast<int>(signatures->size()), size, &hits,
                     &count) != 0) {
    throw Failure(
        fmt::format("cannot search the index {}: out of memory, or the index was written "
                    "meanwhile",
                    here(kIndexName)));
  }
  std::vector<Match> matches;
  for (int i = 0; i < count; ++i) {
    if (hits[i].file_id != kRootFileId) {
      matches.push_back({hits[i].file_id, hits[i].level, hits[i].hits});
    }
  }
  tessera_free_hits(hits);
  std::sort(matches.begin(), matches.end(), [](const Match& a, const Match& b) {
    return std::tie(b.level, b.hits, a.file_id) < std::tie(a.level, a.hits, b.file_id);
  });
  return matches;
}

}  // namespace tool
