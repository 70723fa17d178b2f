// "tessera sig": the signatures of files. Tests: tests/tool/sig_test.py.
#include <fmt/format.h>

#include <string>
#include <vector>

#include "commands.h"
#include "failure.h"
#include "files/opened_parts.h"
#include "library/fingerprint.h"
#include "store/home.h"
#include "store/records.h"

namespace tool {

int sigCommand(const CommonOptions& common, const SigOptions& options) {
  OpenedParts parts(options.files, common.home, options.inspect);
  const ScratchHome scratch(common.home);
  const Fingerprinter fingerprinter(options.selection);

  Headings headings(options.files.size() > 1);
  const bool whole = parts.each([&](const std::string& name, const Part& part) {
    std::vector<std::string> lines;
    for (const Signature& signature : fingerprinter.signatures(part)) {
      lines.push_back(hexadecimal(signature));
    }
    if (options.json) {
      const Json record = {
          {"name", name}, {"selection", selectionName(options.selection)}, {"signatures", lines}};
      fmt::print("{}\n", record.dump());
      return;
    }
    if (lines.empty()) complain(fmt::format("note: {} is too short for a signature", name));
    headings.print(name, fmt::format("{}{}", fmt::join(lines, "\n"), lines.empty() ? "" : "\n"));
  });
  headings.end();
  return whole ? kDone : kFailed;
}

}  // namespace tool
