#include <fmt/format.h>

#include <utility>

#include "cli/names.h"
#include "match/report.h"
#include "store/records.h"

namespace tool {

namespace {

// A change that a reader of the records has to know of is a new schema.
constexpr char kSchema[] = "tessera-match-1";

std::string line(const Json& record) {
  return record.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

const char* outcomeName(Query::Outcome outcome) {
  switch (outcome) {
    case Query::Outcome::kMatch:
      return "match";
    case Query::Outcome::kUninspected:
      return "not_inspected";
    case Query::Outcome::kContainer:
      return "container";
    case Query::Outcome::kTooShort:
      return "too_short";
    case Query::Outcome::kNoMatch:
      return "no_match";
  }
  return "";
}

const char* formName(Form form) {
  return form == Form::kText ? "text" : form == Form::kBinary ? "binary" : "container";
}

Json passagesOf(const Passages& passages) {
  Json list = Json::array();
  for (const Passage& passage : passages.shown) {
    list.push_back({{"begin", passage.begin},
                    {"end", passage.end},
                    {"before", passage.before},
                    {"text", passage.text},
                    {"after", passage.after}});
  }
  return {{"count", passages.count}, {"bytes", passages.bytes}, {"longest", std::move(list)}};
}

Json findingOf(const Finding& finding) {
  Json record = {{"file_id", finding.match.file_id}, {"name", shownName(finding.name())}};
  if (finding.document) record["label"] = shownName(finding.document->label);
  record["level"] = finding.match.level;
  record["hits"] = finding.match.hits;
  if (finding.passages.count > 0) record["passages"] = passagesOf(finding.passages);
  return record;
}

class JsonReporter : public Reporter {
 public:
  std::string file(const InspectedFile& file) override {
    std::string lines;
    for (const Query& query : file.queries) {
      Json record = {{"schema", kSchema},
                     {"kind", "document"},
                     {"name", shownName(file.nameOf(query))},
                     {"file", shownName(file.file.name)},
                     {"member", shownName(query.member)},
                     {"verdict", outcomeName(query.outcome())}};
      if (query.reason != Reason::kNone) {
        record["not_inspected"] = {{"reason", reasonName(query.reason)},
                                   {"detail", shownName(query.detail)},
                                   {"in_part", query.inspected}};
      }
      if (query.inspected) {
        record["type"] = query.type;
        record["encoding"] = query.encoding;
        record["form"] = formName(query.form);
        record["size"] = query.size;
        record["sha256"] = hexadecimal(query.sha256);
        record["signatures"] = query.signatures;
        record["common_signatures"] = query.common;
      }
      record["matches"] = Json::array();
      for (const Finding& finding : query.findings) record["matches"].push_back(findingOf(finding));
      lines += line(record);
    }
    return lines;
  }

  std::string problem(const std::string& message) override {
    return line({{"schema", kSchema}, {"kind", "problem"}, {"message", message}});
  }

  std::string end(const Totals& totals, int status) override {
    return line({{"schema", kSchema},
                 {"kind", "summary"},
                 {"files", totals.files},
                 {"documents", totals.documents},
                 {"matched", totals.matched},
                 {"not_inspected", totals.not_inspected},
                 {"too_short", totals.too_short},
                 {"problems", totals.problems},
                 {"status", status}});
  }
};

}  // namespace

std::unique_ptr<Reporter> makeJsonReporter() { return std::make_unique<JsonReporter>(); }

}  // namespace tool
