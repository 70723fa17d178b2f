// "tessera text": the canonical text of a document and of what is in it.
// Tests: tests/tool/sig_test.py.
#include <fmt/format.h>
#include <unistd.h>

#include <string>

#include "commands.h"
#include "failure.h"
#include "files/opened_parts.h"

namespace tool {

namespace {

// A document may hold what a terminal would act upon.
std::string harmless(std::string text) {
  for (char& c : text) {
    const bool control = (c >= 0 && c < 0x20 && c != '\n' && c != '\t') || c == 0x7f;
    if (control) c = '?';
  }
  for (size_t i = 0; (i = text.find('\xc2', i)) != std::string::npos; ++i) {  // C1: U+0080..9F
    if (i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xa0) {
      text.replace(i, 2, "?");
    }
  }
  return text;
}

}  // namespace

int textCommand(const CommonOptions& common, const TextOptions& options) {
  OpenedParts parts({options.file}, common.home, options.inspect);
  const bool terminal = ::isatty(STDOUT_FILENO) == 1;
  Headings headings(false);
  const bool whole = parts.each([&](const std::string& name, const Part& part) {
    if (part.form == Form::kBinary) {
      complain(fmt::format("note: {} is no text ({})", name, part.type));
      return;
    }
    std::string text = terminal ? harmless(part.content) : part.content;
    if (!text.empty() && text.back() != '\n') text += '\n';
    headings.print(name, text);
  });
  headings.end();
  return whole ? kDone : kFailed;
}

}  // namespace tool
