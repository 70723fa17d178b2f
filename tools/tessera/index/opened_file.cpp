#include "index/opened_file.h"

#include <fmt/format.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

#include "cli/interrupt.h"
#include "extract/descriptor.h"
#include "files/regular_file.h"

namespace tool {

namespace {

// False: errno says why.
bool hashFile(int file, uint64_t* size, Sha256* hash) {
  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                        EVP_MD_CTX_free);
  if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
    throw std::bad_alloc();
  }
  std::array<char, 64 << 10> buffer;
  *size = 0;
  while (true) {
    const ssize_t got = ::read(file, buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) break;
    EVP_DigestUpdate(context.get(), buffer.data(), static_cast<size_t>(got));
    *size += static_cast<uint64_t>(got);
  }
  EVP_DigestFinal_ex(context.get(), hash->data(), nullptr);
  return true;
}

std::string describe(const Limits& limits) {
  return fmt::format(
      "tessera {}, {} s, {} bytes, {} a member, {} deep, {} members, ratio {}, {} of memory",
      TESSERA_VERSION, limits.seconds, limits.total_bytes, limits.member_bytes, limits.depth,
      limits.members, limits.ratio, limits.memory_bytes);
}

// What chance or load may have brought about is tried again.
bool wouldComeAgain(const Verdict& verdict) {
  return verdict.reason != Reason::kCrashed && verdict.reason != Reason::kUnreadable &&
         verdict.reason != Reason::kTimeLimit && verdict.reason != Reason::kProcessLimit;
}

bool isTheSame(const FileEntry& known, const FileEntry& now) {
  if (known.sha256 != now.sha256 || known.size != now.size || known.label != now.label ||
      known.selection != now.selection) {
    return false;
  }
  return known.verdicts.empty() ||
         (known.opened_by == now.opened_by &&
          std::all_of(known.verdicts.begin(), known.verdicts.end(), wouldComeAgain));
}

Inspector::Settings inspectorSettings(const Limits& limits) {
  Inspector::Settings settings;
  settings.limits = limits;
  settings.given_up = interrupted;
  return settings;
}

}  // namespace

FileOpener::FileOpener(const Settings& settings)
    : settings_(settings),
      opened_by_(describe(settings.limits)),
      fingerprinter_(settings.selection),
      inspector_(inspectorSettings(settings.limits)) {}

// The hash is taken before the file is opened. Should the file change in between, the
// catalogue has the hash of what is not there any more, and the next run opens it again.
OpenedFile FileOpener::open(
    const std::string& path,
    const std::function<std::optional<FileEntry>(const std::string&)>& known) {
  OpenedFile opened;
  FileEntry& file = opened.change.file;
  file.path = path;
  file.selection = settings_.selection;
  file.label = settings_.label;
  file.when = std::time(nullptr);
  file.opened_by = opened_by_;

  const Descriptor descriptor = openRegularFile(path, &opened.problem);
  if (opened.problem.empty() && !hashFile(descriptor.get(), &file.size, &file.sha256)) {
    opened.problem = std::strerror(errno);
  }
  if (!opened.problem.empty()) return opened;

  const std::optional<FileEntry> entry = known(path);
  opened.known = entry.has_value();
  opened.unchanged = entry && isTheSame(*entry, file);
  if (opened.unchanged) {
    file.verdicts = entry->verdicts;
  } else {
    inspect(descriptor.get(), &opened.change);
  }
  return opened;
}

void FileOpener::inspect(int file, FileChange* change) {
  const std::string& path = change->file.path;
  inspector_.inspect(file, path.substr(path.rfind('/') + 1), [&](Part&& part) {
    if (part.reason != Reason::kNone) {
      change->file.verdicts.push_back({part.name, part.reason, part.detail});
    }
    const bool nothing_got = part.reason != Reason::kNone && part.content.empty();
    if (part.form == Form::kContainer || nothing_got) return;
    change->documents.push_back(
        {part.name, part.size, part.sha256, part.type, fingerprinter_.signatures(part)});
  });
}

}  // namespace tool
