// The one table of the formats that are opened.
#pragma once

#include <string_view>

#include "extract/extraction.h"

namespace tool {

struct Format {
  enum class Kind {
    kDocument,     // has text of its own, and perhaps members
    kContainer,    // only its members count; they are opened while it is read
    kMarkup,       // text with marks in it: broken, it is plain text all the same
    kUnsupported,  // known to hold documents, which nothing here can get at
  };

  std::string_view type;  // as contentType() tells it
  Kind kind;
  Parser parser;  // none for kUnsupported
};

// The format of a type; nullptr for what is plain text or nothing to be opened.
const Format* formatOf(std::string_view type);

}  // namespace tool
