// Web pages: whatever stands in one, its text comes out, or it is given up.
#include "document_sink.h"
#include "extract/formats/html.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::DocumentSink().parse(tool::parseHtml, {reinterpret_cast<const char*>(data), size});
  return 0;
}
