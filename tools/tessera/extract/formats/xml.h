// XML, by Expat: its text as a document, and the reader that the formats made of XML
// are read with. External entities are never loaded; entities that expand beyond the
// ratio, or nest, are stopped.
// Tests: tests/tool/formats_test.cpp; fuzz/extract_xml.cpp.
#pragma once

#include <string>
#include <string_view>

#include "extract/extraction.h"

namespace tool {

void parseXml(std::string_view content, Document& document);

// The attributes of an element, while start() runs.
class XmlAttributes {
 public:
  explicit XmlAttributes(const char* const* pairs) : pairs_(pairs) {}

  // Of the attribute with this name, without a prefix; empty when there is none.
  std::string_view value(std::string_view name) const;
  // Of the attribute with any prefix and this name.
  std::string_view prefixedValue(std::string_view name) const;

  template <typename Visit>
  void eachValue(Visit visit) const {
    for (const char* const* pair = pairs_; *pair != nullptr; pair += 2) visit(pair[1]);
  }

 private:
  const char* const* const pairs_;
};

// Element names come without their prefix: no format read here has two that differ in
// nothing else and mean something different. Any of these may throw.
class XmlHandler {
 public:
  virtual ~XmlHandler() = default;
  virtual void start(std::string_view /*name*/, const XmlAttributes&) {}
  virtual void end(std::string_view /*name*/) {}
  virtual void text(std::string_view /*utf8*/) {}
};

// Throws NotInspected: kDamaged where it is not well-formed, with everything up to there
// handed out, and whatever the handler throws.
void readXml(std::string_view content, const Limits& limits, XmlHandler& handler);

}  // namespace tool
