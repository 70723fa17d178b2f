#include "extract/formats/epub.h"

#include <algorithm>
#include <array>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "extract/formats/html.h"
#include "extract/formats/paths.h"
#include "extract/formats/salvage.h"
#include "extract/formats/xml.h"
#include "extract/formats/zip_members.h"

namespace tool {
namespace {

// META-INF/container.xml: where the book describes itself.
class Container : public XmlHandler {
 public:
  void start(std::string_view name, const XmlAttributes& attributes) override {
    if (name == "rootfile" && book.empty()) book = attributes.value("full-path");
  }

  std::string book;
};

// META-INF/encryption.xml: what cannot be read.
class Encryption : public XmlHandler {
 public:
  void start(std::string_view name, const XmlAttributes& attributes) override {
    if (name == "CipherReference")
      encrypted.insert(resolved("", decodedUri(attributes.value("URI"))));
  }

  std::set<std::string> encrypted;
};

// The book's own description: its pages and their order, its title.
class Book : public XmlHandler {
 public:
  explicit Book(std::string_view path) : path_(path) {}

  void start(std::string_view name, const XmlAttributes& attributes) override {
    if (name == "item") {
      const std::string target = resolved(path_, decodedUri(attributes.value("href")));
      targets_[std::string(attributes.value("id"))] = target;
      if (attributes.value("media-type") == "application/xhtml+xml") pages.insert(target);
    } else if (name == "itemref") {
      spine_.emplace_back(attributes.value("idref"));
    }
    in_title_ = name == "title";
  }
  void end(std::string_view) override { in_title_ = false; }
  void text(std::string_view utf8) override {
    if (in_title_) title += utf8;
  }

  std::vector<std::string> order() const {
    std::vector<std::string> order;
    for (const auto& id : spine_) {
      const auto found = targets_.find(id);
      if (found != targets_.end()) order.push_back(found->second);
    }
    return order;
  }

  std::set<std::string> pages;
  std::string title;

 private:
  const std::string path_;
  std::map<std::string, std::string> targets_;  // by id
  std::vector<std::string> spine_;              // ids
  bool in_title_ = false;
};

class Package {
 public:
  Package(std::string_view content, Document& document)
      : document_(document), zip_(content, document), read_(zip_.names().size()) {}

  void read() {
    salvage_.attempt([&] { readXmlOf("META-INF/encryption.xml", encryption_); });
    salvage_.attempt([&] { readSpine(); });
    for (size_t i = 0; i < zip_.names().size(); ++i) {
      const std::string& name = zip_.names()[i];
      if (endsWith(name, ".xhtml") || endsWith(name, ".html") || endsWith(name, ".htm"))
        readPage(i);
    }
    for (size_t i = 0; i < zip_.names().size(); ++i) {
      if (!read_[i]) salvage_.attempt([&] { readOther(i); });
    }
    salvage_.finish();
    if (!found_page_) throw NotInspected(Reason::kDamaged, "a book without pages");
  }

 private:
  void readSpine() {
    Container container;
    readXmlOf("META-INF/container.xml", container);
    Book book(container.book);
    readXmlOf(container.book, book);
    document_.text(book.title + "\n");
    for (const auto& target : book.order()) {
      const auto index = zip_.find(target);
      if (index) readPage(*index);
    }
    for (const auto& target : book.pages) {
      const auto index = zip_.find(target);
      if (index) readPage(*index);
    }
  }

  void readPage(size_t index) {
    if (read_[index]) return;
    read_[index] = true;
    found_page_ = true;
    const std::string& name = zip_.names()[index];
    if (encryption_.encrypted.count(name) != 0) {
      document_.lostMember(name, Reason::kEncrypted, "");
      return;
    }
    salvage_.attempt([&] { document_.text(xhtmlText(zip_.read(index), document_.limits())); });
  }

  // Pictures, fonts and styles are no text, and other files belong into no book.
  void readOther(size_t index) {
    static constexpr std::array<std::string_view, 8> kMarkup = {".opf", ".ncx", ".xml",  ".css",
                                                                ".svg", ".js",  ".smil", ".pls"};
    const std::string& name = zip_.names()[index];
    if (name == "mimetype" || encryption_.encrypted.count(name) != 0) return;
    const bool markup =
        std::any_of(kMarkup.begin(), kMarkup.end(), [&](auto end) { return endsWith(name, end); });
    if (zip_.isDisguised(index, markup)) document_.member(name, zip_.read(index));
  }

  void readXmlOf(std::string_view name, XmlHandler& handler) {
    const auto content = zip_.read(name);
    if (content) readXml(*content, document_.limits(), handler);
  }

  Document& document_;
  ZipMembers zip_;
  std::vector<bool> read_;  // by index in the archive
  Encryption encryption_;
  Salvage salvage_;
  bool found_page_ = false;
};

}  // namespace

void parseEpub(std::string_view content, Document& document) { Package(content, document).read(); }

}  // namespace tool
