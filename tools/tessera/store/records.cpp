#include "store/records.h"

#include <fmt/chrono.h>

#include <ctime>

#include "cli/names.h"

namespace tool {

std::string_view selectionName(Selection selection) {
  return selection == Selection::kFull ? "full" : "sparse";
}

std::string timeText(int64_t when) {
  return fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(static_cast<std::time_t>(when)));
}

Json documentRecord(const DocumentEntry& document) {
  return {{"kind", "document"},
          {"id", document.id},
          {"path", shownName(document.path)},
          {"member", shownName(document.member)},
          {"size", document.size},
          {"sha256", hexadecimal(document.sha256)},
          {"type", shownName(document.type)},
          {"label", shownName(document.label)},
          {"selection", selectionName(document.selection)},
          {"signatures", document.signatures},
          {"indexed_at", timeText(document.when)}};
}

Json verdictRecord(const FileEntry& file, const Verdict& verdict) {
  return {{"kind", "not_inspected"},
          {"path", shownName(file.path)},
          {"member", shownName(verdict.member)},
          {"reason", reasonName(verdict.reason)},
          {"detail", shownName(verdict.detail)}};
}

std::string reasonText(Reason reason, const std::string& detail) {
  const std::string_view name = reasonName(reason);
  return detail.empty() ? std::string(name) : fmt::format("{} ({})", name, shownName(detail));
}

std::string verdictText(const FileEntry& file, const Verdict& verdict) {
  const std::string name = verdict.member.empty() ? file.path : file.path + "!" + verdict.member;
  return fmt::format("not inspected: {}: {}", shownName(name),
                     reasonText(verdict.reason, verdict.detail));
}

std::string csvLine(const std::vector<std::string>& fields) {
  std::string line;
  for (const std::string& field : fields) {
    if (!line.empty() || &field != &fields.front()) line += ',';
    if (field.find_first_of(",\"\r\n") == std::string::npos) {
      line += field;
      continue;
    }
    line += '"';
    for (const char character : field) {
      if (character == '"') line += '"';
      line += character;
    }
    line += '"';
  }
  return line + "\r\n";
}

}  // namespace tool
