// libmagic tells most types. Before it, the rules of this file tell those that it takes
// for another one when they are made by the wrong program, or begin unusually: what is
// inside a zip archive or a compound file, mails, and text with marks in it.
#include "extract/content_type.h"

#include <magic.h>

#include <algorithm>
#include <cctype>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

#include "extract/formats/mail_header.h"
#include "extract/formats/parsers.h"
#include "extract/formats/zip_directory.h"

namespace tool {

namespace {

using namespace std::string_view_literals;

struct MagicCloser {
  void operator()(magic_set* cookie) const { magic_close(cookie); }
};

// The database takes longer to load than most documents to open.
magic_set* magicDatabase() {
  static const std::unique_ptr<magic_set, MagicCloser> database = [] {
    std::unique_ptr<magic_set, MagicCloser> made(
        magic_open(MAGIC_MIME_TYPE | MAGIC_NO_CHECK_COMPRESS | MAGIC_NO_CHECK_ELF |
                   MAGIC_NO_CHECK_CDF | MAGIC_NO_CHECK_ENCODING));
    if (!made || magic_load(made.get(), nullptr) != 0) {
      throw std::runtime_error("cannot load the database of file types");
    }
    // Regular expressions over more of a text take longer than all else that is done
    // with it, and only tell one programming language from another.
    size_t bytes_for_expressions = 1024;
    magic_setparam(made.get(), MAGIC_PARAM_REGEX_MAX, &bytes_for_expressions);
    return made;
  }();
  return database.get();
}

// Other names for the same.
std::string usualName(std::string type) {
  static constexpr std::pair<std::string_view, const char*> kNames[] = {
      {"application/x-gzip", "application/gzip"},    {"application/x-zstd", "application/zstd"},
      {"application/x-gtar", "application/x-tar"},   {"application/vnd.rar", "application/x-rar"},
      {"application/x-bzip", "application/x-bzip2"}, {"application/xml", "text/xml"},
      {"application/xhtml+xml", "text/html"},        {"text/rtf", "application/rtf"},
  };
  for (const auto& [other, usual] : kNames) {
    if (type == other) return usual;
  }
  return type;
}

std::string magicType(std::string_view content) {
  constexpr size_t kLookedAt = 256 << 10;
  const char* type =
      magic_buffer(magicDatabase(), content.data(), std::min(content.size(), kLookedAt));
  return usualName(type ? type : "application/octet-stream");
}

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f'; }

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// --- zip ---

std::optional<std::string> zipType(std::string_view content) {
  if (!content.starts_with("PK\3\4"sv) && !content.starts_with("PK\5\6"sv) &&
      !content.starts_with("PK00PK\3\4"sv)) {
    return std::nullopt;
  }
  const ZipDirectory directory = zipDirectory(content);
  const std::string& declared = directory.mimetype;
  const bool is_package = declared.starts_with("application/vnd.oasis.opendocument.") ||
                          declared == "application/epub+zip";
  // One that nothing here knows is opened as what it is.
  if (is_package && formatOf(declared)) return declared;
  if (directory.has_content_types) {
    const std::string office = "application/vnd.openxmlformats-officedocument.";
    if (directory.top_directories.contains("word")) return office + "wordprocessingml.document";
    if (directory.top_directories.contains("xl")) return office + "spreadsheetml.sheet";
    if (directory.top_directories.contains("ppt")) return office + "presentationml.presentation";
  }
  return "application/zip";
}

// --- compound files (OLE2) ---

uint32_t littleEndian(std::string_view bytes, size_t offset, int count) {
  uint32_t value = 0;
  for (int i = 0; i < count; ++i) {
    value |= uint32_t{static_cast<unsigned char>(bytes[offset + static_cast<size_t>(i)])}
             << (8 * i);
  }
  return value;
}

// Name of what would be a directory entry; empty when it is none.
std::string directoryEntryName(std::string_view entry) {
  constexpr size_t kNameBytes = 64;
  const uint32_t length = littleEndian(entry, kNameBytes, 2);  // with the closing zero
  const unsigned char type = static_cast<unsigned char>(entry[66]);
  if (length < 4 || length > kNameBytes || length % 2 != 0 || type < 1 || type > 5) return "";
  std::string name;
  for (size_t i = 0; i + 2 < length; i += 2) {
    if (entry[i + 1] != 0) return "";
    name += entry[i];
  }
  return entry[length - 2] == 0 && entry[length - 1] == 0 ? name : "";
}

std::optional<std::string> compoundType(std::string_view content) {
  if (!content.starts_with("\xd0\xcf\x11\xe0\xa1\xb1\x1a\xe1"sv)) return std::nullopt;
  static constexpr std::pair<std::string_view, const char*> kStreams[] = {
      {"WordDocument", "application/msword"},
      {"Workbook", "application/vnd.ms-excel"},
      {"Book", "application/vnd.ms-excel"},
      {"PowerPoint Document", "application/vnd.ms-powerpoint"},
      {"EncryptedPackage", "application/x-encrypted-office"},
      {"__properties_version1.0", "application/vnd.ms-outlook"},
  };
  // Directory entries lie at multiples of their size. The first that says something
  // belongs to the document; others may belong to what is embedded in it. Looking at
  // all places, and not only where the tables lead, finds it in damaged files, too.
  constexpr size_t kEntry = 128;
  for (size_t at = 512; at + kEntry <= content.size(); at += kEntry) {
    const std::string name = directoryEntryName(content.substr(at, kEntry));
    if (name.empty()) continue;
    for (const auto& [stream, type] : kStreams) {
      if (name == stream) return type;
    }
  }
  return "application/x-ole-storage";
}

// --- mails ---

std::optional<std::string> mailType(std::string_view content) {
  const bool is_mailbox = content.starts_with("From ") && !content.starts_with("From :");
  if (is_mailbox) content.remove_prefix(std::min(content.find('\n'), content.size() - 1) + 1);
  if (!isMailHeader(content)) return std::nullopt;
  return is_mailbox ? "application/mbox" : "message/rfc822";
}

// --- text with marks in it ---

// The first characters, lower-case, in whatever encoding of ASCII they are, behind byte
// order marks and blanks.
std::string plainBeginning(std::string_view content) {
  constexpr size_t kLookedAt = 4096;
  std::string beginning;
  for (const char c : content.substr(0, kLookedAt)) {
    const auto byte = static_cast<unsigned char>(c);
    const bool mark = byte == 0xff || byte == 0xfe || byte == 0xef || byte == 0xbb || byte == 0xbf;
    if (c == 0 || (beginning.empty() && (mark || isSpace(c)))) continue;
    beginning += lower(c);
  }
  return beginning;
}

// Skips <?...?>, <!--...--> and blanks.
std::string_view firstElement(std::string_view text) {
  while (true) {
    while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
    const bool comment = text.starts_with("<!--");
    if (!comment && !text.starts_with("<?")) return text;
    const std::string_view closing = comment ? "-->" : "?>";
    const size_t end = text.find(closing);
    if (end == std::string_view::npos) return {};
    text.remove_prefix(end + closing.size());
  }
}

bool startsTag(std::string_view text, std::string_view tag) {
  if (!text.starts_with(tag)) return false;
  text.remove_prefix(tag.size());
  return text.empty() || isSpace(text.front()) || text.front() == '>' || text.front() == '/';
}

// Programs open a PDF also when something stands before it. In an archive, that may be
// a member that begins so and is not compressed.
std::optional<std::string> pdfType(std::string_view content) {
  const size_t start = content.substr(0, 1024).find("%PDF-");
  if (start == std::string_view::npos) return std::nullopt;
  const Format* const other = start == 0 ? nullptr : formatOf(magicType(content));
  const bool is_archive = other != nullptr && (other->kind == Format::Kind::kContainer ||
                                               other->kind == Format::Kind::kUnsupported);
  if (is_archive) return std::string(other->type);
  return "application/pdf";
}

std::optional<std::string> markupType(std::string_view content) {
  const std::string beginning = plainBeginning(content);
  if (beginning.starts_with("{\\rtf")) return "application/rtf";
  const std::string_view element = firstElement(beginning);
  for (const auto tag : {"<!doctype html"sv, "<html"sv, "<head"sv, "<body"sv, "<title"sv}) {
    if (startsTag(element, tag)) return "text/html";
  }
  if (beginning.starts_with("<?xml")) {
    return startsTag(element, "<svg") ? "image/svg+xml" : "text/xml";
  }
  return std::nullopt;
}

}  // namespace

void loadContentTypes() { magicDatabase(); }

std::string contentType(std::string_view content) {
  for (const auto rule : {zipType, compoundType, mailType, pdfType, markupType}) {
    if (auto type = rule(content)) return *std::move(type);
  }
  return magicType(content);
}

}  // namespace tool
