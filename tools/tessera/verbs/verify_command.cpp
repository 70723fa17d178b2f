// "tessera verify": whether the index, its search tables and the catalogue are whole and
// agree. Changes nothing. Tests: tests/tool/store_verbs_test.py.
#include <fmt/format.h>

#include <map>

#include "cli/names.h"
#include "commands.h"
#include "failure.h"
#include "store/home.h"
#include "store/records.h"
#include "store/store.h"
#include "store/strong_table.h"
#include "tessera_store.h"

namespace fs = std::filesystem;

namespace tool {

namespace {

// Findings as they come, and whether one of them is an error.
class Findings {
 public:
  explicit Findings(bool json) : json_(json) {}

  void add(int severity, const std::string& subject, const std::string& text) {
    constexpr const char* kNames[] = {"note", "warning", "error"};
    damaged_ = damaged_ || severity == TESSERA_FINDING_ERROR;
    if (json_) {
      const Json record = {{"severity", kNames[severity]},
                           {"subject", shownName(subject)},
                           {"text", shownName(text)}};
      fmt::print("{}\n", record.dump());
    } else {
      fmt::print("{}: {} {}\n", kNames[severity], shownName(subject), shownName(text));
    }
  }

  bool damaged() const { return damaged_; }

 private:
  const bool json_;
  bool damaged_ = false;
};

void verifyCatalogue(const Catalogue& catalogue, Findings* findings) {
  for (const std::string& problem : catalogue.problems()) {
    findings->add(TESSERA_FINDING_ERROR, "the catalogue", fmt::format("is damaged: {}", problem));
  }
  if (const size_t count = catalogue.unsettled().size()) {
    findings->add(TESSERA_FINDING_WARNING, "the catalogue",
                  fmt::format("has {} documents that wait for the next 'tessera index'", count));
  }
}

void verifyIndex(Findings* findings) {
  const auto add = [](const tessera_finding* finding, void* context) {
    static_cast<Findings*>(context)->add(finding->severity, finding->subject, finding->text);
  };
  switch (tessera_verify_index(add, findings, nullptr)) {
    case TESSERA_STORE_FAILED:
      throw Failure(
          "the index cannot be verified: its configuration cannot be read, or memory "
          "ran out");
    case TESSERA_STORE_IN_USE:
      throw IndexInUse(fs::current_path());
    default:
      break;
  }
}

// The documents that the index shall hold, with how many signatures of each, against
// those that it holds.
void compare(const Catalogue& catalogue, const fs::path& home, Findings* findings) {
  std::map<int64_t, int64_t> missing;
  const SignatureList common = catalogue.commonSignatures();
  catalogue.eachList([&](int64_t id, const SignatureList& list) {
    const auto count = static_cast<int64_t>(without(list, common).size());
    if (count) missing[id] = count;
  });
  eachPosting(home / kIndexName, [&](const Signature&, int64_t id) { --missing[id]; });
  for (const auto& unsettled : catalogue.unsettled()) missing.erase(unsettled.id);
  for (const auto& [id, count] : missing) {
    if (count == 0) continue;
    findings->add(TESSERA_FINDING_ERROR, fmt::format("document {}", id),
                  count > 0 ? fmt::format("lacks {} signatures in the index", count)
                            : fmt::format("has {} signatures in the index that the catalogue "
                                          "does not know",
                                          -count));
  }
}

}  // namespace

int verifyCommand(const CommonOptions& common, const VerifyOptions& options) {
  const auto catalogue = openCatalogue(common.home);
  enterHome(common.home);
  const DirectoryLock lock(common.home, DirectoryLock::Kind::kExclusiveOrNothing);
  if (!lock.held()) throw IndexInUse(common.home);

  Findings findings(options.json);
  verifyCatalogue(*catalogue, &findings);
  verifyIndex(&findings);
  if (!findings.damaged()) compare(*catalogue, common.home, &findings);
  if (!areOfSameRun(common.home, *catalogue)) {
    findings.add(TESSERA_FINDING_ERROR, "the catalogue", "is not of the same run as the index");
  }
  if (findings.damaged()) {
    complain(
        "the index is damaged: 'tessera rebuild' makes its search tables anew, "
        "'tessera rebuild --from-catalogue' all of it");
    return kFailed;
  }
  if (!options.json) {
    fmt::print("the index is whole and agrees with its catalogue{}\n",
               catalogue->unsettled().empty() ? "" : " but for what is not settled");
  }
  return kDone;
}

}  // namespace tool
