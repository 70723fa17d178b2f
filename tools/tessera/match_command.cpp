// "tessera match": which documents of the index share passages with a file.
// Tests: tests/tool/tool_test.py.
#include <fmt/format.h>

#include <optional>

#include "catalogue.h"
#include "commands.h"
#include "documents.h"
#include "failure.h"
#include "home.h"
#include "library.h"

namespace fs = std::filesystem;

namespace tool {

namespace {

// Names from the catalogue, when there is one. What it does not know was not
// put into the index by this command, or the catalogue is an old one.
class Names {
 public:
  Names() {
    if (fs::exists(kCatalogueName)) catalogue_.emplace(kCatalogueName, Catalogue::Access::kRead);
  }

  std::string operator()(int64_t file_id) const {
    const auto document = catalogue_ ? catalogue_->document(file_id) : std::nullopt;
    return document ? document->name() : fmt::format("unknown document #{}", file_id);
  }

 private:
  std::optional<Catalogue> catalogue_;
};

}  // namespace

int matchCommand(const CommonOptions& common, const MatchOptions& options) {
  const fs::path& home = common.home;
  const std::vector<std::string>& files = options.files.paths;
  std::vector<fs::path> paths;  // absolute, for the current directory changes
  for (const std::string& file : files) paths.push_back(fs::absolute(file));

  if (!hasIndex(home)) {
    throw Failure(
        fmt::format("there is no index in {}\n"
                    "Make one with 'tessera index PATH...', or name another home with "
                    "--home DIR or TESSERA_HOME.",
                    home.string()));
  }
  enterHome(home);
  const DirectoryLock tables(kIndexName, DirectoryLock::Kind::kShared);
  const Names names;
  const MatchSession session;

  bool matched = false;
  bool failed = false;
  for (size_t i = 0; i < files.size(); ++i) {
    std::string content;
    std::string reason;
    const ReadOutcome outcome = readDocument(paths[i], &content, &reason);
    if (outcome != ReadOutcome::kText) {
      if (outcome == ReadOutcome::kNotText) reason = "not a text";
      complain(fmt::format("cannot match {}: {}", files[i], reason));
      failed = true;
      continue;
    }
    SignatureList signatures = textSignatures(content);
    fmt::print("{}\n", files[i]);
    if (signatures.empty()) {
      fmt::print("  too short to be matched\n");
      continue;
    }
    bool found = false;
    for (const Match& match : session.match(&signatures, content.size())) {
      if (match.level < options.min_level) continue;
      fmt::print("  level {}  {}\n", match.level, names(match.file_id));
      found = true;
    }
    if (!found) fmt::print("  no match\n");
    matched = matched || found;
  }
  return failed ? kFailed : matched ? kMatched : kDone;
}

}  // namespace tool
