#include "extract/extraction.h"

#include <openssl/evp.h>

#include <new>
#include <optional>
#include <utility>
#include <vector>

#include "extract/budget.h"
#include "extract/content_type.h"
#include "extract/formats/parsers.h"
#include "extract/formats/zip_layout.h"
#include "extract/member_name.h"
#include "text/canonical_text.h"

namespace tool {

namespace {

std::array<unsigned char, 32> sha256(std::string_view content) {
  std::array<unsigned char, 32> digest;
  if (EVP_Digest(content.data(), content.size(), digest.data(), nullptr, EVP_sha256(), nullptr) !=
      1) {
    throw std::bad_alloc();
  }
  return digest;
}

// At most `bytes` of a text, without cutting a character of UTF-8 apart.
std::string_view cutText(std::string_view text, uint64_t bytes) {
  if (text.size() <= bytes) return text;
  size_t end = bytes;
  while (end > 0 && bytes - end < 4 && (static_cast<unsigned char>(text[end]) & 0xc0) == 0x80)
    --end;
  return text.substr(0, end);
}

bool isBlank(std::string_view text) { return text.find_first_not_of(" \t\r\n\f") == text.npos; }

// A document of some size that has nothing to say holds pictures, or is broken in a way
// that its parser does not see. Mails may have no words, and markup may be all marks.
bool shouldHaveText(const Part& part, const Format& format) {
  constexpr uint64_t kLargestEmpty = 4096;
  return part.size > kLargestEmpty && format.kind == Format::Kind::kDocument &&
         !part.type.starts_with("message/");
}

// Pictures and sounds are not taken for text, however few bytes they have.
bool mayBeText(std::string_view type) {
  for (const auto kind : {"image/", "audio/", "video/", "font/"}) {
    if (type.starts_with(kind)) return type == "image/svg+xml";
  }
  return true;
}

// ... unless they are nothing else: the first bytes of a picture are no hiding place.
bool isSurelyText(std::string_view content, const DecodedText& decoded) {
  constexpr size_t kMany = 256;
  return content.size() >= kMany && decoded.encoding == "UTF-8";
}

// A document or member with what is known about it from outside.
struct Opened {
  std::string name;  // of the part
  std::string base_name;
  std::string_view content;
  std::string charset;
  uint32_t depth;
};

class Extraction {
 public:
  Extraction(const Limits& limits, PartSink& sink) : budget(limits), sink_(sink) {}

  void open(const Opened& opened);

  // What the taker of the parts needs of the time is not the document's.
  void begin(const std::string& name) { sink_.begin(name); }
  void deliver(Part&& part) {
    const auto start = std::chrono::steady_clock::now();
    sink_.deliver(std::move(part));
    budget.addTime(std::chrono::steady_clock::now() - start);
  }

  Budget budget;

 private:
  PartSink& sink_;

  void openContainer(const Opened& opened, Parser parser, Part part);
  void openDocument(const Opened& opened, const Format& format, Part part);
  std::optional<DecodedText> decodePlain(const Opened& opened, const Part& part) const;
  void deliverPlain(const Opened& opened, std::optional<DecodedText> decoded, Part part);
  void deliverText(std::string_view text, Part part);
  void deliverBytes(std::string_view content, Part part);
  void noteCut(Part* part) const;
};

// What a parser finds in one document.
class ParsedDocument final : public Document {
 public:
  ParsedDocument(Extraction* extraction, const Opened& opened, bool container)
      : extraction_(*extraction), opened_(opened), container_(container) {}

  void text(std::string_view utf8) override {
    checkTime();
    if (utf8.size() > limits().total_bytes - text_.size()) {
      text_.append(cutText(utf8, limits().total_bytes - text_.size()));
      throw NotInspected(Reason::kSizeLimit,
                         "more text than " + std::to_string(limits().total_bytes) + " bytes");
    }
    text_.append(utf8);
  }

  void encodedText(std::string_view bytes, std::string_view declared) override {
    const auto decoded = decodeText(bytes, declared.empty() ? opened_.charset : declared);
    if (decoded && encoding_.empty()) encoding_ = decoded->encoding;
    text(decoded ? decoded->text : bytes);
  }

  void member(std::string_view name, std::string_view content, std::string_view charset) override {
    const std::string unique = nameOf(name);
    extraction_.budget.countMember();
    try {
      extraction_.budget.checkDepth(opened_.depth + 1);
      extraction_.budget.countExpanded(content.size());
    } catch (const NotInspected& failure) {
      if (failure.reason == Reason::kTimeLimit) throw;
      deliverLost(unique, failure.reason, failure.what());
      return;
    }
    Member found{unique, std::string(baseNameOf(name)), {}, std::string(charset)};
    if (container_) {
      open(found, content);
    } else {
      found.content = content;
      later_.push_back(std::move(found));
    }
  }

  void lostMember(std::string_view name, Reason reason, const std::string& detail) override {
    checkTime();
    extraction_.budget.countMember();
    deliverLost(nameOf(name), reason, detail);
  }

  void expectMember(uint64_t bytes, uint64_t compressed) const override {
    extraction_.budget.checkExpansion(bytes, compressed);
  }
  void countExpanded(uint64_t bytes) override { extraction_.budget.countExpanded(bytes); }
  uint64_t memberRoom() const override { return extraction_.budget.memberRoom(); }
  std::string_view baseName() const override { return opened_.base_name; }
  std::string_view charset() const override { return opened_.charset; }
  const Limits& limits() const override { return extraction_.budget.limits(); }
  void checkTime() const override { extraction_.budget.checkTime(); }
  unsigned secondsLeft() const override { return extraction_.budget.secondsLeft(); }

  const std::string& gathered() const { return text_; }
  const std::string& encoding() const { return encoding_; }
  bool hasMembers() const { return !later_.empty() || lost_.size() > 0; }

  // Those that waited for the text of their document.
  void openMembers() {
    for (Part& part : lost_) extraction_.deliver(std::move(part));
    for (const Member& found : later_) open(found, found.content);
  }

 private:
  struct Member {
    std::string name;
    std::string base_name;
    std::string content;
    std::string charset;
  };

  std::string nameOf(std::string_view member) {
    std::string name = memberName(member);
    if (name.empty()) name.push_back('?');
    return joinNames(opened_.name, names_.add(name));
  }

  void open(const Member& found, std::string_view content) {
    extraction_.open({found.name, found.base_name, content, found.charset, opened_.depth + 1});
    extraction_.begin(opened_.name);
  }

  void deliverLost(const std::string& name, Reason reason, const std::string& detail) {
    Part part;
    part.name = name;
    part.reason = reason;
    part.detail = printable(detail);
    if (container_) {
      extraction_.deliver(std::move(part));
    } else {
      lost_.push_back(std::move(part));
    }
  }

  Extraction& extraction_;
  const Opened& opened_;
  const bool container_;
  std::string text_;
  std::string encoding_;
  UniqueNames names_;
  std::vector<Member> later_;
  std::vector<Part> lost_;
};

// What a parser ended with; Reason::kNone when it came to the end.
struct Outcome {
  Reason reason = Reason::kNone;
  std::string detail;
};

Outcome parse(Parser parser, std::string_view content, Document& document) {
  try {
    parser(content, document);
    return {};
  } catch (const NotInspected& failure) {
    return {failure.reason, printable(failure.what())};
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& failure) {  // of a library: std::out_of_range, say
    return {Reason::kDamaged, printable(failure.what())};
  }
}

// Programs that unpack themselves, and pictures that are more than that.
void openAppended(std::string_view content, Document& document) {
  const std::string_view zip = appendedZip(content);
  if (!zip.empty()) document.member("", zip);
}

// Some control characters do not hide a text. The document itself stays what it is, bytes.
void openTextBetweenControls(std::string_view content, Document& document) {
  const std::string_view kept = content.substr(0, document.limits().total_bytes);
  if (const auto text = textBetweenControls(kept, document.charset())) {
    document.member("text", *text, document.charset());
  }
}

void Extraction::open(const Opened& opened) {
  begin(opened.name);
  Part part;
  part.name = opened.name;
  part.size = opened.content.size();
  part.sha256 = sha256(opened.content);
  part.type = contentType(opened.content);
  const Format* const format = formatOf(part.type);
  if (!format) {
    ParsedDocument document(this, opened, /*container=*/false);
    Outcome outcome = parse(openAppended, opened.content, document);
    std::optional<DecodedText> decoded = decodePlain(opened, part);
    if (!decoded && outcome.reason == Reason::kNone) {
      outcome = parse(openTextBetweenControls, opened.content, document);
    }
    part.reason = outcome.reason;
    part.detail = std::move(outcome.detail);
    deliverPlain(opened, std::move(decoded), std::move(part));
    document.openMembers();
  } else if (format->kind == Format::Kind::kUnsupported) {
    part.reason = Reason::kUnsupported;
    part.detail = "nothing here opens " + part.type;
    deliverBytes(opened.content, std::move(part));
  } else if (format->kind == Format::Kind::kContainer) {
    openContainer(opened, format->parser, std::move(part));
  } else {
    openDocument(opened, *format, std::move(part));
  }
}

void Extraction::openContainer(const Opened& opened, Parser parser, Part part) {
  part.form = Form::kContainer;
  deliver(Part(part));
  ParsedDocument document(this, opened, /*container=*/true);
  Outcome outcome = parse(parser, opened.content, document);
  if (outcome.reason == Reason::kNone) return;
  part.reason = outcome.reason;
  part.detail = std::move(outcome.detail);
  deliver(std::move(part));
}

void Extraction::openDocument(const Opened& opened, const Format& format, Part part) {
  ParsedDocument document(this, opened, /*container=*/false);
  Outcome outcome = parse(format.parser, opened.content, document);
  if (outcome.reason == Reason::kNone && !opened.content.starts_with("PK")) {
    outcome = parse(openAppended, opened.content, document);
  }
  if (outcome.reason == Reason::kDamaged && format.kind == Format::Kind::kMarkup) {
    deliverPlain(opened, decodePlain(opened, part), std::move(part));
    document.openMembers();
    return;
  }
  part.reason = outcome.reason;
  part.detail = std::move(outcome.detail);
  part.encoding = document.encoding();
  if (!isBlank(document.gathered())) {
    deliverText(document.gathered(), std::move(part));
  } else if (document.hasMembers()) {
    part.form = Form::kContainer;
    deliver(std::move(part));
  } else {
    // Without a word in it (a scanned page, an encrypted file) only its copy is like it.
    if (part.reason == Reason::kNone && shouldHaveText(part, format)) {
      part.reason = Reason::kUnsupported;
      part.detail = "no text in it";
    }
    deliverBytes(opened.content, std::move(part));
  }
  document.openMembers();
}

std::optional<DecodedText> Extraction::decodePlain(const Opened& opened, const Part& part) const {
  const std::string_view content = cutText(opened.content, budget.limits().total_bytes);
  std::optional<DecodedText> decoded = decodeText(content, opened.charset);
  if (decoded && !mayBeText(part.type) && !isSurelyText(content, *decoded)) decoded.reset();
  return decoded;
}

void Extraction::deliverPlain(const Opened& opened, std::optional<DecodedText> decoded, Part part) {
  if (!decoded) return deliverBytes(opened.content, std::move(part));
  if (part.type == "application/octet-stream") part.type = "text/plain";
  if (opened.content.size() > budget.limits().total_bytes) noteCut(&part);
  part.encoding = std::move(decoded->encoding);
  deliverText(decoded->text, std::move(part));
}

void Extraction::deliverText(std::string_view text, Part part) {
  part.form = Form::kText;
  part.content = canonicalText(text);
  const std::string_view kept = cutText(part.content, budget.limits().total_bytes);
  if (kept.size() < part.content.size()) {
    part.content.resize(kept.size());
    noteCut(&part);
  }
  deliver(std::move(part));
}

void Extraction::deliverBytes(std::string_view content, Part part) {
  part.form = Form::kBinary;
  part.content = content.substr(0, budget.limits().total_bytes);
  if (part.content.size() < content.size()) noteCut(&part);
  deliver(std::move(part));
}

// Not all of it is inspected; whatever else is wrong with it is said rather.
void Extraction::noteCut(Part* part) const {
  if (part->reason != Reason::kNone) return;
  part->reason = Reason::kSizeLimit;
  part->detail =
      "only the first " + std::to_string(budget.limits().total_bytes) + " bytes were inspected";
}

}  // namespace

void extract(std::string_view content, std::string_view name, const Limits& limits,
             PartSink& sink) {
  Extraction(limits, sink).open({"", std::string(name), content, "", 0});
}

}  // namespace tool
