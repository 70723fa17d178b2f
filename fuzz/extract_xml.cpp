// XML documents, web pages in XML among them.
#include "document_sink.h"
#include "extract/formats/xml.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::DocumentSink().parse(tool::parseXml, {reinterpret_cast<const char*>(data), size});
  return 0;
}
