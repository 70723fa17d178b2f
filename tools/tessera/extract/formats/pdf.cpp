#include "extract/formats/pdf.h"

#include <algorithm>
#include <iterator>
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

// pdftotext goes on behind what it cannot read, and ends as if nothing were wrong. What it
// says about how a page looks is no loss of text.
void tellDamage(std::string_view errors) {
  for (size_t at = 0; at < errors.size();) {
    const size_t end = std::min(errors.find('\n', at), errors.size());
    const std::string_view line = errors.substr(at, end - at);
    at = end + 1;
    if (!line.starts_with("Syntax Error")) continue;
    const auto is_about = [&](std::string_view what) { return line.find(what) != line.npos; };
    constexpr std::string_view kLooks[] = {"olor space", "ICCBased", "attern",
                                           "hading",     "nnot",     "optional content"};
    if (std::any_of(std::begin(kLooks), std::end(kLooks), is_about)) continue;
    throw NotInspected(Reason::kDamaged, "pdftotext: " + std::string(line.substr(0, 100)));
  }
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
  tellDamage(result.errors);
}

}  // namespace tool
