#include "extract/formats/ooxml.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "extract/formats/flow.h"
#include "extract/formats/paths.h"
#include "extract/formats/salvage.h"
#include "extract/formats/xml.h"
#include "extract/formats/zip_members.h"

namespace tool {
namespace {

// ---- Text of one part

// Parts in WordprocessingML, PresentationML and DrawingML, where text stands in <t>, and
// comments, where it stands in <text>.
class MarkupText : public XmlHandler {
 public:
  explicit MarkupText(std::string_view root)
      : has_values_(root == "chartSpace" || root == "externalLink"),
        is_cache_(root == "pivotCacheDefinition" || root == "pivotCacheRecords"),
        is_master_(root == "sldMaster" || root == "sldLayout" || root == "notesMaster") {}

  static bool isRoot(std::string_view name) {
    static const std::set<std::string_view> kRoots = {
        // of Word
        "document", "glossaryDocument", "hdr", "ftr", "footnotes", "endnotes", "comments",
        // of Excel, which has comments, too
        "ThreadedComments", "externalLink", "pivotCacheDefinition", "pivotCacheRecords",
        // of PowerPoint
        "sld", "notes", "sldMaster", "sldLayout", "notesMaster", "cmLst",
        // drawings, charts and diagrams of all three
        "wsDr", "chartSpace", "dataModel"};
    return kRoots.count(name) != 0;
  }

  void start(std::string_view name, const XmlAttributes& attributes) override {
    if (skipped_ > 0 || name == "pPr" ||
        (name == "fld" && attributes.value("type") == "slidenum")) {
      ++skipped_;
    } else if (isTextElement(name)) {
      ++in_text_;
    } else if (isAside(name)) {
      flow_.beginAside();
    } else if (name == "tab") {
      flow_.write("\t");
    } else if (name == "br" || name == "cr") {
      flow_.write("\n");
    } else if (name == "noBreakHyphen") {
      flow_.write("-");
    } else if (is_cache_) {
      flow_.write(attributes.value("v"));
      flow_.endLine();
    } else if (name == "sp") {
      shape_start_ = flow_.length();
      is_placeholder_ = false;
    } else if (name == "ph") {
      is_placeholder_ = true;
    }
  }

  void end(std::string_view name) override {
    if (skipped_ > 0) {
      --skipped_;
    } else if (isTextElement(name)) {
      --in_text_;
      if (name != "t") flow_.endLine();
    } else if (isAside(name)) {
      flow_.endAside();
    } else if (name == "p" || name == "tr" || name == "comment") {
      flow_.endLine();
    } else if (name == "tc") {
      flow_.write("\t");
    } else if (name == "sp" && is_master_ && is_placeholder_ && shape_start_ <= flow_.length()) {
      flow_.cut(shape_start_);  // "Click to edit ...", in all presentations alike
    }
  }

  void text(std::string_view utf8) override {
    if (in_text_ > 0 && skipped_ == 0) flow_.write(utf8);
  }

  std::string take() { return flow_.take(); }

 private:
  bool isTextElement(std::string_view name) const {
    return name == "t" || name == "delText" || name == "text" || (name == "v" && has_values_);
  }

  static bool isAside(std::string_view name) {
    return name == "txbxContent" || name == "Fallback" || name == "del" || name == "moveFrom";
  }

  Flow flow_;
  const bool has_values_;  // in <v>, copied from cells
  const bool is_cache_;    // of a pivot table: copies of cells that may long be gone
  const bool is_master_;
  size_t skipped_ = 0;  // elements open that hold no text, and those inside
  size_t in_text_ = 0;
  size_t shape_start_ = 0;
  bool is_placeholder_ = false;
};

// ---- Workbooks

// The strings that the cells of all sheets refer to by their number.
class SharedStrings : public XmlHandler {
 public:
  void start(std::string_view name, const XmlAttributes&) override {
    if (name == "si") starts_.push_back(text_.size());
    if (name == "t") ++in_text_;
  }
  void end(std::string_view name) override {
    if (name == "t") --in_text_;
  }
  void text(std::string_view utf8) override {
    if (in_text_ > 0) text_ += utf8;
  }

  std::string_view at(size_t index) const {
    if (index >= starts_.size()) return {};
    const size_t end = index + 1 < starts_.size() ? starts_[index + 1] : text_.size();
    return std::string_view(text_).substr(starts_[index], end - starts_[index]);
  }

 private:
  std::string text_;
  std::vector<size_t> starts_;
  size_t in_text_ = 0;
};

// As stored, but with the fifteen digits that a spreadsheet shows: 0.1 is stored as
// 0.10000000000000001.
std::string shownNumber(std::string_view stored) {
  double number = 0;
  const auto read = std::from_chars(stored.data(), stored.data() + stored.size(), number);
  if (read.ec != std::errc() || read.ptr != stored.data() + stored.size() || stored.size() <= 15) {
    return std::string(stored);
  }
  std::array<char, 32> text;
  const auto written =
      std::to_chars(text.data(), text.data() + text.size(), number, std::chars_format::general, 15);
  return {text.data(), written.ptr};
}

// Headers and footers have codes between their words: &C, &12, &"Arial,Bold", &KFF0000.
std::string withoutCodes(std::string_view coded) {
  std::string text;
  while (!coded.empty()) {
    const size_t code = std::min(coded.find('&'), coded.size());
    text.append(coded.substr(0, code)).append(" ");
    coded.remove_prefix(std::min(code + 1, coded.size()));
    size_t end = std::min<size_t>(1, coded.size());
    if (coded.starts_with('"')) {
      end = std::min(coded.find('"', 1), coded.size() - 1) + 1;
    } else if (coded.starts_with('K')) {
      end = std::min<size_t>(7, coded.size());
    } else if (!coded.empty() && coded.front() >= '0' && coded.front() <= '9') {
      end = std::min(coded.find_first_not_of("0123456789"), coded.size());
    }
    coded.remove_prefix(end);
  }
  return text;
}

// One string may stand in any number of cells: what that makes is held to the size of a
// member.
class Sheet : public XmlHandler {
 public:
  Sheet(std::string_view name, const SharedStrings& strings, Document& document, uint64_t* room)
      : name_(name), strings_(strings), document_(document), room_(room) {}

  void begin() {
    say(name_);
    say("\n");
  }

  void start(std::string_view name, const XmlAttributes& attributes) override {
    if (name == "c") type_ = attributes.value("t");
    if (isValue(name)) {
      ++in_value_;
      value_.clear();
    }
  }

  void end(std::string_view name) override {
    if (isValue(name)) {
      if (in_value_ > 0) --in_value_;
      say(name == "v" ? shown() : isHeader(name) ? withoutCodes(value_) : value_);
    } else if (name == "c") {
      say("\t");
    } else if (name == "row") {
      say("\n");
    }
  }

  void text(std::string_view utf8) override {
    if (in_value_ > 0) value_ += utf8;
  }

 private:
  void say(std::string_view utf8) {
    if (utf8.size() > *room_) {
      throw NotInspected(Reason::kSizeLimit, "a spreadsheet that repeats its text too often");
    }
    *room_ -= utf8.size();
    document_.text(utf8);
  }

  static bool isValue(std::string_view name) {
    return name == "v" || name == "t" || isHeader(name);
  }

  static bool isHeader(std::string_view name) {
    return name == "oddHeader" || name == "oddFooter" || name == "evenHeader" ||
           name == "evenFooter" || name == "firstHeader" || name == "firstFooter";
  }

  std::string shown() {
    if (type_ == "s") {
      size_t index = 0;
      const auto read = std::from_chars(value_.data(), value_.data() + value_.size(), index);
      return std::string(read.ec == std::errc() ? strings_.at(index) : std::string_view());
    }
    if (type_ == "b") return value_ == "0" ? "FALSE" : "TRUE";
    if (type_.empty() || type_ == "n") value_ = shownNumber(value_);
    return value_;
  }

  const std::string_view name_;
  const SharedStrings& strings_;
  Document& document_;
  uint64_t* const room_;
  std::string type_;  // of the cell
  std::string value_;
  size_t in_value_ = 0;
};

// ---- The package

struct Relationship {
  std::string type;  // the end of its URI: "officeDocument"
  std::string target;
};

class Relationships : public XmlHandler {
 public:
  explicit Relationships(std::string_view base) : base_(base) {}

  void start(std::string_view name, const XmlAttributes& attributes) override {
    if (name != "Relationship") return;
    const std::string_view type = attributes.value("Type");
    by_id[std::string(attributes.value("Id"))] = {std::string(type.substr(type.rfind('/') + 1)),
                                                  resolved(base_, attributes.value("Target"))};
  }

  std::string targetOfType(std::string_view type) const {
    for (const auto& [id, relationship] : by_id) {
      if (relationship.type == type) return relationship.target;
    }
    return {};
  }

  std::map<std::string, Relationship> by_id;

 private:
  const std::string base_;
};

// The slides or sheets of a presentation or workbook, in their order.
class Contents : public XmlHandler {
 public:
  struct Entry {
    std::string relationship;
    std::string name;
  };

  void start(std::string_view name, const XmlAttributes& attributes) override {
    if (name != "sheet" && name != "sldId") return;
    entries.push_back(
        {std::string(attributes.prefixedValue("id")), std::string(attributes.value("name"))});
  }

  std::vector<Entry> entries;
};

// Any part, by its root element. Styles, settings and the like have no text.
class Part : public XmlHandler {
 public:
  Part(Sheet& sheet, Document& document) : sheet_(sheet), document_(document) {}

  void start(std::string_view name, const XmlAttributes& attributes) override {
    if (!started_) choose(name);
    if (reader_ != nullptr) reader_->start(name, attributes);
  }
  void end(std::string_view name) override {
    if (reader_ != nullptr) reader_->end(name);
  }
  void text(std::string_view utf8) override {
    if (reader_ != nullptr) reader_->text(utf8);
  }

  // To be called also when the part turned out to be damaged.
  void finish() {
    if (markup_) document_.text(markup_->take());
  }

  bool isKnown() const { return reader_ != nullptr; }

 private:
  void choose(std::string_view root) {
    started_ = true;
    if (root == "worksheet") {
      sheet_.begin();
      reader_ = &sheet_;
    } else if (MarkupText::isRoot(root)) {
      reader_ = &markup_.emplace(root);
    }
  }

  Sheet& sheet_;
  Document& document_;
  std::optional<MarkupText> markup_;
  XmlHandler* reader_ = nullptr;
  bool started_ = false;
};

class Package {
 public:
  Package(std::string_view content, Document& document)
      : document_(document), zip_(content, document), room_(document.limits().member_bytes) {}

  void read() {
    arrange();
    for (const size_t index : order_) salvage_.attempt([&] { readEntry(index); });
    salvage_.finish();
    if (!found_text_part_) {
      throw NotInspected(Reason::kUnsupported, "an Office document without any known part");
    }
  }

 private:
  // The main part, what it lists, and the rest as it comes.
  void arrange() {
    std::vector<bool> taken(zip_.names().size());
    const auto take = [&](std::optional<size_t> index) {
      if (!index || taken[*index]) return;
      taken[*index] = true;
      order_.push_back(*index);
    };
    salvage_.attempt([&] {
      const std::string main = relationshipsOf("").targetOfType("officeDocument");
      take(zip_.find(main));
      const Relationships related = relationshipsOf(main);
      const auto strings = zip_.find(related.targetOfType("sharedStrings"));
      if (strings) {
        taken[*strings] = true;
        readXml(zip_.read(*strings), document_.limits(), strings_);
      }
      Contents contents;
      readXmlOf(main, contents);
      for (const auto& entry : contents.entries) {
        const auto found = related.by_id.find(entry.relationship);
        if (found == related.by_id.end()) continue;
        const auto index = zip_.find(found->second.target);
        if (index) sheet_names_[*index] = entry.name;
        take(index);
      }
    });
    for (size_t index = 0; index < taken.size(); ++index) take(index);
  }

  Relationships relationshipsOf(const std::string& part) {
    const size_t name = part.rfind('/') + 1;
    Relationships related(part);
    readXmlOf(part.substr(0, name) + "_rels/" + part.substr(name) + ".rels", related);
    return related;
  }

  void readXmlOf(std::string_view name, XmlHandler& handler) {
    const auto content = zip_.read(name);
    if (content) readXml(*content, document_.limits(), handler);
  }

  void readEntry(size_t index) {
    const std::string& name = zip_.names()[index];
    if (endsWith(name, ".xml")) {
      readPart(index, zip_.read(index));
    } else if (name.find("embeddings/") != std::string::npos || !isFurniture(name) ||
               zip_.isDisguised(index, isMarkup(name))) {
      document_.member(name, zip_.read(index));
    }
  }

  void readPart(size_t index, const std::string& content) {
    Sheet sheet(sheet_names_[index], strings_, document_, &room_);
    Part part(sheet, document_);
    try {
      readXml(content, document_.limits(), part);
    } catch (const NotInspected&) {
      part.finish();
      throw;
    }
    part.finish();
    found_text_part_ = found_text_part_ || part.isKnown();
  }

  static bool isMarkup(std::string_view name) {
    return endsWith(name, ".rels") || endsWith(name, ".vml") || endsWith(name, ".svg") ||
           endsWith(name, ".psmdcp");
  }

  // What every package has, pictures and fonts.
  static bool isFurniture(std::string_view name) {
    static constexpr std::array<std::string_view, 20> kEndings = {
        ".rels", ".vml",  ".png", ".jpg", ".jpeg", ".gif",   ".emf",     ".wmf",    ".wdp", ".bmp",
        ".tif",  ".tiff", ".svg", ".ico", ".bin",  ".odttf", ".fntdata", ".psmdcp", ".mp4", ".mp3"};
    return std::any_of(kEndings.begin(), kEndings.end(),
                       [&](std::string_view ending) { return endsWith(name, ending); });
  }

  Document& document_;
  ZipMembers zip_;
  uint64_t room_;  // for the text of all sheets, in bytes
  Salvage salvage_;
  SharedStrings strings_;
  std::vector<size_t> order_;
  std::map<size_t, std::string> sheet_names_;  // by index in the archive
  bool found_text_part_ = false;
};

}  // namespace

void parseOoxml(std::string_view content, Document& document) { Package(content, document).read(); }

}  // namespace tool
