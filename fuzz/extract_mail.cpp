// Messages, and mailboxes, which every input is, too.
#include "document_sink.h"
#include "extract/formats/mail.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view content(reinterpret_cast<const char*>(data), size);
  fuzz::DocumentSink().parse(tool::parseMail, content);
  fuzz::DocumentSink().parse(tool::parseMbox, content);
  return 0;
}
