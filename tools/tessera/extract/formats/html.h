// Text of web pages. This and html.cpp are all that knows the HTML parser, gumbo, so
// that it can be replaced.
//
// Scripts, styles, templates and what stands in <noscript> are no text. The words of
// alt and title attributes, which a reader may be shown, come after everything else:
// they hide nothing there, and do not part the words they stand between.
// Tests: tests/tool/formats_test.cpp; fuzz/extract_html.cpp.
#pragma once

#include <string>
#include <string_view>

#include "extract/extraction.h"

namespace tool {

void parseHtml(std::string_view content, Document& document);

// The text of a page, UTF-8. `declared` is the charset that was declared outside of
// the page, which counts more than what it says itself; may be empty. Throws
// NotInspected when the page is no text, or takes more than its share of time or memory.
std::string htmlText(std::string_view bytes, std::string_view declared, const Limits& limits);

// The same for XHTML, where every element may close itself. What is not well-formed is
// read as HTML.
std::string xhtmlText(std::string_view bytes, const Limits& limits);

}  // namespace tool
