// "tessera sig": the signatures of one file. Tests: tests/tool/tool_test.py.
#include <fmt/format.h>

#include "commands.h"
#include "documents.h"
#include "failure.h"
#include "home.h"
#include "library.h"

namespace tool {

int sigCommand(const CommonOptions& common, const SigOptions& options) {
  const std::string& file = options.files.front();
  std::string content;
  std::string reason;
  const ReadOutcome outcome = readDocument(file, &content, &reason);
  if (outcome == ReadOutcome::kNotText) reason = "not a text";
  if (outcome != ReadOutcome::kText) {
    throw Failure(fmt::format("cannot read {}: {}", file, reason));
  }

  const ScratchHome scratch(common.home);
  const SignatureList signatures = textSignatures(content);
  if (signatures.empty()) complain(fmt::format("note: {} is too short for a signature", file));
  for (const Signature& signature : signatures) {
    fmt::print("{:02x}\n", fmt::join(signature, ""));
  }
  return kDone;
}

}  // namespace tool
