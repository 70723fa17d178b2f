// Types by content.
#include "extract/content_type.h"

#include <gtest/gtest.h>

#include "archives.h"

namespace {

using archives::zip;
using tool::contentType;
using namespace std::string_literals;

TEST(ContentType, ZipsAreToldByTheirMembers) {
  const std::string office = "application/vnd.openxmlformats-officedocument.";
  EXPECT_EQ("application/zip", contentType(zip({{"a", "b"}})));
  EXPECT_EQ(office + "wordprocessingml.document",
            contentType(zip({{"[Content_Types].xml", "x"}, {"word/document.xml", "x"}})));
  EXPECT_EQ(office + "spreadsheetml.sheet",
            contentType(zip({{"xl/workbook.xml", "x"}, {"[Content_Types].xml", "x"}})));
  EXPECT_EQ(office + "presentationml.presentation",
            contentType(zip({{"[Content_Types].xml", "x"}, {"ppt/presentation.xml", "x"}})));
  EXPECT_EQ("application/vnd.oasis.opendocument.text",
            contentType(zip({{"mimetype", "application/vnd.oasis.opendocument.text\n"}})));
  EXPECT_EQ("application/epub+zip", contentType(zip({{"mimetype", "application/epub+zip"}})));
  EXPECT_EQ("application/zip", contentType(zip({{"mimetype", "text/html"}})));
  EXPECT_EQ("application/zip",
            contentType(zip({{"mimetype", "application/vnd.oasis.opendocument.unheard-of"}})));
  EXPECT_EQ("application/zip", contentType(zip({{"word/document.xml", "x"}})));
}

// A compound file of a header and one directory sector with these entries.
std::string compound(const std::vector<std::string>& names) {
  std::string file = "\xd0\xcf\x11\xe0\xa1\xb1\x1a\xe1"s;
  file.resize(512);
  for (const std::string& name : names) {
    std::string entry;
    for (const char c : name) entry.append({c, '\0'});
    entry.resize(64);
    entry += static_cast<char>(2 * name.size() + 2);
    entry.append({'\0', '\2'});
    entry.resize(128);
    file += entry;
  }
  return file;
}

TEST(ContentType, CompoundFilesAreToldByTheirFirstTellingStream) {
  EXPECT_EQ("application/msword",
            contentType(compound({"Root Entry", "WordDocument", "Workbook"})));
  EXPECT_EQ("application/vnd.ms-excel", contentType(compound({"Root Entry", "Workbook"})));
  EXPECT_EQ("application/vnd.ms-excel", contentType(compound({"Book"})));
  EXPECT_EQ("application/vnd.ms-powerpoint", contentType(compound({"PowerPoint Document"})));
  EXPECT_EQ("application/x-encrypted-office", contentType(compound({"EncryptedPackage"})));
  EXPECT_EQ("application/vnd.ms-outlook", contentType(compound({"__properties_version1.0"})));
  EXPECT_EQ("application/x-ole-storage", contentType(compound({"Root Entry"})));
}

TEST(ContentType, MailsAreToldByTheirHeader) {
  const std::string header = "Subject: Lunch\r\nFrom: a@example.org\r\nDate: today\r\n folded\r\n";
  EXPECT_EQ("message/rfc822", contentType(header + "\r\nbody"));
  EXPECT_EQ("message/rfc822", contentType("X-Own: 1\n" + header));
  EXPECT_EQ("application/mbox", contentType("From a@example.org Mon Jan 1\n" + header + "\nbody"));
  // As it arrives, or is made to arrive.
  const std::string mime = "MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=x\n";
  EXPECT_EQ("message/rfc822", contentType("\r\n" + header + "\r\nbody"));
  EXPECT_EQ("message/rfc822", contentType("\xef\xbb\xbf" + header + "\r\nbody"));
  EXPECT_EQ("message/rfc822", contentType("From : a\nTo : b\nSubject : c\n\nbody"));
  EXPECT_EQ("message/rfc822", contentType(" folded\n" + header + mime));
  EXPECT_EQ("message/rfc822", contentType("X-" + std::string(90, 'x') + ": y\n" + header));
  EXPECT_EQ("message/rfc822", contentType(header + "no field\n" + mime + "\nbody"));
  EXPECT_EQ("message/rfc822", contentType(mime + "\n--x"));
  EXPECT_EQ("text/plain", contentType(header + "no field\n\nbody"));
  EXPECT_EQ("text/plain", contentType("On mails\nContent-Transfer-Encoding: base64\n"));
  EXPECT_EQ("text/plain", contentType("From here to there\nit is far.\n"));
  EXPECT_EQ("text/plain", contentType("To: do\nthe shopping\n"));
  EXPECT_EQ("text/plain", contentType("note: this\nis: no mail\n"));
}

TEST(ContentType, MarkupIsToldByItsBeginning) {
  EXPECT_EQ("text/html", contentType("\n <!-- c --><HTML>"));
  EXPECT_EQ("text/html", contentType("\xef\xbb\xbf<!DOCTYPE html>\n<p>"));
  EXPECT_EQ("text/html", contentType("<?xml version='1.0'?><!DOCTYPE html PUBLIC 'x'><html>"));
  EXPECT_EQ("text/html", contentType("\xff\xfe<\0h\0t\0m\0l\0>\0"s));
  EXPECT_EQ("text/xml", contentType("<?xml version='1.0'?><a/>"));
  EXPECT_EQ("text/xml", contentType("\xff\xfe<\0?\0x\0m\0l\0 \0?\0>\0<\0a\0/\0>\0"s));
  EXPECT_EQ("image/svg+xml", contentType("<?xml version='1.0'?><svg xmlns='x'/>"));
  EXPECT_EQ("application/rtf", contentType("{\\rtf1 text}"));
  EXPECT_EQ("application/pdf", contentType("junk before\n%PDF-1.4\n"));
}

// Short data is stored as it is, and so are members of a tar.
TEST(ContentType, ArchivesAreNoPdfForOneInside) {
  const std::string pdf = "%PDF-1.4\n";
  EXPECT_EQ("application/x-tar", contentType(archives::tar({{"a.pdf", pdf}})));
  EXPECT_EQ("application/zstd", contentType(archives::compressed(pdf, ARCHIVE_FILTER_ZSTD)));
  EXPECT_EQ("application/x-rar", contentType("Rar!\x1a\7\1\0"s + pdf));
  EXPECT_EQ("application/pdf", contentType("\x89PNG\r\n\x1a\n" + pdf));
}

TEST(ContentType, TheRestIsToldByTheDatabase) {
  EXPECT_EQ("text/plain", contentType("just words\n"));
  EXPECT_EQ("application/gzip", contentType(archives::gzip("x")));
  EXPECT_EQ("application/x-bzip2", contentType(archives::compressed("x", ARCHIVE_FILTER_BZIP2)));
  EXPECT_EQ("application/x-xz", contentType(archives::compressed("x", ARCHIVE_FILTER_XZ)));
  EXPECT_EQ("application/zstd", contentType(archives::compressed("x", ARCHIVE_FILTER_ZSTD)));
  EXPECT_EQ("application/x-tar", contentType(archives::tar({{"a", "b"}})));
  EXPECT_EQ("application/octet-stream", contentType("\1\2\3\xff\xfe\0\7"s));
}

}  // namespace
