// RTF documents.
#include "document_sink.h"
#include "extract/formats/rtf.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::DocumentSink().parse(tool::parseRtf, {reinterpret_cast<const char*>(data), size});
  return 0;
}
