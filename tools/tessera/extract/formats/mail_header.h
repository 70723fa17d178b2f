// The header of a mail as mail programs read it, who forgive much.
// Tests: tests/tool/content_type_test.cpp and tests/tool/formats_test.cpp.
#pragma once

#include <string>
#include <string_view>

namespace tool {

// Whether a text begins with the header of a mail: fields, some of them telling. What
// else stands between them is forgiven when the body is encoded as mails have it.
bool isMailHeader(std::string_view text);

// The header alone, in the form that every parser knows. What stands in it without being
// of a field goes to `stray`. `body`: what comes after it.
struct MailHeader {
  std::string fields;
  std::string stray;
  std::string_view body;
};
MailHeader mailHeader(std::string_view mail);

}  // namespace tool
