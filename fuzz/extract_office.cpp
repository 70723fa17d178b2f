// Documents that are a zip archive, and compound files, but without the programs that
// read old ones. A fuzzer that must keep an archive whole gets nowhere: unless an input
// is one, it is the names and contents of one, each ended by "\n%\n", which is made here
// uncompressed.
#include <archive.h>
#include <archive_entry.h>

#include <string>

#include "document_sink.h"
#include "extract/formats/epub.h"
#include "extract/formats/odf.h"
#include "extract/formats/ole.h"
#include "extract/formats/ooxml.h"
#include "extract/formats/ppt.h"

namespace {

constexpr std::string_view kEnd = "\n%\n";

std::string_view takePiece(std::string_view* rest) {
  const size_t end = std::min(rest->find(kEnd), rest->size());
  const std::string_view piece = rest->substr(0, end);
  rest->remove_prefix(std::min(end + kEnd.size(), rest->size()));
  return piece;
}

std::string archiveOf(std::string_view pieces) {
  std::string bytes(2 * pieces.size() + (64 << 10), '\0');
  size_t used = 0;
  archive* const writer = archive_write_new();
  archive_write_set_format_zip(writer);
  archive_write_zip_set_compression_store(writer);
  archive_write_open_memory(writer, bytes.data(), bytes.size(), &used);
  for (int files = 0; files < 30 && !pieces.empty(); ++files) {
    const std::string name(takePiece(&pieces));
    const std::string_view content = takePiece(&pieces);
    archive_entry* const entry = archive_entry_new();
    archive_entry_set_pathname(entry, name.c_str());
    archive_entry_set_size(entry, static_cast<la_int64_t>(content.size()));
    archive_entry_set_filetype(entry, AE_IFREG);
    if (archive_write_header(writer, entry) == ARCHIVE_OK) {
      archive_write_data(writer, content.data(), content.size());
    }
    archive_entry_free(entry);
  }
  archive_write_close(writer);
  archive_write_free(writer);
  bytes.resize(used);
  return bytes;
}

void readCompoundFile(std::string_view content) {
  try {
    const tool::OleFile file(content);
    for (const char* const name : {"Workbook", "Package", "\1Ole10Native"}) {
      const auto stream = file.stream(name, content.size());
      FUZZ_CHECK(!stream || stream->size() <= content.size());
      if (stream) tool::pptText(*stream);
    }
  } catch (const tool::NotInspected&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  if (input.substr(0, 4) == "\xd0\xcf\x11\xe0") {
    readCompoundFile(input);
    return 0;
  }
  const std::string archive =
      input.substr(0, 4) == "PK\3\4" ? std::string(input) : archiveOf(input);
  for (const tool::Parser parser : {tool::parseOoxml, tool::parseOdf, tool::parseEpub}) {
    fuzz::DocumentSink().parse(parser, archive);
  }
  return 0;
}
