#include "extract/formats/old_office.h"

#include <algorithm>
#include <string>
#include <vector>

#include "extract/formats/helper_program.h"
#include "extract/formats/ole.h"
#include "extract/formats/ppt.h"
#include "extract/formats/words.h"

namespace tool {
namespace {

uint32_t littleEndian(std::string_view bytes, size_t at, size_t length) {
  uint32_t number = 0;
  for (size_t i = 0; i < length && at + i < bytes.size(); ++i) {
    number |= static_cast<uint32_t>(static_cast<unsigned char>(bytes[at + i])) << 8 * i;
  }
  return number;
}

bool isEncryptedWord(const OleFile& file) {
  const std::string head = file.stream("WordDocument", 12).value_or("");
  return (littleEndian(head, 10, 2) & 0x0100) != 0;
}

// What the bytes of a document are when they are not UTF-16: since Word 97 always Western;
// before, it follows from the language. catdoc has to be told: its default depends on a
// file in /etc, which the sandbox does not have.
std::string wordCharset(const OleFile& file) {
  constexpr uint32_t kWord97 = 193;
  const std::string head = file.stream("WordDocument", 12).value_or("");
  const uint32_t language = littleEndian(head, 6, 2) & 0x3ff;
  const bool is_cyrillic = language == 0x02 || language == 0x19 || language == 0x22 ||
                           language == 0x23;  // Bulgarian, Russian, Ukrainian, Belarusian
  return littleEndian(head, 2, 2) < kWord97 && is_cyrillic ? "cp1251" : "cp1252";
}

// xls2csv heeds the code page that an old workbook ("Book") declares, unless it is told
// another one. A new one has the lower bytes of UTF-16, which are Western.
std::vector<std::string> excelCommand(std::string_view name) {
  std::vector<std::string> command = {"xls2csv", "-d", "utf-8", "-q", "0", "-c", "\t"};
  if (name == "Workbook") command.insert(command.end(), {"-s", "cp1252"});
  command.emplace_back(kHelperInput);
  return command;
}

// A workbook is records of a type, a length and that many bytes; one near the beginning
// tells that those after it are encrypted.
bool isEncryptedExcel(const OleFile& file, std::string_view name) {
  constexpr uint32_t kFilePass = 0x2f;
  constexpr uint32_t kEnd = 0x0a;
  const std::string head = file.stream(name, 64 << 10).value_or("");
  for (size_t at = 0; at + 4 <= head.size(); at += 4 + littleEndian(head, at + 2, 2)) {
    const uint32_t type = littleEndian(head, at, 2);
    if (type == kFilePass) return true;
    if (type == kEnd) return false;
  }
  return false;
}

bool isEncryptedPowerPoint(const OleFile& file) {
  constexpr uint32_t kEncrypted = 0xf3d1c4df;
  const std::string user = file.stream("Current User", 16).value_or("");
  return littleEndian(user, 12, 4) == kEncrypted || file.has("EncryptedSummary");
}

void tellEmbedded(const OleFile& file, Document& document) {
  for (const std::string& name : file.embedded()) {
    document.lostMember(name, Reason::kUnsupported, "embedded in an old Office document");
  }
}

void runOn(std::string_view content, const std::vector<std::string>& command, Document& document) {
  const HelperResult result = runHelper(command, content, document);
  document.text(result.output);
  if (ranOutOfMemory(result)) throw NotInspected(Reason::kMemoryLimit, command.at(0));
  // These programs are silent about most of what they cannot read.
  if (result.exit_status != 0 || !hasWords(result.output)) {
    throw NotInspected(Reason::kDamaged, command.at(0) + " finds no text in it");
  }
}

// A file that was embedded as a whole: sizes, its name, its name again, where it was, its
// length and itself.
void readEmbedded(std::string_view object, Document& document) {
  constexpr size_t kHeader = 6;
  const auto skipName = [&](size_t at) {
    return std::min(object.find('\0', std::min(at, object.size())), object.size() - 1) + 1;
  };
  if (object.size() < kHeader) throw NotInspected(Reason::kDamaged, "an embedded file");
  const size_t name_end = skipName(kHeader);
  size_t at = skipName(name_end) + 4;
  at += 4 + littleEndian(object, at, 4);
  const uint32_t length = littleEndian(object, at, 4);
  if (at + 4 > object.size() || length > object.size() - at - 4) {
    throw NotInspected(Reason::kDamaged, "an embedded file");
  }
  document.member(object.substr(kHeader, name_end - kHeader - 1), object.substr(at + 4, length));
}

}  // namespace

void parseOldOffice(std::string_view content, Document& document) {
  const OleFile file(content);
  const NotInspected encrypted(Reason::kEncrypted, "");
  if (file.has("EncryptedPackage")) throw encrypted;
  if (file.has("WordDocument")) {
    if (isEncryptedWord(file)) throw encrypted;
    tellEmbedded(file, document);
    runOn(content, {"catdoc", "-s", wordCharset(file), "-d", "utf-8", "-w"}, document);
    return;
  }
  for (const char* const name : {"Workbook", "Book"}) {
    if (!file.has(name)) continue;
    if (isEncryptedExcel(file, name)) throw encrypted;
    tellEmbedded(file, document);
    runOn(content, excelCommand(name), document);
    return;
  }
  if (file.has("PowerPoint Document")) {
    if (isEncryptedPowerPoint(file)) throw encrypted;
    document.text(pptText(*file.stream("PowerPoint Document", content.size())));
    return;
  }
  if (const auto object = file.stream("\1Ole10Native", content.size())) {
    readEmbedded(*object, document);
    return;
  }
  for (const char* const name : {"Package", "CONTENTS"}) {
    if (const auto object = file.stream(name, content.size())) {
      document.member(name, *object);
      return;
    }
  }
  throw NotInspected(Reason::kUnsupported, "an OLE file of an unknown kind");
}

}  // namespace tool
