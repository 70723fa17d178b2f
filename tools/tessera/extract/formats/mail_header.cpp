#include "extract/formats/mail_header.h"

#include <algorithm>
#include <iterator>
#include <set>

namespace tool {

namespace {

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

std::string lower(std::string_view text) {
  std::string all(text);
  std::transform(all.begin(), all.end(), all.begin(), [](char c) { return lower(c); });
  return all;
}

std::string_view takeLine(std::string_view* rest) {
  const size_t end = rest->find('\n');
  std::string_view line = rest->substr(0, end);
  rest->remove_prefix(end == std::string_view::npos ? rest->size() : end + 1);
  if (line.ends_with('\r')) line.remove_suffix(1);
  return line;
}

// Behind a byte order mark and empty lines.
std::string_view beginning(std::string_view mail) {
  if (mail.starts_with("\xef\xbb\xbf")) mail.remove_prefix(3);
  mail.remove_prefix(std::min(mail.find_first_not_of("\r\n"), mail.size()));
  return mail;
}

// The name of the header field that a line begins; empty: none.
std::string_view fieldName(std::string_view line) {
  const size_t colon = line.find(':');
  if (colon == std::string_view::npos) return {};
  std::string_view name = line.substr(0, colon);
  while (name.ends_with(' ') || name.ends_with('\t')) name.remove_suffix(1);
  const bool is_name =
      std::all_of(name.begin(), name.end(), [](char c) { return c > ' ' && c <= '~'; });
  return is_name ? name : std::string_view();
}

bool isFolded(std::string_view line) { return line[0] == ' ' || line[0] == '\t'; }

}  // namespace

bool isMailHeader(std::string_view text) {
  static const std::set<std::string_view> kTelling = {
      "received",     "return-path", "delivered-to",   "message-id",
      "mime-version", "date",        "from",           "to",
      "subject",      "sender",      "content-type",   "cc",
      "reply-to",     "x-mailer",    "dkim-signature", "content-transfer-encoding"};
  constexpr size_t kLines = 5000;
  text = beginning(text);
  std::set<std::string> found;
  bool is_encoded = false;
  bool has_stray = false;
  bool in_field = false;
  for (size_t count = 0; count < kLines && !text.empty(); ++count) {
    const std::string_view line = takeLine(&text);
    if (line.empty()) break;
    if (in_field && isFolded(line)) continue;
    constexpr size_t kValue = 1000;
    const std::string name = lower(fieldName(line.substr(0, kValue)));
    in_field = !name.empty();
    has_stray = has_stray || !in_field;
    if (has_stray && count == 0 && !isFolded(line)) return false;
    if (kTelling.count(name) != 0) found.insert(name);
    is_encoded = is_encoded || name == "content-transfer-encoding" ||
                 (name == "content-type" &&
                  lower(line.substr(0, kValue)).find("multipart/") != std::string::npos);
  }
  return is_encoded || (!has_stray && found.size() >= 3);
}

MailHeader mailHeader(std::string_view mail) {
  MailHeader header;
  std::string_view rest = beginning(mail);
  bool in_field = false;
  while (!rest.empty()) {
    const std::string_view line = takeLine(&rest);
    if (line.empty()) break;
    const std::string_view name = fieldName(line);
    if (in_field && isFolded(line)) {
      header.fields.append(line).append("\n");
    } else if (!name.empty()) {
      in_field = true;
      header.fields.append(name).append(line.substr(line.find(':'))).append("\n");
    } else {
      in_field = false;
      header.stray.append(line).append("\n");
    }
  }
  header.body = rest;
  return header;
}

}  // namespace tool
