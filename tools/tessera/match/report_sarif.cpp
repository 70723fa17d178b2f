#include <fmt/format.h>

#include <string_view>

#include "cli/names.h"
#include "match/report.h"
#include "store/records.h"

namespace tool {

namespace {

std::string fileUri(const std::string& path) {
  std::string uri = "file://";
  for (const char c : path) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       std::string_view("/-._~").find(c) != std::string_view::npos;
    uri += plain ? std::string(1, c) : fmt::format("%{:02X}", static_cast<unsigned char>(c));
  }
  return uri;
}

Json message(const std::string& text) { return {{"text", text}}; }

// The file, and in it the document: a member of an archive has no URI of its own.
Json locationOf(const InspectedFile& file, const Query& query) {
  Json artifact;
  if (file.file.path.empty()) {
    artifact["description"] = message("standard input");
  } else {
    artifact["uri"] = fileUri(file.file.path.native());
  }
  Json location = {{"physicalLocation", {{"artifactLocation", artifact}}}};
  if (!query.member.empty()) {
    location["logicalLocations"] =
        Json::array({{{"name", shownName(query.member)},
                      {"fullyQualifiedName", shownName(file.nameOf(query))},
                      {"kind", "member"}}});
  }
  return location;
}

Json passagesOf(const Passages& passages) {
  Json list = Json::array();
  for (const Passage& passage : passages.shown) {
    list.push_back({{"begin", passage.begin}, {"end", passage.end}, {"text", passage.text}});
  }
  return list;
}

Json resultOf(const InspectedFile& file, const Query& query, const Finding& finding) {
  static constexpr const char* kLevels[] = {"note", "warning", "error"};
  const Match& match = finding.match;
  Json result = {{"ruleId", fmt::format("level-{}", match.level)},
                 {"ruleIndex", match.level},
                 {"level", kLevels[match.level]},
                 {"message", message(fmt::format("shares {} of {} signatures with {}", match.hits,
                                                 query.signatures, shownName(finding.name())))},
                 {"locations", Json::array({locationOf(file, query)})},
                 {"partialFingerprints", {{"sha256/v1", hexadecimal(query.sha256)}}}};
  Json& properties = result["properties"];
  properties["fileId"] = match.file_id;
  properties["document"] = shownName(finding.name());
  if (finding.document) properties["label"] = shownName(finding.document->label);
  properties["hits"] = match.hits;
  properties["signatures"] = query.signatures;
  if (finding.passages.count > 0) properties["passages"] = passagesOf(finding.passages);
  return result;
}

Json rules() {
  return Json::array(
      {{{"id", "level-0"},
        {"name", "Trace"},
        {"shortDescription", message("Shares a passage with an indexed document")}},
       {{"id", "level-1"},
        {"name", "WeakMatch"},
        {"shortDescription", message("Shares at least a twentieth of its signatures, or 3, with an "
                                     "indexed document")}},
       {{"id", "level-2"},
        {"name", "StrongMatch"},
        {"shortDescription",
         message("Shares at least a tenth of its signatures, or 9, with an indexed "
                 "document")}}});
}

// One log, at the end; what was not inspected stands among the notifications.
class SarifReporter : public Reporter {
 public:
  std::string file(const InspectedFile& file) override {
    for (const Query& query : file.queries) {
      for (const Finding& finding : query.findings) {
        results_.push_back(resultOf(file, query, finding));
      }
      if (query.reason == Reason::kNone) continue;
      notifications_.push_back(
          {{"level", file.unreadable ? "error" : "warning"},
           {"descriptor", {{"id", "not-inspected"}}},
           {"message",
            message(fmt::format("{}: {}", shownName(file.nameOf(query)), query.verdictText()))},
           {"locations", Json::array({locationOf(file, query)})}});
    }
    return "";
  }

  std::string problem(const std::string& text) override {
    notifications_.push_back(
        {{"level", "error"}, {"descriptor", {{"id", "problem"}}}, {"message", message(text)}});
    return "";
  }

  std::string end(const Totals& totals, int status) override {
    const Json driver = {{"name", "tessera"}, {"version", TESSERA_VERSION}, {"rules", rules()}};
    const Json invocation = {{"executionSuccessful", totals.problems == 0},
                             {"exitCode", status},
                             {"toolExecutionNotifications", notifications_}};
    const Json run = {{"tool", {{"driver", driver}}},
                      {"invocations", Json::array({invocation})},
                      {"results", results_}};
    const Json log = {{"$schema", "https://json.schemastore.org/sarif-2.1.0.json"},
                      {"version", "2.1.0"},
                      {"runs", Json::array({run})}};
    return log.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
  }

 private:
  Json results_ = Json::array();
  Json notifications_ = Json::array();
};

}  // namespace

std::unique_ptr<Reporter> makeSarifReporter() { return std::make_unique<SarifReporter>(); }

}  // namespace tool
