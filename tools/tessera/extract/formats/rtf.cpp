// How it works: one pass over the bytes. A group inherits the state of the one around
// it. Text is bytes in the code page of its font, gathered until that changes and then
// decoded, or single UTF-16 units (\u) with a replacement after them that is skipped.
#include "extract/formats/rtf.h"

#include <unicode/ucnv.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "extract/formats/flow.h"
#include "text/charset.h"

namespace tool {
namespace {

constexpr size_t kMostGroups = 10'000;  // inside each other

// What becomes of a group.
enum class Destination : uint8_t { kText, kAside, kFonts, kObject, kNothing };

struct Group {
  Destination destination = Destination::kText;
  bool begins_aside = false;
  bool begins_object = false;
  bool is_deleted = false;
  int replacement = 1;  // characters after a \u that stand for it
  int font = -1;
};

const std::map<std::string_view, Destination>& destinations() {
  using enum Destination;
  static const std::map<std::string_view, Destination> kDestinations = {
      {"annotation", kAside}, {"footnote", kAside},       {"footer", kAside},
      {"footerf", kAside},    {"footerl", kAside},        {"footerr", kAside},
      {"header", kAside},     {"headerf", kAside},        {"headerl", kAside},
      {"headerr", kAside},    {"shptxt", kAside},         {"fonttbl", kFonts},
      {"objdata", kObject},   {"shpinst", kNothing},      {"ud", kText},
      {"upr", kNothing},      {"colortbl", kNothing},     {"stylesheet", kNothing},
      {"info", kNothing},     {"pict", kNothing},         {"listtext", kNothing},
      {"pntext", kNothing},   {"nonesttables", kNothing}, {"ftnsep", kNothing},
      {"ftnsepc", kNothing},  {"ftncn", kNothing},        {"aftnsep", kNothing},
      {"aftnsepc", kNothing}, {"aftncn", kNothing},       {"sp", kNothing},
      {"fldinst", kNothing},  {"bkmkstart", kNothing},    {"bkmkend", kNothing},
      {"xe", kNothing},       {"tc", kNothing},           {"objclass", kNothing},
      {"filetbl", kNothing},  {"revtbl", kNothing}};
  return kDestinations;
}

// What a control word stands for in the text.
std::string_view textOf(std::string_view word) {
  static const std::map<std::string_view, std::string_view> kText = {
      {"par", "\n"},           {"line", "\n"},          {"row", "\n"},        {"nestrow", "\n"},
      {"sect", "\n"},          {"page", "\n"},          {"column", "\n"},     {"cell", "\t"},
      {"nestcell", "\t"},      {"tab", "\t"},           {"lquote", "\u2018"}, {"rquote", "\u2019"},
      {"ldblquote", "\u201c"}, {"rdblquote", "\u201d"}, {"emdash", "\u2014"}, {"endash", "\u2013"},
      {"emspace", " "},        {"enspace", " "},        {"qmspace", " "},     {"zwj", "\u200d"},
      {"zwnj", "\u200c"}};
  const auto found = kText.find(word);
  return found == kText.end() ? std::string_view() : found->second;
}

// The code page of a font, as its \fcharset tells it; 0: that of the document.
int codePageOf(int charset) {
  static const std::map<int, int> kCodePages = {
      {77, 10000}, {128, 932},  {129, 949},  {130, 1361}, {134, 936},  {136, 950},
      {161, 1253}, {162, 1254}, {163, 1258}, {177, 1255}, {178, 1256}, {186, 1257},
      {204, 1251}, {222, 874},  {238, 1250}, {254, 437},  {255, 850}};
  const auto found = kCodePages.find(charset);
  return found == kCodePages.end() ? 0 : found->second;
}

std::string labelOf(int code_page) {
  if (code_page == 65001) return "UTF-8";
  if (code_page == 10000) return "macintosh";
  if (code_page == 932) return "Shift_JIS";
  if (code_page == 936) return "GBK";
  if (code_page == 949) return "EUC-KR";
  if (code_page == 950) return "Big5";
  return (code_page < 1000 && code_page != 874 ? "IBM" : "windows-") + std::to_string(code_page);
}

// Converters from the code pages of a document. Opening one takes longer than the words
// that it is needed for.
class CodePages {
 public:
  std::string toUtf8(std::string_view bytes, int code_page) {
    UConverter* const converter = open(code_page);
    UErrorCode status = U_ZERO_ERROR;
    std::string text;
    icu::UnicodeString(bytes.data(), static_cast<int32_t>(bytes.size()), converter, status)
        .toUTF8String(text);
    return text;
  }

 private:
  struct Closer {
    void operator()(UConverter* converter) const { ucnv_close(converter); }
  };

  // Of Windows-1252 for a code page that is not known.
  UConverter* open(int code_page) {
    auto& converter = converters_[code_page];
    if (!converter) {
      UErrorCode status = U_ZERO_ERROR;
      converter.reset(ucnv_open(charsetOf(labelOf(code_page)).c_str(), &status));
    }
    if (!converter && code_page == kWestern) throw std::bad_alloc();
    return converter ? converter.get() : open(kWestern);
  }

  static constexpr int kWestern = 1252;
  std::map<int, std::unique_ptr<UConverter, Closer>> converters_;
};

int hexDigit(char c) {
  const int low = std::tolower(static_cast<unsigned char>(c));
  if (c >= '0' && c <= '9') return c - '0';
  return low >= 'a' && low <= 'f' ? low - 'a' + 10 : -1;
}

uint32_t littleEndian(std::string_view bytes) {
  uint32_t number = 0;
  for (size_t i = 0; i < 4; ++i) {
    number |= static_cast<uint32_t>(static_cast<unsigned char>(bytes[i])) << 8 * i;
  }
  return number;
}

// The document inside of an embedded object: two numbers, three texts with their length,
// the length of the document. Empty when it is not like that.
std::string_view embedded(std::string_view object) {
  constexpr size_t kNumber = 4;
  if (object.size() < 2 * kNumber) return {};
  object.remove_prefix(2 * kNumber);
  for (int i = 0; i < 4; ++i) {
    if (object.size() < kNumber) return {};
    const uint32_t length = littleEndian(object);
    object.remove_prefix(kNumber);
    if (length > object.size()) return {};
    if (i == 3) return object.substr(0, length);
    object.remove_prefix(length);
  }
  return {};
}

class Rtf {
 public:
  Rtf(std::string_view content, Document& document) : rest_(content), document_(document) {}

  void read() {
    while (!rest_.empty()) {
      const char c = take();
      if (c == '{') {
        open();
      } else if (c == '}') {
        close();
      } else if (c == '\\') {
        readControl();
      } else if (c != '\r' && c != '\n') {
        addByte(c);
      }
    }
    const bool is_whole = outer_.empty();
    while (!outer_.empty()) close();
    decodeBytes();
    if (!deleted_.empty()) deleted_ += '\n';
    document_.text(flow_.take() + deleted_);
    if (!is_whole) throw NotInspected(Reason::kDamaged, "RTF that ends too early");
  }

 private:
  char take() {
    const char c = rest_.front();
    rest_.remove_prefix(1);
    return c;
  }

  // ---- Groups

  void open() {
    if (outer_.size() == kMostGroups) {
      throw NotInspected(Reason::kDepthLimit, "RTF groups inside each other");
    }
    decodeBytes();
    outer_.push_back(here_);
    here_.begins_aside = here_.begins_object = false;
    skip_ = 0;
  }

  void close() {
    if (outer_.empty()) return;
    decodeBytes();
    if (here_.begins_aside) flow_.endAside();
    if (here_.begins_object) endObject();
    here_ = outer_.back();
    outer_.pop_back();
    skip_ = 0;
  }

  void setDestination(Destination destination) {
    decodeBytes();
    if (destination == Destination::kAside && !here_.begins_aside) {
      flow_.beginAside();
      here_.begins_aside = true;
    }
    if (destination == Destination::kObject) {
      object_.clear();
      here_.begins_object = true;
    }
    here_.destination = destination == Destination::kAside ? Destination::kText : destination;
  }

  void endObject() {
    const std::string name = "object" + std::to_string(++objects_);
    const std::string_view inner = embedded(object_);
    if (inner.empty()) {
      document_.lostMember(name, Reason::kDamaged, "an embedded object");
    } else {
      document_.member(name, inner);
    }
    object_.clear();
  }

  // ---- Controls

  void readControl() {
    if (rest_.empty()) return;
    const char c = take();
    if (std::isalpha(static_cast<unsigned char>(c)) != 0) {
      readWord(c);
    } else if (c == '\'') {
      readHexByte();
    } else if (c == '*') {
      is_optional_ = true;  // unless the word after it is known, the group is skipped
    } else if (c == '\\' || c == '{' || c == '}') {
      addByte(c);
    } else if (c == '~') {
      addText(" ");
    } else if (c == '_') {
      addText("-");
    } else if (c == '\n' || c == '\r') {
      addText("\n");
    }
  }

  void readWord(char first) {
    std::string word(1, first);
    while (!rest_.empty() && std::isalpha(static_cast<unsigned char>(rest_.front())) != 0) {
      word += take();
    }
    int value = 0;
    const auto number = std::from_chars(rest_.data(), rest_.data() + rest_.size(), value);
    const bool has_value = number.ptr != rest_.data();
    if (number.ec == std::errc::result_out_of_range) value = std::numeric_limits<int>::max();
    rest_.remove_prefix(static_cast<size_t>(number.ptr - rest_.data()));
    if (!rest_.empty() && rest_.front() == ' ') rest_.remove_prefix(1);
    const bool is_optional = is_optional_;
    is_optional_ = false;
    if (word == "bin") {
      rest_.remove_prefix(std::min(rest_.size(), static_cast<size_t>(std::max(value, 0))));
    } else if (skip_ > 0) {
      --skip_;
    } else {
      apply(word, has_value, value, is_optional);
    }
  }

  void apply(std::string_view word, bool has_value, int value, bool is_optional) {
    const auto destination = destinations().find(word);
    if (destination != destinations().end()) {
      // Text boxes stand inside of what is otherwise no text.
      if (here_.destination != Destination::kNothing || word == "shptxt" || word == "ud") {
        setDestination(destination->second);
      }
    } else if (is_optional) {
      setDestination(Destination::kNothing);
    } else if (word == "u" && has_value) {
      addUnit(static_cast<uint16_t>(value));
      skip_ = here_.replacement;
    } else if (word == "uc") {
      here_.replacement = std::max(value, 0);
    } else if (word == "f" || word == "fcharset" || word == "cpg") {
      setFont(word, value);
    } else if (word == "ansicpg" || word == "mac" || word == "pc" || word == "pca") {
      decodeBytes();
      code_page_ = word == "ansicpg" ? value : word == "mac" ? 10000 : word == "pc" ? 437 : 850;
    } else if (word == "deff") {
      default_font_ = value;
    } else if (word == "plain") {
      decodeBytes();
      here_.font = default_font_;
      here_.is_deleted = false;
    } else if (word == "deleted") {
      decodeBytes();
      here_.is_deleted = !has_value || value != 0;
    } else {
      addText(textOf(word));
    }
  }

  void setFont(std::string_view word, int value) {
    decodeBytes();
    if (word == "f") {
      here_.font = value;
    } else if (here_.destination == Destination::kFonts) {
      font_code_pages_[here_.font] = word == "cpg" ? value : codePageOf(value);
    }
  }

  void readHexByte() {
    const int high = rest_.empty() ? -1 : hexDigit(rest_.front());
    if (high < 0) return;
    take();
    const int low = rest_.empty() ? -1 : hexDigit(rest_.front());
    if (low < 0) return;
    take();
    addByte(static_cast<char>(high * 16 + low));
  }

  // ---- Text

  void addByte(char c) {
    is_optional_ = false;
    if (skip_ > 0) {
      --skip_;
    } else if (here_.destination == Destination::kText) {
      bytes_ += c;
    } else if (here_.destination == Destination::kObject) {
      addObjectDigit(c);
    }
  }

  void addText(std::string_view utf8) {
    if (utf8.empty() || here_.destination != Destination::kText) return;
    decodeBytes();
    write(utf8);
  }

  void addUnit(uint16_t unit) {
    if (here_.destination != Destination::kText) return;
    decodeBytes();
    if (U16_IS_LEAD(unit)) {
      lead_ = unit;
      return;
    }
    icu::UnicodeString character(char16_t{unit});
    if (U16_IS_TRAIL(unit) && lead_ != 0) character.insert(0, char16_t{lead_});
    std::string text;
    write(character.toUTF8String(text));
    lead_ = 0;
  }

  void decodeBytes() {
    if (bytes_.empty()) return;
    const auto font = font_code_pages_.find(here_.font);
    const int code_page =
        font == font_code_pages_.end() || font->second == 0 ? code_page_ : font->second;
    const bool is_ascii =
        std::none_of(bytes_.begin(), bytes_.end(), [](unsigned char c) { return c >= 0x80; });
    write(is_ascii ? bytes_ : code_pages_.toUtf8(bytes_, code_page));
    bytes_.clear();
  }

  void write(std::string_view utf8) {
    if (here_.is_deleted) {
      deleted_ += utf8;
    } else {
      flow_.write(utf8);
    }
  }

  void addObjectDigit(char c) {
    const int digit = hexDigit(c);
    if (digit < 0) return;
    if (half_byte_ < 0) {
      half_byte_ = digit;
    } else {
      object_ += static_cast<char>(half_byte_ * 16 + digit);
      half_byte_ = -1;
    }
  }

  std::string_view rest_;
  Document& document_;
  Flow flow_;
  Group here_;
  std::vector<Group> outer_;
  CodePages code_pages_;
  std::map<int, int> font_code_pages_;
  int code_page_ = 1252;
  int default_font_ = 0;
  bool is_optional_ = false;  // a \* was just read
  int skip_ = 0;              // characters of a replacement still to come
  uint16_t lead_ = 0;         // the first half of a character of two units
  std::string bytes_;         // text not yet decoded
  std::string deleted_;
  std::string object_;
  int half_byte_ = -1;
  int objects_ = 0;
};

}  // namespace

void parseRtf(std::string_view content, Document& document) { Rtf(content, document).read(); }

}  // namespace tool
