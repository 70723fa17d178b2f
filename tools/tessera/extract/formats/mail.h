// E-mail and mailboxes, by GMime.
//
// The text of a message is its subject and every text/plain and text/html part that is
// no attachment; one that says the same as another before it is not repeated. Everything
// else in it is a member. Addresses and dates are no text: they stand in every message
// between the same people, who would then match each other whatever they write.
// Tests: tests/tool/formats_test.cpp; fuzz/extract_mail.cpp.
#pragma once

#include <string_view>

#include "extract/extraction.h"

namespace tool {

void parseMail(std::string_view content, Document& document);

// A mailbox; its messages are members, called "1", "2" and so on.
void parseMbox(std::string_view content, Document& document);

}  // namespace tool
