// What charset a text is in that bears no mark of it.
#pragma once

#include <string>
#include <string_view>

namespace tool {

// For bytes that are no UTF-8 and have few control characters: a charset as charsetOf()
// names it; empty when none makes a text of them.
std::string guessCharset(std::string_view bytes);

// For bytes with many zeros: UTF-16 or UTF-32 in either order, or empty. Whether they
// are text is seen when they are decoded.
std::string guessWideCharset(std::string_view bytes);

}  // namespace tool
