// How documents of the catalogue look to other programs: as JSON and as CSV. Names are
// as shownName() tells them, times are UTC. Tests: tests/tool/store_verbs_test.py.
#pragma once

#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "store/catalogue.h"

namespace tool {

using Json = nlohmann::ordered_json;

std::string_view selectionName(Selection selection);
std::string timeText(int64_t when);  // "2024-05-17T08:30:00Z"

template <typename Bytes>
std::string hexadecimal(const Bytes& bytes) {
  return fmt::format("{:02x}", fmt::join(bytes, ""));
}

Json documentRecord(const DocumentEntry& document);
Json verdictRecord(const FileEntry& file, const Verdict& verdict);

// "encrypted (it wants a password)"
std::string reasonText(Reason reason, const std::string& detail);

// "not inspected: NAME: encrypted (it wants a password)"
std::string verdictText(const FileEntry& file, const Verdict& verdict);

// A line, its end included. Fields with commas, quotes or line breaks are quoted.
std::string csvLine(const std::vector<std::string>& fields);

}  // namespace tool
