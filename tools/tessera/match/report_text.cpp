#include <fmt/format.h>

#include <string_view>
#include <utility>

#include "cli/names.h"
#include "match/report.h"

namespace tool {

void Totals::add(const InspectedFile& file) {
  ++files;
  for (const Query& query : file.queries) {
    const Query::Outcome outcome = query.outcome();
    if (query.form != Form::kContainer) ++documents;
    if (query.inspected && query.form == Form::kBinary) ++binary;
    if (outcome == Query::Outcome::kMatch) ++matched;
    if (outcome == Query::Outcome::kTooShort) ++too_short;
    if (query.reason != Reason::kNone) ++not_inspected;
  }
  if (file.unreadable) ++problems;
}

namespace {

// One line of it, harmless on a terminal.
std::string oneLine(std::string_view text) {
  std::string line;
  for (const char c : text) {
    const bool blank = c == ' ' || c == '\n' || c == '\t' || c == '\r';
    if (!blank) line += c;
    if (blank && !line.empty() && line.back() != ' ') line += ' ';
  }
  return shownName(line);
}

std::string counted(size_t count, const char* what) {
  return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

class TextReporter : public Reporter {
 public:
  explicit TextReporter(bool colours) : colours_(colours) {}

  std::string file(const InspectedFile& file) override {
    std::string text;
    for (const Query& query : file.queries) {
      const std::string lines = findings(query) + verdict(query);
      if (!lines.empty()) text += painted(kBold, shownName(file.nameOf(query))) + "\n" + lines;
    }
    return text;
  }

  std::string problem(const std::string&) override { return ""; }  // stderr has it

  std::string end(const Totals& totals, int) override {
    std::string text = fmt::format("{}, {}: {} matched", counted(totals.files, "file"),
                                   counted(totals.documents, "document"), totals.matched);
    if (totals.binary) text += fmt::format(", {} as bytes only", totals.binary);
    if (totals.too_short) text += fmt::format(", {} too short to match", totals.too_short);
    if (totals.not_inspected) {
      text += fmt::format(", {}",
                          painted(kYellow, fmt::format("{} not inspected", totals.not_inspected)));
    }
    return text + "\n";
  }

 private:
  static constexpr char kBold[] = "1";
  static constexpr char kRed[] = "1;31";
  static constexpr char kYellow[] = "33";
  static constexpr char kFaint[] = "2";

  std::string painted(const char* colour, const std::string& text) const {
    return colours_ ? fmt::format("\033[{}m{}\033[m", colour, text) : text;
  }

  std::string findings(const Query& query) const {
    std::string text;
    for (const Finding& finding : query.findings) {
      const Match& match = finding.match;
      const char* colour = match.level == 2 ? kRed : match.level == 1 ? kYellow : kFaint;
      text += fmt::format(
          "  {}  {}  ({} of {})", painted(colour, fmt::format("level {}", match.level)),
          shownName(finding.name()), match.hits, counted(query.signatures, "signature"));
      if (finding.document && !finding.document->label.empty()) {
        text += fmt::format("  [{}]", shownName(finding.document->label));
      }
      text += '\n';
      text += passages(finding.passages);
    }
    return text;
  }

  std::string passages(const Passages& passages) const {
    std::string text;
    for (const Passage& passage : passages.shown) {
      const bool cut = passage.text.size() < passage.end - passage.begin;
      text += fmt::format("    {}-{}: {}{}{}{}\n", passage.begin, passage.end,
                          painted(kFaint, oneLine(passage.before)),
                          painted(kRed, fmt::format("[{}", oneLine(passage.text))),
                          cut ? painted(kFaint, "...") : "",
                          painted(kRed, "]") + painted(kFaint, oneLine(passage.after)));
    }
    if (passages.count > passages.shown.size()) {
      text +=
          fmt::format("    and {} shorter, {} bytes in all\n",
                      counted(passages.count - passages.shown.size(), "passage"), passages.bytes);
    }
    return text;
  }

  std::string verdict(const Query& query) const {
    if (query.reason == Reason::kNone) return "";
    return fmt::format("  {}\n", painted(kYellow, query.verdictText()));
  }

  const bool colours_;
};

}  // namespace

std::unique_ptr<Reporter> makeTextReporter(bool colours) {
  return std::make_unique<TextReporter>(colours);
}

}  // namespace tool
