// Any bytes, under any declared charset: what is decoded is well-formed, and so is the
// canonical form, which is its own form; neither grows beyond three times its source.
#include "canonical_text.h"

#include <unicode/utf8.h>

#include <string>

#include "harness.h"
#include "input.h"

namespace {

bool isWellFormed(const std::string& text) {
  const auto* const bytes = reinterpret_cast<const uint8_t*>(text.data());
  const auto size = static_cast<int32_t>(text.size());
  for (int32_t at = 0; at < size;) {
    UChar32 c;
    U8_NEXT(bytes, at, size, c);
    if (c < 0) return false;
  }
  return true;
}

void checkForm(const std::string& text) {
  const std::string form = tool::canonicalText(text);
  FUZZ_CHECK(isWellFormed(form));
  FUZZ_CHECK(form.size() <= 3 * text.size());
  FUZZ_CHECK(tool::canonicalText(form) == form);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input(data, size);
  const std::string declared = input.bytes(input.below(32));
  const std::string bytes = input.rest();
  checkForm(bytes);  // as a parser would hand it over
  if (const auto decoded = tool::decodeText(bytes, declared)) {
    FUZZ_CHECK(isWellFormed(decoded->text));
    FUZZ_CHECK(!decoded->encoding.empty());
    FUZZ_CHECK(decoded->text.size() <= 3 * bytes.size() + 3);  // a character cut off
    checkForm(decoded->text);
  }
  return 0;
}
