#include "library.h"

#include <fmt/format.h>

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string_view>

#include "failure.h"
#include "home.h"
#include "tessera.h"
#include "tessera_log.h"

namespace tool {

namespace {

constexpr int64_t kRootFileId = -1;  // the library's own document in every index

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
  const std::lock_guard lock(log_mutex);
  if (log_lines.size() < 16) log_lines.emplace_back(text.substr(head + 2));
  return 0;
}

// Forgets what was logged before the call that is about to be made.
void listen() {
  {
    const std::lock_guard lock(log_mutex);
    log_lines.clear();
  }
  tessera_set_log_sink(3, collectMessage);
}

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

}  // namespace

Generator::Generator() {
  listen();
  if (InitSignatureGenerator(TESSERA_CLIENT) != 0) {
    throw Failure(fmt::format("cannot prepare the generator: {}", firstMessage()));
  }
}

Generator::~Generator() { ExitSignatureGenerator(); }

SignatureList Generator::signatures(std::string* text) const {
  unsigned char(*list)[8] = nullptr;
  int count = 0;
  // Nobody listens, since with a sink every window is gone through for its messages,
  // which takes ten times as long. Only one thing can fail.
  tessera_set_log_sink(3, nullptr);
  if (GenerateSignature4Text(text->data(), static_cast<int>(text->size()), &list, &count) != 0) {
    throw Failure("cannot generate signatures: out of memory");
  }
  SignatureList signatures(static_cast<size_t>(count));
  for (size_t i = 0; i < signatures.size(); ++i) std::copy_n(list[i], 8, signatures[i].begin());
  FreeSignature(list);
  return signatures;
}

IndexSession::IndexSession() {
  listen();
  if (InitIndexSystem() == 0) return;
  if (heard("load index sys configuration fail")) throw Failure(malformedConfiguration());
  if (indexIsOpenElsewhere()) {
    throw Failure(fmt::format("the index {} is in use by another process", here(kIndexName)));
  }
  throw Failure(fmt::format(
      "cannot open the index {}: {}\n"
      "Is the disk full or the index damaged? Without its directory {}, the next run of "
      "'tessera index' makes a new one of the documents in the catalogue.",
      here(kIndexName), firstMessage(), kIndexName));
}

IndexSession::~IndexSession() {
  if (open_) ExitIndexSystem();
}

bool IndexSession::add(int64_t file_id, SignatureList* signatures, std::string* reason) {
  listen();
  if (AddDocSignature(file_id, plain(signatures), static_cast<int>(signatures->size())) == 0) {
    return true;
  }
  *reason = firstMessage();
  return false;
}

void IndexSession::remove(std::vector<int64_t> file_ids) {
  listen();
  if (DelDocSignature(file_ids.data(), static_cast<int>(file_ids.size())) != 0) {
    throw Failure(fmt::format("cannot remove documents from the index: {}", firstMessage()));
  }
}

void IndexSession::close() {
  open_ = false;
  listen();
  if (ExitIndexSystem() != 0 || heard("create search table fail")) {
    throw Failure(fmt::format("cannot write the index {}: {}", here(kIndexName), firstMessage()));
  }
}

MatchSession::MatchSession() {
  listen();
  if (InitMatchSystem() == 0) return;
  if (heard("load search sys configuration fail")) throw Failure(malformedConfiguration());
  throw Failure(
      fmt::format("cannot load the search tables of the index {}: {}\n"
                  "A run of 'tessera index' writes them anew.",
                  here(kIndexName), firstMessage()));
}

MatchSession::~MatchSession() { ExitMatchSystem(); }

std::vector<Match> MatchSession::match(SignatureList* signatures, size_t bytes) const {
  // A size of 0 would switch the levels off.
  const int size = static_cast<int>(std::clamp<size_t>(bytes, 1, INT_MAX));
  _DLPSigMatchRet placeholder;
  _DLPSigMatchRet* records = &placeholder;  // must not be null
  int count = 0;
  listen();
  if (MatchSignature(plain(signatures), static_cast<int>(signatures->size()), size, &records,
                     &count) != 0) {
    FreeSigMatchRet(records);
    throw Failure(fmt::format("cannot search the index: {}", firstMessage()));
  }
  std::vector<Match> matches;
  for (int i = 0; i < count; ++i) {
    if (records[i].fileID != kRootFileId) {
      matches.push_back({records[i].fileID, records[i].match_level});
    }
  }
  FreeSigMatchRet(records);
  std::sort(matches.begin(), matches.end(), [](const Match& a, const Match& b) {
    return a.level != b.level ? a.level > b.level : a.file_id < b.file_id;
  });
  return matches;
}

}  // namespace tool
