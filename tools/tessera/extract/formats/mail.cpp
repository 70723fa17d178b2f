#include "extract/formats/mail.h"

#include <gmime/gmime.h>
#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/objects.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "extract/formats/html.h"
#include "extract/formats/mail_header.h"
#include "extract/formats/salvage.h"
#include "text/canonical_text.h"

namespace tool {
namespace {

struct Unref {
  void operator()(void* object) const { g_object_unref(object); }
};
template <typename Object>
using Scoped = std::unique_ptr<Object, Unref>;

bool isAddressField(std::string_view field) {
  std::string name;
  for (const char c : field) name += g_ascii_tolower(c);
  name.resize(name.find_last_not_of(" \t") + 1);
  if (name.starts_with("resent-")) name.erase(0, 7);
  static const std::set<std::string> kNames = {"from", "sender", "reply-to", "to", "cc", "bcc"};
  return kNames.contains(name);
}

// Where the field ends that begins at `start`, with the lines that it is folded into.
size_t fieldEnd(std::string_view content, size_t start) {
  size_t end = start;
  do {
    end = std::min(content.find('\n', end), content.size() - 1) + 1;
  } while (end < content.size() && (content[end] == ' ' || content[end] == '\t'));
  return end;
}

// GMime reads all addresses, which nothing here needs, and is recursive in groups
// ("a:b:c;;") inside each other. Fields with more of them than anybody writes lose their
// colons; those of the messages inside, too.
std::string withoutDeepGroups(std::string content) {
  constexpr std::ptrdiff_t kColons = 1000;
  constexpr size_t kLongestName = 32;
  for (size_t at = 0, next; at < content.size(); at = next) {
    next = std::min(content.find('\n', at), content.size() - 1) + 1;
    const std::string_view beginning(&content[at], std::min(next - at, kLongestName));
    const size_t name = beginning.find(':');
    if (name == std::string_view::npos || !isAddressField(beginning.substr(0, name))) continue;
    char* const value = &content[at + name + 1];
    char* const end = content.data() + fieldEnd(content, at);
    if (std::count(value, end, ':') > kColons) std::replace(value, end, ':', ' ');
  }
  return content;
}

Scoped<GMimeParser> newParser(std::string_view content) {
  static const bool kStarted = (g_mime_init(), true);
  (void)kStarted;
  const std::string harmless = withoutDeepGroups(std::string(content));
  const Scoped<GMimeStream> stream(
      g_mime_stream_mem_new_with_buffer(harmless.data(), harmless.size()));
  return Scoped<GMimeParser>(g_mime_parser_new_with_stream(stream.get()));
}

std::string bytesOf(GMimeStream* memory) {
  const GByteArray* const bytes = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(memory));
  return {reinterpret_cast<const char*>(bytes->data), bytes->len};
}

// What a part holds, its transfer encoding undone.
std::string decodedContent(GMimePart* part) {
  GMimeDataWrapper* const content = g_mime_part_get_content(part);
  if (content == nullptr) return {};
  const Scoped<GMimeStream> stream(g_mime_stream_mem_new());
  g_mime_data_wrapper_write_to_stream(content, stream.get());
  return bytesOf(stream.get());
}

std::string asWritten(GMimeObject* object) {
  const Scoped<GMimeStream> stream(g_mime_stream_mem_new());
  g_mime_object_write_to_stream(object, nullptr, stream.get());
  return bytesOf(stream.get());
}

std::string_view view(const char* text) { return text == nullptr ? "" : text; }

bool isType(GMimeObject* object, const char* type, const char* subtype) {
  return g_mime_content_type_is_type(g_mime_object_get_content_type(object), type, subtype) != 0;
}

// As its sender called it, decoded; may be empty.
std::string_view fileName(GMimeObject* object) {
  const std::string_view name =
      view(g_mime_object_get_content_disposition_parameter(object, "filename"));
  return name.empty() ? view(g_mime_object_get_content_type_parameter(object, "name")) : name;
}

std::string_view charset(GMimeObject* object) {
  return view(g_mime_object_get_content_type_parameter(object, "charset"));
}

// What the fingerprint looks at. Two texts with the same are the same.
std::string reduced(std::string_view utf8) {
  std::string letters = canonicalText(utf8);
  letters.erase(
      std::remove_if(
          letters.begin(), letters.end(),
          [](char c) { return static_cast<unsigned char>(c) < 128 && g_ascii_isalnum(c) == 0; }),
      letters.end());
  return letters;
}

class Message {
 public:
  explicit Message(Document& document) : document_(document) {}

  void read(std::string_view content) {
    const MailHeader header = mailHeader(content);
    say(header.stray);
    const std::string repaired = (header.fields + "\n").append(header.body);
    const auto parser = newParser(repaired);
    const Scoped<GMimeMessage> message(g_mime_parser_construct_message(parser.get(), nullptr));
    if (!message) throw NotInspected(Reason::kDamaged, "no e-mail");
    say(view(g_mime_message_get_subject(message.get())));
    readObject(g_mime_message_get_mime_part(message.get()), 0);
    salvage_.finish();
  }

 private:
  void say(std::string_view utf8) {
    if (utf8.empty()) return;
    document_.text(utf8);
    document_.text("\n");
  }

  void readObject(GMimeObject* object, uint32_t depth) {
    if (object == nullptr) return;
    if (depth > document_.limits().depth) {
      throw NotInspected(Reason::kDepthLimit, "parts of a message inside each other");
    }
    if (GMIME_IS_MULTIPART_ENCRYPTED(object)) {
      document_.lostMember(name(object), Reason::kEncrypted, "an encrypted message");
    } else if (GMIME_IS_MULTIPART(object)) {
      readMultipart(GMIME_MULTIPART(object), depth);
    } else if (GMIME_IS_MESSAGE_PART(object)) {
      readMessagePart(object);
    } else if (GMIME_IS_MESSAGE_PARTIAL(object)) {
      document_.lostMember(name(object), Reason::kUnsupported, "a piece of a divided message");
    } else if (GMIME_IS_PART(object)) {
      readPart(object, depth);
    }
  }

  // What stands before and after its parts nobody is shown, and may be anything.
  void readMultipart(GMimeMultipart* parts, uint32_t depth) {
    readText(view(g_mime_multipart_get_prologue(parts)), {});
    const int count = g_mime_multipart_get_count(parts);
    for (int i = 0; i < count; ++i) readObject(g_mime_multipart_get_part(parts, i), depth + 1);
    readText(view(g_mime_multipart_get_epilogue(parts)), {});
  }

  void readMessagePart(GMimeObject* object) {
    GMimeMessage* const inner = g_mime_message_part_get_message(GMIME_MESSAGE_PART(object));
    if (inner == nullptr) {
      document_.lostMember(name(object), Reason::kDamaged, "a message that is not there");
    } else {
      document_.member(name(object), asWritten(GMIME_OBJECT(inner)));
    }
  }

  void readPart(GMimeObject* object, uint32_t depth) {
    const std::string content = decodedContent(GMIME_PART(object));
    GMimeContentDisposition* const disposition = g_mime_object_get_content_disposition(object);
    const bool is_body =
        fileName(object).empty() &&
        (disposition == nullptr || g_mime_content_disposition_is_attachment(disposition) == 0);
    if (is_body && isType(object, "text", "plain")) {
      readText(content, charset(object));
    } else if (is_body && isType(object, "text", "html")) {
      salvage_.attempt([&] { sayOnce(htmlText(content, charset(object), document_.limits())); });
    } else if (isType(object, "application", "pkcs7-mime") ||
               isType(object, "application", "x-pkcs7-mime")) {
      readCms(object, content, depth);
    } else {
      document_.member(name(object), content, charset(object));
    }
  }

  void readText(std::string_view content, std::string_view declared) {
    if (content.empty()) return;
    const auto decoded = decodeText(content, declared);
    if (!decoded) {
      document_.member(number(), content, declared);
      return;
    }
    sayOnce(decoded->text);
    if (content.find("-----BEGIN PGP MESSAGE-----") != std::string_view::npos) {
      document_.lostMember(number(), Reason::kEncrypted, "an encrypted message");
    }
    readUuencoded(content);
  }

  void sayOnce(std::string_view utf8) {
    if (said_.insert(reduced(utf8)).second) say(utf8);
  }

  // Files in the midst of a text: "begin 644 NAME", lines, "end". The lines stay text,
  // too: it may be one that only looks like that.
  void readUuencoded(std::string_view text) {
    for (size_t at = 0; at < text.size();) {
      const size_t line_end = std::min(text.find('\n', at), text.size());
      const auto file = uuencodedName(text.substr(at, line_end - at));
      at = line_end + 1;
      if (!file) continue;
      const size_t end = text.find("\nend", line_end);
      if (end == std::string_view::npos) return;
      document_.member(*file, uudecoded(text.substr(line_end + 1, end - line_end)));
      at = end + 1;
    }
  }

  // NAME when the line is "begin 644 NAME".
  static std::optional<std::string_view> uuencodedName(std::string_view line) {
    static constexpr std::string_view kBegin = "begin ";
    if (line.substr(0, kBegin.size()) != kBegin) return std::nullopt;
    line.remove_prefix(kBegin.size());
    const size_t digits = std::min(line.find_first_not_of("01234567"), line.size());
    if (digits < 3 || line.substr(digits, 1) != " ") return std::nullopt;
    line.remove_prefix(digits + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    return line;
  }

  static std::string uudecoded(std::string_view lines) {
    std::string bytes(lines.size() + 4, '\0');
    int state = GMIME_UUDECODE_STATE_BEGIN;
    guint32 save = 0;
    bytes.resize(g_mime_encoding_uudecode_step(
        reinterpret_cast<const unsigned char*>(lines.data()), lines.size(),
        reinterpret_cast<unsigned char*>(bytes.data()), &state, &save));
    return bytes;
  }

  // S/MIME: a signature with the message inside of it, or an encrypted message.
  void readCms(GMimeObject* object, std::string_view content, uint32_t depth) {
    const std::unique_ptr<BIO, decltype(&BIO_free)> input(
        BIO_new_mem_buf(content.data(), static_cast<int>(content.size())), &BIO_free);
    const std::unique_ptr<CMS_ContentInfo, decltype(&CMS_ContentInfo_free)> message(
        input ? d2i_CMS_bio(input.get(), nullptr) : nullptr, &CMS_ContentInfo_free);
    if (!message) {
      document_.lostMember(name(object), Reason::kDamaged, "S/MIME that cannot be read");
      return;
    }
    const int type = OBJ_obj2nid(CMS_get0_type(message.get()));
    ASN1_OCTET_STRING** const inner =
        type == NID_pkcs7_signed ? CMS_get0_content(message.get()) : nullptr;
    if (inner == nullptr || *inner == nullptr) {
      document_.lostMember(name(object), Reason::kEncrypted, "an encrypted message");
      return;
    }
    const auto parser = newParser({reinterpret_cast<const char*>(ASN1_STRING_get0_data(*inner)),
                                   static_cast<size_t>(ASN1_STRING_length(*inner))});
    const Scoped<GMimeObject> part(g_mime_parser_construct_part(parser.get(), nullptr));
    readObject(part.get(), depth + 1);
  }

  std::string name(GMimeObject* object) {
    const std::string own = number();
    const std::string_view given = fileName(object);
    return given.empty() ? own : std::string(given);
  }

  std::string number() { return std::to_string(++members_); }

  Document& document_;
  Salvage salvage_;
  std::set<std::string> said_;  // reduced
  int members_ = 0;
};

constexpr std::string_view kFrom = "From ";

// Where the message after the one at `start` begins: at a "From " after an empty line.
// That may be one of a text, which its writer should have escaped; then the rest of the
// message is a member by itself.
size_t nextMessage(std::string_view mailbox, size_t start) {
  for (size_t at = start + 1; (at = mailbox.find(kFrom, at)) != std::string_view::npos; ++at) {
    const std::string_view before = mailbox.substr(0, at);
    const auto ends = [&](std::string_view end) {
      return before.size() >= end.size() && before.substr(before.size() - end.size()) == end;
    };
    if (ends("\n\n") || ends("\n\r\n")) return at;
  }
  return mailbox.size();
}

}  // namespace

void parseMail(std::string_view content, Document& document) { Message(document).read(content); }

void parseMbox(std::string_view content, Document& document) {
  int number = 0;
  for (size_t start = 0; start < content.size();) {
    const size_t end = nextMessage(content, start);
    std::string_view message = content.substr(start, end - start);
    if (message.substr(0, kFrom.size()) == kFrom) {
      message.remove_prefix(std::min(message.find('\n'), message.size() - 1) + 1);
    }
    document.member(std::to_string(++number), message);
    start = end;
  }
}

}  // namespace tool
