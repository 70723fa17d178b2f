#include "extract/formats/xml.h"

// Declares the limits of what entities expand to, which the library has in any case.
#define XML_DTD
#include <expat.h>

#include <algorithm>
#include <cctype>
#include <exception>
#include <map>
#include <memory>
#include <new>

#include "extract/formats/html.h"
#include "extract/formats/words.h"
#include "text/canonical_text.h"

namespace tool {
namespace {

constexpr unsigned long long kFreeExpansion = 1 << 20;  // as of Limits::ratio
constexpr int kEntities = 1000;     // Expat is recursive where one stands in another
constexpr size_t kPiece = 1 << 28;  // bytes given to Expat at once: it counts in int

std::string_view withoutPrefix(std::string_view name) {
  const size_t colon = name.rfind(':');
  return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

// The encoding in the XML declaration, if there is one that can be read byte by byte.
std::string declaredEncoding(std::string_view content) {
  if (content.substr(0, 5) != "<?xml") return {};
  const std::string_view declaration = content.substr(0, content.find("?>"));
  size_t at = declaration.find("encoding");
  if (at == std::string_view::npos) return {};
  at = declaration.find_first_of("\"'", at);
  if (at == std::string_view::npos) return {};
  const size_t end = declaration.find(declaration[at], at + 1);
  std::string name(declaration.substr(at + 1, end - at - 1));
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return name;
}

// One run of Expat. What a handler throws must not pass through C: it is kept, the
// parser told to stop, and thrown again outside.
class Run {
 public:
  Run(const Limits& limits, XmlHandler& handler)
      : parser_(XML_ParserCreate("UTF-8"), &XML_ParserFree), limits_(limits), handler_(handler) {
    if (!parser_) throw std::bad_alloc();
    XML_SetUserData(parser_.get(), this);
    XML_SetElementHandler(parser_.get(), &Run::onStart, &Run::onEnd);
    XML_SetCharacterDataHandler(parser_.get(), &Run::onText);
    XML_SetEntityDeclHandler(parser_.get(), &Run::onEntity);
    XML_SetSkippedEntityHandler(parser_.get(), &Run::onSkippedEntity);
    XML_SetBillionLaughsAttackProtectionMaximumAmplification(
        parser_.get(), std::max(1.0F, static_cast<float>(limits.ratio)));
    XML_SetBillionLaughsAttackProtectionActivationThreshold(parser_.get(), kFreeExpansion);
  }

  void parse(std::string_view content) {
    do {
      const std::string_view piece = content.substr(0, kPiece);
      content.remove_prefix(piece.size());
      const XML_Status status =
          XML_Parse(parser_.get(), piece.data(), static_cast<int>(piece.size()), content.empty());
      if (failure_) std::rethrow_exception(failure_);
      if (status != XML_STATUS_OK) fail();
    } while (!content.empty());
  }

 private:
  template <typename Call>
  void guarded(Call call) {
    if (failure_) return;  // Expat has some calls on the way when it is told to stop
    try {
      call();
    } catch (...) {
      failure_ = std::current_exception();
      XML_StopParser(parser_.get(), XML_FALSE);
    }
  }

  static void onStart(void* self, const char* name, const char** attributes) {
    auto* const run = static_cast<Run*>(self);
    run->guarded([&] { run->handler_.start(withoutPrefix(name), XmlAttributes(attributes)); });
  }

  static void onEnd(void* self, const char* name) {
    auto* const run = static_cast<Run*>(self);
    run->guarded([&] { run->handler_.end(withoutPrefix(name)); });
  }

  static void onText(void* self, const char* text, int length) {
    auto* const run = static_cast<Run*>(self);
    run->guarded([&] { run->handler_.text({text, static_cast<size_t>(length)}); });
  }

  static void onEntity(void* self, const char*, int, const char*, int, const char*, const char*,
                       const char*, const char*) {
    auto* const run = static_cast<Run*>(self);
    run->guarded([&] {
      if (++run->entities_ > kEntities) {
        throw NotInspected(Reason::kDepthLimit, "more than 1000 entities declared");
      }
    });
  }

  // An entity of a document type that is not loaded. Those of web pages are known.
  static void onSkippedEntity(void* self, const char* name, int is_parameter) {
    auto* const run = static_cast<Run*>(self);
    if (is_parameter != 0) return;
    run->guarded([&] { run->handler_.text(run->entityOfWebPages(name)); });
  }

  const std::string& entityOfWebPages(const std::string& name) {
    std::string& text = known_entities_[name];
    if (text.empty()) {
      text = htmlText("&" + name + ";", "UTF-8", limits_);
      if (!text.empty()) text.pop_back();  // the end of the line
    }
    return text;
  }

  [[noreturn]] void fail() const {
    const XML_Error error = XML_GetErrorCode(parser_.get());
    if (error == XML_ERROR_NO_MEMORY) throw std::bad_alloc();
    if (error == XML_ERROR_AMPLIFICATION_LIMIT_BREACH) {
      throw NotInspected(Reason::kRatioLimit, "entities that expand beyond the limit");
    }
    throw NotInspected(Reason::kDamaged,
                       "XML, line " + std::to_string(XML_GetCurrentLineNumber(parser_.get())) +
                           ": " + XML_ErrorString(error));
  }

  const std::unique_ptr<XML_ParserStruct, decltype(&XML_ParserFree)> parser_;
  const Limits& limits_;
  XmlHandler& handler_;
  std::exception_ptr failure_;
  int entities_ = 0;
  std::map<std::string, std::string> known_entities_;
};

// All character data, an element parts words, and the attributes that are passages. Its
// root tells a web page.
class AllText : public XmlHandler {
 public:
  void start(std::string_view name, const XmlAttributes& attributes) override {
    if (root_.empty()) root_ = name;
    separate();
    attributes.eachValue([this](std::string_view value) {
      if (isProse(value)) attributes_.append(value).append("\n");
    });
  }
  void end(std::string_view) override { separate(); }
  void text(std::string_view utf8) override { text_ += utf8; }

  const std::string& root() const { return root_; }
  void handOut(Document& document) {
    if (!attributes_.empty()) separate();
    document.text(text_);
    document.text(attributes_);
  }

 private:
  void separate() {
    if (!text_.empty() && text_.back() != '\n') text_ += '\n';
  }

  std::string root_;
  std::string text_;
  std::string attributes_;
};

}  // namespace

std::string_view XmlAttributes::value(std::string_view name) const {
  for (const char* const* pair = pairs_; *pair != nullptr; pair += 2) {
    if (name == pair[0]) return pair[1];
  }
  return {};
}

std::string_view XmlAttributes::prefixedValue(std::string_view name) const {
  for (const char* const* pair = pairs_; *pair != nullptr; pair += 2) {
    const std::string_view whole = pair[0];
    if (withoutPrefix(whole) == name && whole.size() > name.size()) return pair[1];
  }
  return {};
}

void readXml(std::string_view content, const Limits& limits, XmlHandler& handler) {
  const auto decoded = decodeText(content, declaredEncoding(content));
  if (!decoded) throw NotInspected(Reason::kDamaged, "XML in no known encoding");
  Run(limits, handler).parse(decoded->text);
}

void parseXml(std::string_view content, Document& document) {
  AllText all;
  try {
    readXml(content, document.limits(), all);
  } catch (...) {
    all.handOut(document);
    throw;
  }
  if (all.root() == "html") {
    document.text(xhtmlText(content, document.limits()));
  } else {
    all.handOut(document);
  }
}

}  // namespace tool
