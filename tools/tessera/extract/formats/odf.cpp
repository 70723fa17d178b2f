#include "extract/formats/odf.h"

#include <algorithm>
#include <array>
#include <charconv>
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

constexpr size_t kMostBlanks = 100;  // that one element is believed to stand for

// Text stands in paragraphs and headings. One inside another belongs to a note, a comment
// or a drawing.
class OdfText : public XmlHandler {
 public:
  void start(std::string_view name, const XmlAttributes& attributes) override {
    if (skipped_ > 0 || isSkipped(name)) {
      ++skipped_;
    } else if (isAside(name)) {
      flow_.beginAside();
      paragraphs_.push_back(0);
    } else if (isParagraph(name)) {
      if (paragraphs_.back()++ > 0) flow_.beginAside();
    } else if (name == "s") {
      blanks(attributes.prefixedValue("c"));
    } else if (name == "tab") {
      flow_.write("\t");
    } else if (name == "line-break") {
      flow_.write("\n");
    }
  }

  void end(std::string_view name) override {
    if (skipped_ > 0) {
      --skipped_;
    } else if (isAside(name)) {
      flow_.endAside();
      if (paragraphs_.size() > 1) paragraphs_.pop_back();
    } else if (isParagraph(name)) {
      flow_.endLine();
      if (--paragraphs_.back() > 0) flow_.endAside();
    }
  }

  void text(std::string_view utf8) override {
    if (skipped_ == 0 && paragraphs_.back() > 0) flow_.write(utf8);
  }

  std::string take() { return flow_.take(); }

 private:
  static bool isParagraph(std::string_view name) { return name == "p" || name == "h"; }

  static bool isAside(std::string_view name) {
    return name == "note" || name == "annotation" || name == "tracked-changes" || name == "notes";
  }

  // What is no text, or another one in every place: pictures and what they are called,
  // numbers of pages.
  static bool isSkipped(std::string_view name) {
    static constexpr std::array<std::string_view, 6> kSkipped = {
        "binary-data", "title", "desc", "page-number", "page-count", "sheet-name"};
    return std::find(kSkipped.begin(), kSkipped.end(), name) != kSkipped.end();
  }

  void blanks(std::string_view count) {
    size_t wanted = 1;
    std::from_chars(count.data(), count.data() + count.size(), wanted);
    flow_.write(std::string(std::min(wanted, kMostBlanks), ' '));
  }

  Flow flow_;
  std::vector<size_t> paragraphs_ = {0};  // open, in the text and in each aside
  size_t skipped_ = 0;
};

// The members of the package that are encrypted.
class Manifest : public XmlHandler {
 public:
  void start(std::string_view name, const XmlAttributes& attributes) override {
    if (name == "file-entry") path_ = attributes.prefixedValue("full-path");
    if (name == "encryption-data") encrypted.insert(path_);
  }

  std::set<std::string> encrypted;

 private:
  std::string path_;
};

class Package {
 public:
  Package(std::string_view content, Document& document)
      : document_(document), zip_(content, document) {}

  void read() {
    const auto manifest = zip_.read("META-INF/manifest.xml");
    if (manifest) {
      salvage_.attempt([&] { readXml(*manifest, document_.limits(), manifest_); });
    }
    // A password is one for everything.
    if (manifest_.encrypted.count("content.xml") != 0 ||
        manifest_.encrypted.count("encrypted-package") != 0) {
      throw NotInspected(Reason::kEncrypted, "");
    }
    for (size_t i = 0; i < zip_.names().size(); ++i) {
      salvage_.attempt([&] { readEntry(i); });
    }
    salvage_.finish();
    if (!found_text_) throw NotInspected(Reason::kDamaged, "no content.xml");
  }

 private:
  void readEntry(size_t index) {
    const std::string& name = zip_.names()[index];
    if (manifest_.encrypted.count(name) != 0) {
      document_.lostMember(name, Reason::kEncrypted, "");
    } else if (isNamed(name, "content.xml") || isNamed(name, "styles.xml")) {
      found_text_ = true;
      readText(zip_.read(index));
    } else if (name != "mimetype" &&
               (!isFurniture(name) || zip_.isDisguised(index, isMarkup(name)))) {
      document_.member(name, zip_.read(index));
    }
  }

  void readText(const std::string& content) {
    OdfText text;
    try {
      readXml(content, document_.limits(), text);
    } catch (const NotInspected&) {
      document_.text(text.take());
      throw;
    }
    document_.text(text.take());
  }

  // The part of that name of the document, or of one embedded in it.
  static bool isNamed(std::string_view path, std::string_view name) {
    return path.substr(path.rfind('/') + 1) == name;
  }

  static bool isMarkup(std::string_view name) {
    return endsWith(name, ".xml") || endsWith(name, ".rdf") || endsWith(name, ".svg");
  }

  // What every package has, and pictures.
  static bool isFurniture(std::string_view name) {
    static constexpr std::array<std::string_view, 7> kDirectories = {
        "Configurations2/",    "META-INF/",   "Pictures/", "media/",
        "ObjectReplacements/", "Thumbnails/", "Fonts/"};
    static constexpr std::array<std::string_view, 3> kEndings = {".xml", ".rdf", "layout-cache"};
    return std::any_of(kDirectories.begin(), kDirectories.end(),
                       [&](std::string_view directory) {
                         return name.substr(0, directory.size()) == directory;
                       }) ||
           std::any_of(kEndings.begin(), kEndings.end(),
                       [&](std::string_view ending) { return endsWith(name, ending); });
  }

  Document& document_;
  ZipMembers zip_;
  Manifest manifest_;
  Salvage salvage_;
  bool found_text_ = false;
};

}  // namespace

void parseOdf(std::string_view content, Document& document) { Package(content, document).read(); }

}  // namespace tool
