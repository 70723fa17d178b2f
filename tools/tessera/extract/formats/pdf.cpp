#include "extract/formats/pdf.h"

#include <algorithm>
#include <string>
#include <vector>

#include "extract/formats/helper_program.h"
#include "extract/formats/words.h"

namespace tool {
namespace {

[[noreturn]] void fail(const HelperResult& result) {
  if (result.errors.find("Incorrect password") != std::string::npos) {
    throw NotInspected(Reason::kEncrypted, "");
  }
  if (ranOutOfMemory(result)) throw NotInspected(Reason::kMemoryLimit, "pdftotext");
  throw NotInspected(Reason::kDamaged, "pdftotext cannot read it");
}

// The files attached to it, as pdfdetach lists them: "1: NAME", after a line that tells
// how many there are.
std::vector<std::string> attachedFiles(std::string_view content, const Document& document) {
  const HelperResult result =
      runHelper({"pdfdetach", "-list", "-enc", "UTF-8", kHelperInput}, content, document);
  std::vector<std::string> names;
  for (size_t at = 0; at < result.output.size();) {
    const size_t end = std::min(result.output.find('\n', at), result.output.size());
    const std::string start = std::to_string(names.size() + 1) + ": ";
    if (result.output.compare(at, start.size(), start) == 0) {
      names.push_back(result.output.substr(at + start.size(), end - at - start.size()));
    }
    at = end + 1;
  }
  return names;
}

}  // namespace

void parsePdf(std::string_view content, Document& document) {
  const HelperResult result = runHelper(
      {"pdftotext", "-enc", "UTF-8", "-nopgbrk", "-raw", kHelperInput, "-"}, content, document);
  document.text(result.output);
  if (result.exit_status != 0) fail(result);
  for (const std::string& name : attachedFiles(content, document)) {
    document.lostMember(name, Reason::kUnsupported, "a file attached to a PDF");
  }
  if (!hasWords(result.output)) {
    throw NotInspected(Reason::kUnsupported, "no text: a scanned document?");
  }
}

}  // namespace tool
