// How it works: gumbo makes a tree of the page, whatever it looks like; a loop walks
// it without recursion. A page can be made so that gumbo needs memory or time out of
// all proportion, and gumbo frees its trees recursively: so all of its memory comes
// from a Heap, which counts, looks at the clock, and is given back as a whole.
#include "extract/formats/html.h"

#include <gumbo.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csetjmp>
#include <cstdlib>
#include <cstring>
#include <set>
#include <vector>

#include "extract/formats/words.h"
#include "extract/formats/xml.h"
#include "text/canonical_text.h"

namespace tool {
namespace {

constexpr size_t kMetaWithin = 4096;  // a page declares its charset early, or not at all

// ---- What the elements mean

// Elements that stand in a line of text; all others end it.
bool isInline(std::string_view name) {
  static const std::set<std::string_view> kInline = {
      "a",      "abbr", "acronym", "b",    "bdi",  "bdo",  "big",   "blink", "cite",  "code",
      "data",   "del",  "dfn",     "em",   "font", "i",    "ins",   "kbd",   "label", "mark",
      "nobr",   "q",    "rb",      "ruby", "s",    "samp", "small", "span",  "st1",   "strike",
      "strong", "sub",  "sup",     "time", "tt",   "u",    "var",   "wbr"};
  return kInline.count(name) != 0;
}

bool isNoText(std::string_view name) {
  return name == "script" || name == "style" || name == "template";
}

// Attributes whose words a reader is shown.
constexpr std::array kShownAttributes = {"alt",         "title", "value",
                                         "placeholder", "label", "summary"};

// What Outlook shows of a comment: "[if mso]> ... <![endif]".
std::string_view conditional(std::string_view comment) {
  if (!comment.starts_with("[if")) return {};
  return comment.substr(std::min(comment.find('>'), comment.size() - 1) + 1);
}

void addLine(std::string_view line, std::string* text) {
  if (!line.empty()) text->append(line).append("\n");
}

// Descriptions, which search engines and messengers show; not the settings of a page.
void addContent(std::string_view element, std::string_view content, std::string* text) {
  if (element == "meta" && isProse(content)) addLine(content, text);
}

bool atLineStart(const std::string& text) { return text.empty() || text.back() == '\n'; }

void addBreak(std::string* text) {
  if (!atLineStart(*text)) *text += '\n';
}

// What only indents the page is left out.
void addText(std::string_view utf8, std::string* text) {
  if (atLineStart(*text))
    utf8.remove_prefix(std::min(utf8.find_first_not_of(" \t\r\n"), utf8.size()));
  *text += utf8;
}

// ---- gumbo, kept within limits

class Heap {
 public:
  explicit Heap(const Limits& limits)
      : bytes_left_(limits.memory_bytes / 2),
        end_(std::chrono::steady_clock::now() + std::chrono::milliseconds(limits.seconds * 250)) {}
  ~Heap() {
    while (first_ != nullptr) {
      Block* const block = first_;
      first_ = block->next;
      std::free(block);
    }
  }
  Heap(const Heap&) = delete;
  Heap& operator=(const Heap&) = delete;

  // Null when the page takes too much, see reason(). gumbo is C and cannot be left by
  // an exception: it is left by longjmp, and holds nothing but what is in here.
  GumboOutput* parse(std::string_view html) {
    GumboOptions options = kGumboDefaultOptions;
    options.allocator = &Heap::allocate;
    options.deallocator = &Heap::release;
    options.userdata = this;
    options.max_errors = 0;
    if (setjmp(way_out_) != 0) return nullptr;
    return gumbo_parse_with_options(&options, html.data(), html.size());
  }

  Reason reason() const { return reason_; }

 private:
  struct alignas(std::max_align_t) Block {
    Block* next;
    Block* previous;
    size_t bytes;
  };

  static void* allocate(void* self, size_t bytes) { return static_cast<Heap*>(self)->take(bytes); }

  static void release(void* self, void* memory) {
    if (memory != nullptr) static_cast<Heap*>(self)->giveBack(static_cast<Block*>(memory) - 1);
  }

  void* take(size_t bytes) {
    if (++calls_ % 1024 == 0 && std::chrono::steady_clock::now() > end_) leave(Reason::kTimeLimit);
    if (bytes > bytes_left_) leave(Reason::kMemoryLimit);
    auto* const block = static_cast<Block*>(std::malloc(sizeof(Block) + bytes));
    if (block == nullptr) leave(Reason::kMemoryLimit);
    *block = {first_, nullptr, bytes};
    if (first_ != nullptr) first_->previous = block;
    first_ = block;
    bytes_left_ -= bytes;
    return block + 1;
  }

  void giveBack(Block* block) {
    bytes_left_ += block->bytes;
    (block->previous != nullptr ? block->previous->next : first_) = block->next;
    if (block->next != nullptr) block->next->previous = block->previous;
    std::free(block);
  }

  [[noreturn]] void leave(Reason reason) {
    reason_ = reason;
    std::longjmp(way_out_, 1);
  }

  Block* first_ = nullptr;
  uint64_t bytes_left_;
  std::chrono::steady_clock::time_point end_;
  uint32_t calls_ = 0;
  Reason reason_ = Reason::kNone;
  std::jmp_buf way_out_;
};

// The name of an element; of one that gumbo does not know, as it stands in the page.
std::string elementName(const GumboElement& element) {
  if (element.tag != GUMBO_TAG_UNKNOWN) return gumbo_normalized_tagname(element.tag);
  GumboStringPiece name = element.original_tag;
  gumbo_tag_from_original_text(&name);
  return std::string(name.data == nullptr ? "" : name.data, name.length);
}

class Walk {
 public:
  std::string textOf(const GumboNode* root) {
    open_.push_back({root, 0, false});
    while (!open_.empty()) {
      const Open& here = open_.back();
      const GumboVector* const children = childrenOf(here.node);
      if (here.next < children->length) {
        const auto* const child =
            static_cast<const GumboNode*>(children->data[open_.back().next++]);
        visit(child);
      } else {
        if (here.ends_line) addBreak(&text_);
        open_.pop_back();
      }
    }
    addBreak(&text_);
    return text_ + attributes_;
  }

  // HTML that stands in attributes and comments and is shown all the same.
  const std::string& innerPages() const { return inner_pages_; }

 private:
  struct Open {
    const GumboNode* node;
    unsigned next;  // of its children
    bool ends_line;
  };

  static const GumboVector* childrenOf(const GumboNode* node) {
    return node->type == GUMBO_NODE_DOCUMENT ? &node->v.document.children
                                             : &node->v.element.children;
  }

  void visit(const GumboNode* node) {
    switch (node->type) {
      case GUMBO_NODE_TEXT:
      case GUMBO_NODE_CDATA:
      case GUMBO_NODE_WHITESPACE:
        addText(node->v.text.text, &text_);
        break;
      case GUMBO_NODE_ELEMENT:
        visitElement(node);
        break;
      case GUMBO_NODE_COMMENT:
        addLine(conditional(node->v.text.text), &inner_pages_);
        break;
      default:  // templates
        break;
    }
  }

  void visitElement(const GumboNode* node) {
    const GumboElement& element = node->v.element;
    const std::string name = elementName(element);
    if (isNoText(name)) return;
    const GumboAttribute* const page = gumbo_get_attribute(&element.attributes, "srcdoc");
    if (page != nullptr) addLine(page->value, &inner_pages_);
    for (const char* const shown : kShownAttributes) {
      const GumboAttribute* const attribute = gumbo_get_attribute(&element.attributes, shown);
      if (attribute != nullptr) addLine(attribute->value, &attributes_);
    }
    const GumboAttribute* const content = gumbo_get_attribute(&element.attributes, "content");
    if (content != nullptr) addContent(name, content->value, &attributes_);
    const bool ends_line = !isInline(name) && name != "img";
    if (ends_line) addBreak(&text_);
    open_.push_back({node, 0, ends_line});
  }

  std::vector<Open> open_;
  std::string text_;
  std::string attributes_;
  std::string inner_pages_;
};

// ---- Charset

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// What a page says of itself: <meta charset=X>, or <meta ... content="...; charset=X">.
std::string declaredCharset(std::string_view bytes) {
  std::string head(bytes.substr(0, kMetaWithin));
  std::transform(head.begin(), head.end(), head.begin(), lower);
  for (size_t at = head.find("<meta"); at != std::string::npos; at = head.find("<meta", at + 1)) {
    const std::string_view tag = std::string_view(head).substr(at, head.find('>', at) - at);
    size_t value = tag.find("charset");
    if (value == std::string_view::npos) continue;
    value = tag.find_first_not_of(" \t\r\n\"'=", value + std::strlen("charset"));
    if (value == std::string_view::npos) continue;
    const std::string_view name =
        tag.substr(value, tag.find_first_of(" \t\r\n\"';/", value) - value);
    // It could not have been read so far if it were UTF-16.
    return std::string(name.substr(0, 6) == "utf-16" ? "utf-8" : name);
  }
  return {};
}

// ---- XHTML

class XhtmlText : public XmlHandler {
 public:
  void start(std::string_view name, const XmlAttributes& attributes) override {
    if (skipped_ > 0 || isNoText(name)) {
      ++skipped_;
      return;
    }
    if (!isInline(name) && name != "img") addBreak(&text_);
    for (const char* const shown : kShownAttributes) addLine(attributes.value(shown), &attributes_);
    addContent(name, attributes.value("content"), &attributes_);
  }

  void end(std::string_view name) override {
    if (skipped_ > 0) {
      --skipped_;
    } else if (!isInline(name) && name != "img") {
      addBreak(&text_);
    }
  }

  void text(std::string_view utf8) override {
    if (skipped_ == 0) addText(utf8, &text_);
  }

  std::string take() {
    addBreak(&text_);
    return text_ + attributes_;
  }

 private:
  std::string text_;
  std::string attributes_;
  size_t skipped_ = 0;  // elements open that are no text, or inside of one
};

}  // namespace

std::string htmlText(std::string_view bytes, std::string_view declared, const Limits& limits) {
  const auto decoded =
      decodeText(bytes, declared.empty() ? declaredCharset(bytes) : std::string(declared));
  if (!decoded) throw NotInspected(Reason::kDamaged, "a web page in no known encoding");
  std::string text;
  std::string html = decoded->text;
  // Pages inside of pages, as deep as anybody makes them.
  for (int depth = 0; depth < 4 && !html.empty(); ++depth) {
    Heap heap(limits);
    const GumboOutput* const page = heap.parse(html);
    if (page == nullptr) {
      throw NotInspected(heap.reason(), "a web page that is too much for the HTML parser");
    }
    Walk walk;
    text += walk.textOf(page->document);
    html = walk.innerPages();
  }
  if (!html.empty()) throw NotInspected(Reason::kDepthLimit, "web pages inside each other");
  return text;
}

std::string xhtmlText(std::string_view bytes, const Limits& limits) {
  XhtmlText text;
  try {
    readXml(bytes, limits, text);
  } catch (const NotInspected& failure) {
    if (failure.reason != Reason::kDamaged) throw;
    return htmlText(bytes, {}, limits);
  }
  return text.take();
}

void parseHtml(std::string_view content, Document& document) {
  document.text(content.starts_with("<?xml")
                    ? xhtmlText(content, document.limits())
                    : htmlText(content, document.charset(), document.limits()));
}

}  // namespace tool
