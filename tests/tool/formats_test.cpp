// The parsers of the formats, one by one, on small documents made by hand: what is text
// and what is not, in which order, what becomes a member, and what hostile ones do.
#include <archive.h>
#include <archive_entry.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "extract/formats/epub.h"
#include "extract/formats/html.h"
#include "extract/formats/mail.h"
#include "extract/formats/odf.h"
#include "extract/formats/old_office.h"
#include "extract/formats/ooxml.h"
#include "extract/formats/pdf.h"
#include "extract/formats/rtf.h"
#include "extract/formats/xml.h"
#include "text/canonical_text.h"

namespace {

using namespace tool;
using namespace std::string_literals;
using namespace std::string_view_literals;

// Keeps what a parser says.
class Recorded final : public Document {
 public:
  struct Member {
    std::string name;
    std::string content;
    std::string charset;
    Reason reason;
  };

  void text(std::string_view utf8) override { said += utf8; }
  void encodedText(std::string_view bytes, std::string_view declared) override {
    const auto decoded = decodeText(bytes, declared);
    said += decoded ? decoded->text : std::string(bytes);
  }
  void member(std::string_view name, std::string_view content,
              std::string_view charset_of_it) override {
    members.push_back(
        {std::string(name), std::string(content), std::string(charset_of_it), Reason::kNone});
  }
  void lostMember(std::string_view name, Reason why, const std::string&) override {
    members.push_back({std::string(name), "", "", why});
  }
  void expectMember(uint64_t, uint64_t) const override {}
  void countExpanded(uint64_t) override {}
  uint64_t memberRoom() const override { return limits_.member_bytes; }
  std::string_view baseName() const override { return "document"; }
  std::string_view charset() const override { return charset_; }
  const Limits& limits() const override { return limits_; }
  void checkTime() const override {}
  unsigned secondsLeft() const override { return 60; }

  Limits limits_;
  std::string charset_;
  std::string said;
  std::vector<Member> members;
  Reason reason = Reason::kNone;
};

Recorded parsed(Parser parser, const std::string& content, Recorded document = {}) {
  try {
    parser(content, document);
  } catch (const NotInspected& failure) {
    document.reason = failure.reason;
  }
  return document;
}

// Words and marks, parted by single blanks: how lines are broken is told by other tests.
std::string words(const std::string& text) {
  std::string words;
  for (const char c : text) {
    const bool is_blank = " \t\r\n\f"sv.find(c) != std::string_view::npos;
    if (!is_blank) {
      words += c;
    } else if (!words.empty() && words.back() != ' ') {
      words += ' ';
    }
  }
  if (!words.empty() && words.back() == ' ') words.pop_back();
  return words;
}

std::string repeated(const std::string& text, size_t times) {
  std::string all;
  for (size_t i = 0; i < times; ++i) all += text;
  return all;
}

using Files = std::vector<std::pair<std::string, std::string>>;

std::string zip(const Files& files) {
  std::string bytes(1 << 20, '\0');
  for (const auto& file : files) bytes.resize(bytes.size() + file.second.size() + 1024);
  size_t used = 0;
  archive* const writer = archive_write_new();
  archive_write_set_format_zip(writer);
  archive_write_open_memory(writer, bytes.data(), bytes.size(), &used);
  for (const auto& [name, content] : files) {
    archive_entry* const entry = archive_entry_new();
    archive_entry_set_pathname(entry, name.c_str());
    archive_entry_set_size(entry, static_cast<la_int64_t>(content.size()));
    archive_entry_set_filetype(entry, AE_IFREG);
    archive_entry_set_perm(entry, 0644);
    archive_write_header(writer, entry);
    archive_write_data(writer, content.data(), content.size());
    archive_entry_free(entry);
  }
  archive_write_free(writer);
  bytes.resize(used);
  return bytes;
}

// ---- HTML

TEST(HtmlFormat, BlocksPartLinesAndInlineElementsPartNothing) {
  EXPECT_EQ(
      "Head\nbold word\nand more\nlast\n",
      parsed(parseHtml, "<title>Head</title><p><b>bo</b><i>ld</i> word<br>and more<div>last").said);
}

TEST(HtmlFormat, WhatIsNotShownAsTextIsLeftOut) {
  EXPECT_EQ("a\nb\n", parsed(parseHtml,
                             "<p>a</p><script>x</script><style>x</style>"
                             "<template>x</template><!--x--><p>b")
                          .said);
}

TEST(HtmlFormat, AltAndTitleComeAfterTheTextThatTheyStandIn) {
  EXPECT_EQ("one two\npicture\nhint\n",
            parsed(parseHtml, "<p>one <img alt='picture'><span title='hint'>two</span></p>").said);
}

TEST(HtmlFormat, WhatMailProgramsShowCounts) {
  EXPECT_EQ("a\nb\n", parsed(parseHtml, "<p>a<noscript> b</noscript>").said);
  EXPECT_EQ("a\nb c\n", parsed(parseHtml, "<p>a<!--[if mso]><b>b</b> c<![endif]-->").said);
  EXPECT_EQ("a\nb\nc\n", parsed(parseHtml, "<p>a</p><input value=b><input placeholder=c>").said);
  EXPECT_EQ(
      "a\nb\nc\n",
      parsed(parseHtml, "<p>a</p><iframe srcdoc='<b>b</b><iframe srcdoc=c></iframe>'></iframe>")
          .said);
  std::string nested = "x";
  for (int i = 0; i < 6; ++i) nested = "<!--[if mso]>" + nested + "<![endif]--> <a>";
  EXPECT_EQ(Reason::kDepthLimit, parsed(parseHtml, nested).reason);
}

TEST(HtmlFormat, EntitiesAreDecoded) {
  EXPECT_EQ(
      "Grü\xc3\x9f"
      "e & <x> \xe2\x82\xac\n",
      parsed(parseHtml, "Gr&uuml;&#223;e &amp; &lt;x&gt; &#x20AC;").said);
}

TEST(HtmlFormat, TextAfterTheEndCounts) {
  EXPECT_EQ("a hidden", words(parsed(parseHtml, "<html><body>a</body></html><p>hidden").said));
}

TEST(HtmlFormat, CharsetIsTheOneOfMetaUnlessDeclaredOutside) {
  const std::string page = "<meta http-equiv=x content='text/html; charset=windows-1251'>\xcc";
  EXPECT_EQ("\u041c\n", parsed(parseHtml, page).said);
  Recorded mailed;
  mailed.charset_ = "windows-1252";
  EXPECT_EQ("\u00cc\n", parsed(parseHtml, page, mailed).said);
  EXPECT_EQ("\u041c\n", parsed(parseHtml, "<META CHARSET = \"windows-1251\">\xcc").said);
}

TEST(HtmlFormat, InXhtmlEveryElementMayCloseItself) {
  EXPECT_EQ("text\n", parsed(parseHtml,
                             "<?xml version='1.0'?><html><head><title/><script/></head>"
                             "<body><p>text</p></body></html>")
                          .said);
  EXPECT_EQ("not well-formed\n",
            parsed(parseHtml, "<?xml version='1.0'?><html><p>not <b>well-formed</html>").said);
}

TEST(HtmlFormat, DeepNestingIsReadWithoutRecursion) {
  const auto page = parsed(parseHtml, repeated("<x>", 300'000) + "deep");
  EXPECT_EQ(Reason::kNone, page.reason);
  EXPECT_EQ("deep\n", page.said);
}

TEST(HtmlFormat, NestingThatTakesTooLongIsGivenUp) {
  Recorded hurried;
  hurried.limits_.seconds = 1;
  const auto start = std::chrono::steady_clock::now();
  const auto page =
      parsed(parseHtml, repeated("<x>", 1'000'000) + repeated("<p>", 1'000'000), hurried);
  EXPECT_EQ(Reason::kTimeLimit, page.reason);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

// Each paragraph opens all of the fonts again.
TEST(HtmlFormat, APageThatGrowsOutOfProportionIsGivenUp) {
  std::string page = "<p>";
  for (int i = 0; i < 1000; ++i) page += "<font size=" + std::to_string(i) + ">";
  Recorded small;
  small.limits_.memory_bytes = 64 << 20;
  EXPECT_EQ(Reason::kMemoryLimit, parsed(parseHtml, page + repeated("<p>x", 10'000), small).reason);
}

// ---- XML

TEST(XmlFormat, CharacterDataIsTextAndElementsPartWords) {
  EXPECT_EQ("one two three & <four>", words(parsed(parseXml,
                                                   "<a>one<b x='attribute'>two</b>three &amp; "
                                                   "<![CDATA[<four>]]><!-- no --></a>")
                                                .said));
}

TEST(XmlFormat, DeclaredEncodingsAreReadAlsoWhenExpatDoesNotKnowThem) {
  EXPECT_EQ("\u041c", words(parsed(parseXml,
                                   "<?xml version='1.0' encoding='windows-1251'?>"
                                   "<a>\xcc</a>")
                                .said));
  EXPECT_EQ("\u00e9", words(parsed(parseXml,
                                   "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>"
                                   "<a>\xe9</a>")
                                .said));
  EXPECT_EQ("x", words(parsed(parseXml, "\xff\xfe<\0a\0>\0x\0<\0/\0a\0>\0"s).said));
}

TEST(XmlFormat, ExternalEntitiesAreNotLoaded) {
  const auto document = parsed(parseXml,
                               "<!DOCTYPE a [<!ENTITY e SYSTEM 'file:///etc/passwd'>]>"
                               "<a>before &e; after</a>");
  EXPECT_EQ("before after", words(document.said));
}

TEST(XmlFormat, EntitiesThatExpandBeyondTheRatioAreStopped) {
  std::string bomb = "<!DOCTYPE a [<!ENTITY e0 'laughter '>";
  for (int i = 1; i < 12; ++i) {
    const std::string inner = "&e" + std::to_string(i - 1) + ";";
    bomb += "<!ENTITY e" + std::to_string(i) + " '" + repeated(inner, 10) + "'>";
  }
  const auto document = parsed(parseXml, bomb + "]><a>&e11;</a>");
  EXPECT_EQ(Reason::kRatioLimit, document.reason);
  EXPECT_LT(document.said.size(), 2u << 20);
}

TEST(XmlFormat, EntitiesInsideEachOtherAreStopped) {
  std::string chain = "<!DOCTYPE a [<!ENTITY e0 'x'>";
  for (int i = 1; i < 100'000; ++i) {
    chain += "<!ENTITY e" + std::to_string(i) + " '&e" + std::to_string(i - 1) + ";'>";
  }
  EXPECT_EQ(Reason::kDepthLimit, parsed(parseXml, chain + "]><a>&e99999;</a>").reason);
}

TEST(XmlFormat, WhatStandsBeforeTheDamageCounts) {
  const auto document = parsed(parseXml, "<a>one<b>two</a>");
  EXPECT_EQ(Reason::kDamaged, document.reason);
  EXPECT_EQ("one two", words(document.said));
}

TEST(XmlFormat, DeepNestingIsReadWithoutRecursion) {
  const std::string deep = repeated("<a>", 200'000) + "deep" + repeated("</a>", 200'000);
  EXPECT_EQ("deep", words(parsed(parseXml, deep).said));
}

TEST(XmlFormat, AWebPageInXmlIsReadAsOne) {
  EXPECT_EQ("bold word\n", parsed(parseXml,
                                  "<html><head><title/><script>x</script></head>"
                                  "<body><p><b>bo</b>ld word</p></body></html>")
                               .said);
  EXPECT_EQ("caf\u00e9\n", parsed(parseXml,
                                  "<!DOCTYPE html PUBLIC 'x' 'y'>"
                                  "<html><p>caf&eacute;</p></html>")
                               .said);
}

// ---- E-mail

const char kMultipart[] = "MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=b\n\n";

TEST(MailFormat, SubjectAndBodyAreTextAddressesAreNot) {
  const auto mail = parsed(parseMail,
                           "From: Alice <a@example.com>\nTo: b@example.com\n"
                           "Date: Mon, 1 Jan 2024 00:00:00 +0000\n"
                           "Subject: =?utf-8?Q?Gr=C3=BC=C3=9Fe?=\n\nThe body.\n");
  EXPECT_EQ("Gr\u00fc\u00dfe The body.", words(mail.said));
  EXPECT_TRUE(mail.members.empty());
}

TEST(MailFormat, TransferEncodingsAndCharsetsAreUndone) {
  const std::string header = "Subject: s\nMIME-Version: 1.0\nContent-Type: text/plain; charset=";
  EXPECT_EQ(
      "s caf\u00e9",
      words(parsed(parseMail, header + "iso-8859-1\n"
                                       "Content-Transfer-Encoding: quoted-printable\n\ncaf=E9\n")
                .said));
  EXPECT_EQ("s \u041c",
            words(parsed(parseMail, header + "koi8-r\n"
                                             "Content-Transfer-Encoding: base64\n\n7Q==\n")
                      .said));
  EXPECT_EQ("s Cat", words(parsed(parseMail, header + "us-ascii\n"
                                                      "Content-Transfer-Encoding: x-uuencode\n\n"
                                                      "begin 644 f\n#0V%T\n`\nend\n")
                               .said));
}

std::string alternatives(const std::string& plain, const std::string& html) {
  return "Subject: s\nMIME-Version: 1.0\nContent-Type: multipart/alternative; boundary=b\n\n"
         "--b\nContent-Type: text/plain\n\n" +
         plain + "\n--b\nContent-Type: text/html\n\n" + html + "\n--b--\n";
}

TEST(MailFormat, GroupsOfAddressesInsideEachOtherAreHarmless) {
  const std::string groups =
      repeated("a:", 60) + "\n" + repeated("\t" + repeated("a:", 60) + "\n", 2000);
  const auto mail = parsed(parseMail, "Subject: s:" + repeated("a:", 2000) + "\nFrom: " + groups +
                                          "reply-to : " + groups + "\nbody\n");
  EXPECT_EQ("s:" + repeated("a:", 2000) + " body", words(mail.said));
  const auto inner =
      parsed(parseMail, "Subject: s\nContent-Type: message/rfc822\n\nSubject: t\nCC:" + groups +
                            "\nTo: b: c;\nbody\n");
  ASSERT_EQ(1u, inner.members.size());
  EXPECT_EQ(0u, inner.members[0].content.find("Subject: t\nCC:a"));
}

TEST(MailFormat, AlternativesThatSayTheSameAreOne) {
  EXPECT_EQ("s Same words, here.",
            words(parsed(parseMail, alternatives("Same words, here.",
                                                 "<p>Same <b>words</b> &mdash; here!</p>"))
                      .said));
}

TEST(MailFormat, AnAlternativeHidesNothing) {
  EXPECT_EQ("s Harmless. Secret.",
            words(parsed(parseMail, alternatives("Harmless.", "<p>Secret.</p>")).said));
}

TEST(MailFormat, TextAroundThePartsHidesNothing) {
  EXPECT_EQ("before within after",
            words(parsed(parseMail, kMultipart + "before\n--b\n\nwithin\n--b--\nafter\n"s).said));
}

TEST(MailFormat, AnOddHeaderHidesNothing) {
  const std::string fields = "Subject: s\nMIME-Version : 1.0\nContent-Transfer-Encoding: base64\n";
  const std::string body = "\nc2VjcmV0\n";
  EXPECT_EQ("s secret", words(parsed(parseMail, fields + body).said));
  EXPECT_EQ("s secret", words(parsed(parseMail, "\n" + fields + body).said));
  EXPECT_EQ("s secret", words(parsed(parseMail, "\xef\xbb\xbf" + fields + body).said));
  EXPECT_EQ("no field folded s secret",
            words(parsed(parseMail, "From: a\nno field\n folded\n" + fields + body).said));
}

TEST(MailFormat, AttachmentsAreMembersWithTheirNames) {
  const auto mail = parsed(
      parseMail, kMultipart +
                     "--b\nContent-Type: text/plain; charset=koi8-r; name=a.txt\n\nplain\n"
                     "--b\nContent-Type: application/x-any\nContent-Disposition: attachment;\n"
                     " filename*=utf-8''%C3%BCber.bin\nContent-Transfer-Encoding: base64\n\nAAEC\n"
                     "--b\nContent-Type: application/x-any; name=\"=?iso-8859-1?Q?=FCber?=\"\n\nx\n"
                     "--b\nContent-Disposition: attachment\n\nnameless\n--b--\n"s);
  ASSERT_EQ(4u, mail.members.size());
  EXPECT_EQ("a.txt", mail.members[0].name);
  EXPECT_EQ("koi8-r", mail.members[0].charset);
  EXPECT_EQ("\u00fcber.bin", mail.members[1].name);
  EXPECT_EQ("\0\1\2"s, mail.members[1].content);
  EXPECT_EQ("\u00fcber", mail.members[2].name);
  EXPECT_EQ("4", mail.members[3].name);
  EXPECT_EQ("nameless", mail.members[3].content);
  EXPECT_EQ("", words(mail.said));
}

TEST(MailFormat, AnInnerMessageIsAMember) {
  const auto mail = parsed(parseMail, kMultipart +
                                          "--b\nContent-Type: message/rfc822\n\n"
                                          "Subject: inner\n\nInner text.\n--b--\n"s);
  ASSERT_EQ(1u, mail.members.size());
  EXPECT_EQ("1", mail.members[0].name);
  EXPECT_EQ("inner Inner text.", words(parsed(parseMail, mail.members[0].content).said));
  EXPECT_EQ("", words(mail.said));
}

TEST(MailFormat, AnInnerMessageInBase64IsOpened) {
  const auto mail = parsed(parseMail, kMultipart +
                                          "--b\nContent-Type: message/rfc822\n"
                                          "Content-Transfer-Encoding: base64\n\n"
                                          "U3ViamVjdDogaW5uZXIKCklubmVyIHRleHQuCg==\n--b--\n"s);
  ASSERT_EQ(1u, mail.members.size());
  EXPECT_EQ("inner Inner text.", words(parsed(parseMail, mail.members[0].content).said));
}

TEST(MailFormat, ASignedMessageIsOpened) {
  const auto mail = parsed(parseMail,
                           "Content-Type: multipart/signed; boundary=b; micalg=pgp-sha1;\n"
                           " protocol=\"application/pgp-signature\"\n\n"
                           "--b\nContent-Type: text/plain\n\nSigned text.\n"
                           "--b\nContent-Type: application/pgp-signature\n\nABC\n--b--\n");
  EXPECT_EQ("Signed text.", words(mail.said));
  ASSERT_EQ(1u, mail.members.size());  // the signature may be anything, too
  EXPECT_EQ("ABC", words(mail.members[0].content));
}

// A message of one part inside of a signature, as it comes from openssl cms -sign -noattr,
// here without any signer.
TEST(MailFormat, AMessageInsideOfItsSignatureIsOpened) {
  const std::string part = "Content-Type: text/plain\r\n\r\nSigned text.\r\n";
  const auto element = [](unsigned char tag, const std::string& value) {
    return std::string(1, static_cast<char>(tag)) + static_cast<char>(value.size()) + value;
  };
  const std::string data_type = "\x06\x09\x2a\x86\x48\x86\xf7\x0d\x01\x07\x01"s;
  const std::string signed_type = "\x06\x09\x2a\x86\x48\x86\xf7\x0d\x01\x07\x02"s;
  const std::string signed_data = element(
      0x30, "\x02\x01\x01"s + element(0x31, "") +
                element(0x30, data_type + element(0xa0, element(0x04, part))) + element(0x31, ""));
  const std::string header = "Subject: s\nContent-Type: application/pkcs7-mime\n\n";
  EXPECT_EQ(
      "s Signed text.",
      words(parsed(parseMail, header + element(0x30, signed_type + element(0xa0, signed_data)))
                .said));
  const auto damaged = parsed(parseMail, header + "no such thing");
  ASSERT_EQ(1u, damaged.members.size());
  EXPECT_EQ(Reason::kDamaged, damaged.members[0].reason);
}

TEST(MailFormat, EncryptedMessagesAreLost) {
  const auto whole = parsed(parseMail,
                            "Subject: s\n"
                            "Content-Type: multipart/encrypted; boundary=b;\n"
                            " protocol=\"application/pgp-encrypted\"\n\n"
                            "--b\nContent-Type: application/pgp-encrypted\n\nVersion: 1\n"
                            "--b\nContent-Type: application/octet-stream\n\nX\n--b--\n");
  ASSERT_EQ(1u, whole.members.size());
  EXPECT_EQ(Reason::kEncrypted, whole.members[0].reason);
  EXPECT_EQ("s", words(whole.said));

  const auto inline_text =
      parsed(parseMail, "Subject: s\n\n-----BEGIN PGP MESSAGE-----\n\nhQEMA\n");
  ASSERT_EQ(1u, inline_text.members.size());
  EXPECT_EQ(Reason::kEncrypted, inline_text.members[0].reason);
}

TEST(MailFormat, APieceOfADividedMessageIsLost) {
  const auto mail = parsed(parseMail,
                           "Subject: s\nContent-Type: message/partial; id=x; number=1;"
                           " total=2\n\nSubject: inner\n\nText\n");
  ASSERT_EQ(1u, mail.members.size());
  EXPECT_EQ(Reason::kUnsupported, mail.members[0].reason);
}

TEST(MailFormat, UuencodedFilesInTheTextAreMembers) {
  const auto mail = parsed(parseMail,
                           "Subject: s\n\nSee:\nbegin 644 cat.txt\n#0V%T\n`\nend\nBye.\n"
                           "begin 600 open.txt\n#0V%T\n");
  ASSERT_EQ(1u, mail.members.size());
  EXPECT_EQ("cat.txt", mail.members[0].name);
  EXPECT_EQ("Cat", mail.members[0].content);
  EXPECT_NE(std::string::npos, mail.said.find("Bye."));
}

TEST(MailFormat, PartsInsideEachOtherEndAtTheDepthLimit) {
  std::string mail = "Subject: s\nContent-Type: multipart/mixed; boundary=b0\n\n";
  for (int i = 0; i < 3000; ++i) {
    mail += "--b" + std::to_string(i) + "\nContent-Type: multipart/mixed; boundary=b" +
            std::to_string(i + 1) + "\n\n";
  }
  const auto deep = parsed(parseMail, mail);
  EXPECT_EQ(Reason::kDepthLimit, deep.reason);
  EXPECT_EQ("s", words(deep.said));
}

TEST(MboxFormat, MessagesAreMembersByTheirNumber) {
  const auto mailbox = parsed(parseMbox,
                              "From a@example.com Mon Jan  1 00:00:00 2024\n"
                              "Subject: one\n\nFirst.\nFrom here on.\n\n"
                              "From b@example.com Mon Jan  1 00:00:00 2024\r\n"
                              "Subject: two\r\n\r\nSecond.\r\n\r\n"
                              "From c\n");
  ASSERT_EQ(3u, mailbox.members.size());
  EXPECT_EQ("1", mailbox.members[0].name);
  EXPECT_EQ("Subject: one\n\nFirst.\nFrom here on.\n\n", mailbox.members[0].content);
  EXPECT_EQ("2", mailbox.members[1].name);
  EXPECT_EQ("Subject: two\r\n\r\nSecond.\r\n\r\n", mailbox.members[1].content);
  EXPECT_EQ("", mailbox.members[2].content);
}

// ---- DOCX, XLSX, PPTX

std::string relationships(const Files& targets) {
  std::string xml = "<Relationships>";
  int id = 0;
  for (const auto& [type, target] : targets) {
    xml += "<Relationship Id='rId" + std::to_string(++id) + "' Type='http://x/" + type +
           "' Target='" + target + "'/>";
  }
  return xml + "</Relationships>";
}

Files package(const std::string& main) {
  return {{"[Content_Types].xml", "<Types/>"},
          {"_rels/.rels", relationships({{"officeDocument", main}})}};
}

std::string docx(const std::string& body, const Files& others = {}) {
  Files files = package("word/document.xml");
  files.insert(files.end(), others.begin(), others.end());
  files.emplace_back("word/document.xml", "<w:document><w:body>" + body + "</w:body></w:document>");
  return zip(files);
}

std::string run(const std::string& text) { return "<w:r><w:t>" + text + "</w:t></w:r>"; }

TEST(DocxFormat, RunsJoinAndParagraphsTabsAndBreaksPart) {
  EXPECT_EQ(
      "one word\tthen\nnext\nlast-one\n",
      parsed(parseOoxml,
             docx("<w:p><w:pPr><w:tabs><w:tab/></w:tabs></w:pPr>" + run("one wo") + run("rd") +
                  "<w:r><w:tab/><w:t>then</w:t><w:br/><w:t>next</w:t></w:r></w:p><w:p>" +
                  run("last") + "<w:r><w:noBreakHyphen/></w:r>" + run("one") + "</w:p>"))
          .said);
}

TEST(DocxFormat, NotesHeadersAndCommentsComeAfterTheText) {
  const auto part = [](const std::string& root, const std::string& text) {
    return "<w:" + root + "><w:p>" + run(text) + "</w:p></w:" + root + ">";
  };
  const auto document = parsed(parseOoxml, docx("<w:p>" + run("body") + "</w:p>",
                                                {{"word/header1.xml", part("hdr", "header")},
                                                 {"word/footer1.xml", part("ftr", "footer")},
                                                 {"word/footnotes.xml", part("footnotes", "foot")},
                                                 {"word/endnotes.xml", part("endnotes", "end")},
                                                 {"word/comments.xml", part("comments", "comment")},
                                                 {"word/styles.xml", part("styles", "style")}}));
  EXPECT_EQ("body header footer foot end comment", words(document.said));
  EXPECT_TRUE(document.members.empty());
}

TEST(DocxFormat, DeletionsAndTextBoxesDoNotPartTheTextAndAreNotLost) {
  EXPECT_EQ(
      "one two gone moved box",
      words(
          parsed(
              parseOoxml,
              docx("<w:p>" + run("one ") + "<w:del><w:r><w:delText>gone</w:delText></w:r></w:del>" +
                   "<w:moveFrom>" + run("moved") + "</w:moveFrom><w:ins>" + run("two") +
                   "</w:ins><mc:AlternateContent><mc:Choice><w:txbxContent><w:p>" + run("box") +
                   "</w:p></w:txbxContent></mc:Choice><mc:Fallback><w:txbxContent><w:p>" +
                   run("box") + "</w:p></w:txbxContent></mc:Fallback></mc:AlternateContent>" +
                   "</w:p>"))
              .said));
}

TEST(DocxFormat, EmbeddedObjectsAreMembersPicturesAreNot) {
  const auto document =
      parsed(parseOoxml, docx("<w:p/>", {{"word/embeddings/sheet.xlsx", "sheet"},
                                         {"word/embeddings/oleObject1.bin", "object"},
                                         {"word/media/image1.png", "picture"},
                                         {"word/vbaProject.bin", "macros"},
                                         {"secret.txt", "smuggled"}}));
  ASSERT_EQ(3u, document.members.size());
  EXPECT_EQ("word/embeddings/sheet.xlsx", document.members[0].name);
  EXPECT_EQ("object", document.members[1].content);
  EXPECT_EQ("smuggled", document.members[2].content);
}

TEST(DocxFormat, ANameHidesNothing) {
  const std::string secret = repeated("secret words ", 20);
  const Recorded document = parsed(
      parseOoxml, zip({{"_rels/.rels", relationships({{"officeDocument", "word/document.xml"}})},
                       {"word/document.xml", "<document><t>x</t></document>"},
                       {"word/media/a.png", secret},
                       {"b.bin", "PK" + secret},
                       {"c.rels", secret},
                       {"d.png", "\x89PNG\r\n\x1a\n" + std::string(99, '\0') + "\xff\xfe\xfd"},
                       {"e.rels", "<" + secret + ">"}}));
  ASSERT_EQ(3u, document.members.size());
  EXPECT_EQ("word/media/a.png", document.members[0].name);
  EXPECT_EQ(secret, document.members[0].content);
  EXPECT_EQ("b.bin", document.members[1].name);
  EXPECT_EQ("c.rels", document.members[2].name);
}

TEST(DocxFormat, ADamagedPartCostsOnlyItself) {
  const auto document = parsed(
      parseOoxml,
      docx("<w:p>" + run("body") + "</w:p>", {{"word/header1.xml", "<w:hdr><w:p>" + run("head")}}));
  EXPECT_EQ(Reason::kDamaged, document.reason);
  EXPECT_EQ("body head", words(document.said));
}

TEST(DocxFormat, RelationshipsNeitherHideNorLeadInCircles) {
  const std::string part = "<w:document><w:p>" + run("found") + "</w:p></w:document>";
  EXPECT_EQ("found", words(parsed(parseOoxml, zip({{"any/name.xml", part}})).said));
  EXPECT_EQ(
      "found",
      words(parsed(parseOoxml,
                   zip({{"_rels/.rels", relationships({{"officeDocument", "/a/../../b.xml"}})},
                        {"_rels/b.xml.rels", relationships({{"officeDocument", "b.xml"},
                                                            {"sharedStrings", "b.xml.rels"}})},
                        {"b.xml", part}}))
                .said));
}

TEST(DocxFormat, NothingKnownInsideIsToldApartFromNothingInside) {
  EXPECT_EQ(Reason::kUnsupported, parsed(parseOoxml, zip({{"xl/workbook.bin", "x"}})).reason);
}

std::string xlsx(const std::string& strings, const std::string& rows, const Files& others = {}) {
  Files files = package("xl/workbook.xml");
  files.emplace_back("xl/workbook.xml",
                     "<workbook><sheets><sheet name='Second' sheetId='1' r:id='rId2'/>"
                     "<sheet name='Prices' sheetId='2' r:id='rId1'/></sheets></workbook>");
  files.emplace_back("xl/_rels/workbook.xml.rels",
                     relationships({{"worksheet", "worksheets/sheet1.xml"},
                                    {"worksheet", "worksheets/sheet2.xml"},
                                    {"sharedStrings", "sharedStrings.xml"}}));
  files.emplace_back("xl/worksheets/sheet1.xml",
                     "<worksheet><sheetData>" + rows + "</sheetData></worksheet>");
  files.emplace_back("xl/worksheets/sheet2.xml", "<worksheet/>");
  files.emplace_back("xl/sharedStrings.xml", "<sst>" + strings + "</sst>");
  files.insert(files.end(), others.begin(), others.end());
  return zip(files);
}

TEST(XlsxFormat, CellsAreReadInTheOrderOfSheetsAndRows) {
  EXPECT_EQ(
      "Second\nPrices\nApple\t1.5\t0.1\tTRUE\t\nPear tree\tsum\t\n",
      parsed(parseOoxml, xlsx("<si><r><t>Pear </t></r><r><t>tree</t></r></si><si><t>Apple</t></si>",
                              "<row><c t='s'><v>1</v></c><c><v>1.5</v></c>"
                              "<c><v>0.10000000000000001</v></c><c t='b'><v>1</v></c></row>"
                              "<row><c t='s'><v>0</v></c><c t='str'><f>A1</f><v>sum</v></c></row>"))
          .said);
}

TEST(XlsxFormat, InlineStringsAndCommentsCount) {
  EXPECT_EQ("Second Prices inline note",
            words(parsed(parseOoxml,
                         xlsx("",
                              "<row><c t='inlineStr'><is><r><t>in</t></r><r><t>line</t></r></is>"
                              "</c><c t='s'><v>7</v></c></row>",
                              {{"xl/comments1.xml",
                                "<comments><comment><text><t>note</t></text>"
                                "</comment></comments>"}}))
                      .said));
}

TEST(XlsxFormat, CopiesOfCellsThatAreGoneCount) {
  EXPECT_EQ(
      "Second Prices deleted 7 elsewhere",
      words(
          parsed(parseOoxml,
                 xlsx("", "<row/>",
                      {{"xl/pivotCache/pivotCacheRecords1.xml",
                        "<pivotCacheRecords><r><s v='deleted'/><n v='7'/></r></pivotCacheRecords>"},
                       {"xl/externalLinks/externalLink1.xml",
                        "<externalLink><cell><v>elsewhere</v></cell></externalLink>"}}))
              .said));
}

TEST(XlsxFormat, HeadersAreReadWithoutTheirCodes) {
  EXPECT_EQ("Second Prices Draft of 3 x",
            words(parsed(parseOoxml, xlsx("",
                                          "<row/><oddHeader>&amp;C&amp;\"Arial,Bold\"&amp;12Draft "
                                          "&amp;KFF0000of 3 &amp;Px&amp;\"</oddHeader>"))
                      .said));
}

TEST(XlsxFormat, AStringInTooManyCellsIsStopped) {
  const auto bomb = parsed(parseOoxml, xlsx("<si><t>" + repeated("x", 100'000) + "</t></si>",
                                            repeated("<c t='s'><v>0</v></c>", 10'000)));
  EXPECT_EQ(Reason::kSizeLimit, bomb.reason);
  EXPECT_LE(bomb.said.size(), Limits().member_bytes);
}

TEST(PptxFormat, SlidesComeInTheirOrderThenNotes) {
  const auto slide = [](const std::string& root, const std::string& text) {
    return "<p:" + root + "><p:sp><a:p><a:r><a:t>" + text +
           "</a:t></a:r><a:fld type='slidenum'>"
           "<a:t>7</a:t></a:fld></a:p></p:sp></p:" +
           root + ">";
  };
  Files files = package("ppt/presentation.xml");
  files.emplace_back("ppt/slides/slide1.xml", slide("sld", "second"));
  files.emplace_back("ppt/slides/slide2.xml", slide("sld", "first"));
  files.emplace_back("ppt/notesSlides/notesSlide1.xml", slide("notes", "note"));
  files.emplace_back(
      "ppt/slideMasters/slideMaster1.xml",
      "<p:sldMaster><p:sp><p:nvPr><p:ph/></p:nvPr><a:p><a:t>Click to edit</a:t></a:p>"
      "</p:sp><p:sp><p:nvPr/><a:p><a:t>Confidential</a:t></a:p></p:sp></p:sldMaster>");
  files.emplace_back("ppt/presentation.xml",
                     "<p:presentation><p:sldIdLst><p:sldId id='256' r:id='rId2'/>"
                     "<p:sldId id='257' r:id='rId1'/></p:sldIdLst></p:presentation>");
  files.emplace_back(
      "ppt/_rels/presentation.xml.rels",
      relationships({{"slide", "slides/slide1.xml"}, {"slide", "slides/slide2.xml"}}));
  EXPECT_EQ("first second note Confidential", words(parsed(parseOoxml, zip(files)).said));
}

// ---- ODT, ODS, ODP

std::string odt(const std::string& body, const Files& others = {}) {
  Files files = {{"mimetype", "application/vnd.oasis.opendocument.text"},
                 {"content.xml", "<office:document-content><office:body><office:text>" + body +
                                     "</office:text></office:body></office:document-content>"}};
  files.insert(files.end(), others.begin(), others.end());
  return zip(files);
}

TEST(OdfFormat, ParagraphsHeadingsBlanksAndTabs) {
  EXPECT_EQ("Head\none   word\tthen\nnext\n",
            parsed(parseOdf, odt("<text:h>Head</text:h> <text:p>one<text:s text:c='3'/>wo"
                                 "<text:span>rd</text:span><text:tab/>then<text:line-break/>next"
                                 "</text:p>"))
                .said);
}

TEST(OdfFormat, NotesCommentsFramesAndDeletionsDoNotPartTheText) {
  EXPECT_EQ("one word gone note comment box more",
            words(parsed(parseOdf,
                         odt("<text:tracked-changes><text:deletion><text:p>gone</text:p>"
                             "</text:deletion></text:tracked-changes><text:p>one wo"
                             "<text:note><text:note-citation>1</text:note-citation>"
                             "<text:note-body><text:p>note</text:p></text:note-body></text:note>"
                             "<office:annotation><dc:creator>Alice</dc:creator>"
                             "<text:p>comment</text:p></office:annotation>"
                             "<draw:frame><draw:text-box><text:p>box</text:p><text:p>more</text:p>"
                             "</draw:text-box></draw:frame>rd</text:p>"))
                      .said));
}

TEST(OdfFormat, HeadersAndFootersCountPageNumbersDoNot) {
  EXPECT_EQ(
      "body header page",
      words(parsed(parseOdf, odt("<text:p>body</text:p>",
                                 {{"styles.xml",
                                   "<s><number:text>no</number:text><style:header><text:p>header"
                                   "</text:p></style:header><style:footer><text:p>page "
                                   "<text:page-number>3</text:page-number></text:p>"
                                   "</style:footer></s>"}}))
                .said));
}

TEST(OdfFormat, BlanksAreNotBelievedWithoutEnd) {
  EXPECT_LT(parsed(parseOdf, odt("<text:p><text:s text:c='4000000000'/></text:p>")).said.size(),
            1000u);
}

TEST(OdfFormat, EmbeddedDocumentsAreTextOtherObjectsMembers) {
  const auto document = parsed(
      parseOdf,
      odt("<text:p>body</text:p>", {{"Object 1/content.xml", "<a><text:p>chart</text:p></a>"},
                                    {"Object 2", "object"},
                                    {"Pictures/1.png", "picture"},
                                    {"settings.xml", "<a><text:p>no</text:p></a>"}}));
  EXPECT_EQ("body chart", words(document.said));
  ASSERT_EQ(1u, document.members.size());
  EXPECT_EQ("Object 2", document.members[0].name);
}

TEST(OdfFormat, ANameHidesNothing) {
  const std::string secret = repeated("secret words ", 20);
  const Recorded document = parsed(parseOdf, zip({{"mimetype", "x"},
                                                  {"content.xml", "<p>x</p>"},
                                                  {"Pictures/a.png", secret},
                                                  {"b.xml", secret},
                                                  {"c.xml", "<" + secret + "/>"}}));
  ASSERT_EQ(2u, document.members.size());
  EXPECT_EQ("Pictures/a.png", document.members[0].name);
  EXPECT_EQ("b.xml", document.members[1].name);
}

TEST(OdfFormat, APasswordIsTold) {
  EXPECT_EQ(Reason::kEncrypted,
            parsed(parseOdf, odt("", {{"META-INF/manifest.xml",
                                       "<m:manifest><m:file-entry m:full-path='content.xml'>"
                                       "<m:encryption-data/></m:file-entry></m:manifest>"}}))
                .reason);
}

TEST(OdfFormat, WithoutContentItIsDamaged) {
  EXPECT_EQ(Reason::kDamaged, parsed(parseOdf, zip({{"mimetype", "x"}})).reason);
}

// ---- EPUB

Files book(const std::string& spine) {
  return {{"META-INF/container.xml",
           "<container><rootfiles><rootfile full-path='a/book.opf'/></rootfiles></container>"},
          {"a/book.opf",
           "<package><metadata><dc:title>The Title</dc:title></metadata><manifest>"
           "<item id='p1' href='p/1.xhtml' media-type='application/xhtml+xml'/>"
           "<item id='p2' href='p%202.dat#x' media-type='application/xhtml+xml'/></manifest>"
           "<spine>" +
               spine + "</spine></package>"},
          {"a/p/1.xhtml", "<html><head><title/></head><body><p>sec<i>ond</i></p></body></html>"},
          {"a/p 2.dat", "<html><body><p>first</p></body></html>"},
          {"a/3.html", "<html><p>unlisted<br>&nbsp;</html>"}};
}

TEST(EpubFormat, PagesComeInTheOrderOfTheSpineThenTheOthers) {
  EXPECT_EQ(
      "The Title second first unlisted",
      words(canonicalText(parsed(parseEpub, zip(book("<itemref idref='p1'/><itemref idref='p2'/>"
                                                     "<itemref idref='p2'/><itemref idref='no'/>")))
                              .said)));
}

TEST(EpubFormat, AnEncryptedPageIsLost) {
  Files files = book("<itemref idref='p1'/><itemref idref='p2'/>");
  files.emplace_back("META-INF/encryption.xml",
                     "<encryption><e:EncryptedData><e:CipherData><e:CipherReference "
                     "URI='a/p/1.xhtml'/></e:CipherData></e:EncryptedData></encryption>");
  const auto document = parsed(parseEpub, zip(files));
  ASSERT_EQ(1u, document.members.size());
  EXPECT_EQ(Reason::kEncrypted, document.members[0].reason);
  EXPECT_EQ("The Title first unlisted", words(canonicalText(document.said)));
}

TEST(EpubFormat, WhatBelongsIntoNoBookIsAMember) {
  const std::string secret = repeated("secret words ", 20);
  const Recorded document = parsed(parseEpub, zip({{"mimetype", "application/epub+zip"},
                                                   {"a.html", "<p>x"},
                                                   {"b.txt", secret},
                                                   {"c.css", "p { " + secret + "}"},
                                                   {"d.docx", "PK" + secret}}));
  ASSERT_EQ(2u, document.members.size());
  EXPECT_EQ("b.txt", document.members[0].name);
  EXPECT_EQ("d.docx", document.members[1].name);
}

TEST(EpubFormat, WithoutPagesItIsDamaged) {
  EXPECT_EQ(Reason::kDamaged, parsed(parseEpub, zip({{"mimetype", "x"}})).reason);
}

// ---- RTF

TEST(RtfFormat, TextIsDecodedInTheCodePageOfItsFont) {
  EXPECT_EQ("\u00e9 \u041f\u0440 \u30a2 \u00fc",
            words(parsed(parseRtf,
                         "{\\rtf1\\ansi\\ansicpg1252\\deff0{\\fonttbl{\\f0 A;}"
                         "{\\f1\\fcharset204 B;}{\\f2\\fcharset128 C;}}"
                         "\\f0\\'e9 {\\f1\\'cf\\'f0} {\\f2\\'83A} \\'fc}")
                      .said));
}

TEST(RtfFormat, UnicodeEscapesSkipTheirReplacement) {
  EXPECT_EQ("\u041fx\u2014\U0001f600y\u4f60z\n",
            parsed(parseRtf,
                   "{\\rtf1\\uc1\\u1055?x\\u8212\\'97{\\uc2\\u-10179 ??\\u-8704 ??}y"
                   "{\\uc0\\u20320}z\\par}")
                .said);
}

TEST(RtfFormat, ParagraphsTabsAndSymbols) {
  EXPECT_EQ("a b\tc\n\u201cd\u201d\u2014{e}\\-\n",
            parsed(parseRtf,
                   "{\\rtf1 a\n b\\tab c\\par\r\n\\ldblquote d\\rdblquote\\emdash\\{e\\}"
                   "\\\\\\-\\_}")
                .said);
}

TEST(RtfFormat, WordsSplitByGroupsAndFormatsJoin) {
  EXPECT_EQ("one word\n", parsed(parseRtf, "{\\rtf1 one {\\b wo}\\f1\\fs20 rd\\par}").said);
}

TEST(RtfFormat, NotesAndTextBoxesComeAfterTheText) {
  EXPECT_EQ("one word note other box head gone",
            words(parsed(parseRtf,
                         "{\\rtf1 one wo{\\footnote note}{\\*\\footnote other}{\\shp{\\*\\shpinst"
                         "{\\sp{\\sn x}{\\sv y}}{\\shptxt box}}}{\\header head}{\\deleted gone}rd}")
                      .said));
}

TEST(RtfFormat, WhatIsNoTextIsLeftOut) {
  EXPECT_EQ("text\n", parsed(parseRtf,
                             "{\\rtf1{\\stylesheet s;}{\\info{\\author x}}{\\*\\unknown x}"
                             "{\\pict\\bin5 }}}}}}{\\listtext 1.}{\\field{\\*\\fldinst x}"
                             "{\\fldrslt text}}\\par}")
                          .said);
}

TEST(RtfFormat, UnicodeReplacesItsAnsiTwin) {
  EXPECT_EQ("\u041f\n", parsed(parseRtf, "{\\rtf1{\\upr{?}{\\*\\ud{\\u1055 ?}}}\\par}").said);
}

TEST(RtfFormat, EmbeddedObjectsAreMembers) {
  const auto document = parsed(parseRtf,
                               "{\\rtf1{\\object{\\*\\objclass X}{\\*\\objdata "
                               "01050000020000000200000041000000000000000000\r\n"
                               "0300000043617400}{\\result shown}}}");
  ASSERT_EQ(1u, document.members.size());
  EXPECT_EQ("Cat", document.members[0].content);
  EXPECT_EQ("shown\n", document.said);
  const auto damaged = parsed(parseRtf, "{\\rtf1{\\object{\\*\\objdata 0105}}}");
  ASSERT_EQ(1u, damaged.members.size());
  EXPECT_EQ(Reason::kDamaged, damaged.members[0].reason);
}

TEST(RtfFormat, GroupsInsideEachOtherAndEarlyEnds) {
  EXPECT_EQ(Reason::kDepthLimit, parsed(parseRtf, "{\\rtf1 " + repeated("{", 20'000)).reason);
  const auto cut = parsed(parseRtf, "{\\rtf1 one {\\b two");
  EXPECT_EQ(Reason::kDamaged, cut.reason);
  EXPECT_EQ("one two\n", cut.said);
  EXPECT_EQ("a\n", parsed(parseRtf, "{\\rtf1 a}}}}").said);
  EXPECT_EQ("", parsed(parseRtf, "{\\rtf1\\bin99999999999 x").said);
}

// ---- Compound files

void put(std::string* bytes, size_t at, uint32_t value) {
  for (size_t i = 0; i < 4; ++i) (*bytes)[at + i] = static_cast<char>(value >> 8 * i);
}

// Streams of at most a sector's 512 bytes, which are padded to the eight that keep them
// out of the mini stream.
std::string compound(const Files& streams) {
  constexpr size_t kSector = 512;
  constexpr size_t kSectorsEach = 8;
  const size_t directory_sectors = streams.size() / 4 + 1;
  std::string bytes("\xd0\xcf\x11\xe0\xa1\xb1\x1a\xe1");
  bytes.resize(kSector * (2 + directory_sectors + kSectorsEach * streams.size()));
  bytes[28] = '\xfe';
  bytes[29] = '\xff';
  bytes[30] = 9;
  bytes[32] = 6;
  put(&bytes, 44, 1);           // sectors of the table
  put(&bytes, 48, 1);           // the directory
  put(&bytes, 56, 4096);        // smaller streams are in the mini stream
  put(&bytes, 60, 0xfffffffe);  // no mini stream
  put(&bytes, 68, 0xfffffffe);
  for (size_t i = 0; i < 109; ++i) put(&bytes, 76 + 4 * i, i == 0 ? 0 : 0xffffffff);
  const auto link = [&](size_t from, size_t sectors) {
    for (size_t i = 0; i < sectors; ++i) {
      put(&bytes, kSector + 4 * (from + i),
          i + 1 < sectors ? static_cast<uint32_t>(from + i + 1) : 0xfffffffe);
    }
  };
  link(1, directory_sectors);
  const auto entry = [&](size_t index, const std::string& name, uint32_t right, uint32_t child,
                         uint32_t start, uint32_t size) {
    const size_t at = 2 * kSector + 128 * index;
    for (size_t i = 0; i < name.size(); ++i) bytes[at + 2 * i] = name[i];
    bytes[at + 64] = static_cast<char>(2 * name.size() + 2);
    bytes[at + 66] = index == 0 ? 5 : 2;  // the root, a stream
    put(&bytes, at + 68, 0xffffffff);
    put(&bytes, at + 72, right);
    put(&bytes, at + 76, child);
    put(&bytes, at + 116, start);
    put(&bytes, at + 120, size);
  };
  entry(0, "Root Entry", 0xffffffff, 1, 0xfffffffe, 0);
  for (size_t i = 0; i < streams.size(); ++i) {
    const size_t start = 1 + directory_sectors + kSectorsEach * i;
    link(start, kSectorsEach);
    bytes.replace(kSector * (start + 1), streams[i].second.size(), streams[i].second);
    entry(i + 1, streams[i].first,
          i + 1 < streams.size() ? static_cast<uint32_t>(i + 2) : 0xffffffff, 0xffffffff,
          static_cast<uint32_t>(start), kSector * kSectorsEach);
  }
  return bytes;
}

Reason reasonOf(const std::string& compound_file) {
  return parsed(parseOldOffice, compound_file).reason;
}

TEST(OldOfficeFormat, PasswordsAreTold) {
  EXPECT_EQ(Reason::kEncrypted,
            reasonOf(compound({{"EncryptionInfo", ""}, {"EncryptedPackage", ""}})));
  EXPECT_EQ(Reason::kEncrypted,
            reasonOf(compound({{"WordDocument", "\xec\xa5"s + std::string(9, '\0') + "\x01"}})));
  EXPECT_EQ(Reason::kEncrypted,
            reasonOf(compound({{"Workbook", "\x09\x08\x02\0ab\x2f\0\x02\0\0\0"s}})));
  EXPECT_EQ(Reason::kEncrypted,
            reasonOf(compound({{"PowerPoint Document", ""},
                               {"Current User", std::string(12, '\0') + "\xdf\xc4\xd1\xf3"}})));
}

TEST(OldOfficeFormat, WhatTheProgramsFindNothingInIsTold) {
  EXPECT_EQ(Reason::kDamaged, reasonOf(compound({{"WordDocument", ""}})));
  EXPECT_EQ(Reason::kDamaged, reasonOf(compound({{"Workbook", ""}})));
}

std::string excelRecord(uint32_t type, const std::string& content) {
  std::string bytes(4, '\0');
  bytes[0] = static_cast<char>(type);
  bytes[1] = static_cast<char>(type >> 8);
  bytes[2] = static_cast<char>(content.size());
  return bytes + content;
}

// A sheet with one cell: a text of bytes in the code page of the file.
std::string oldWorkbook(uint32_t code_page, const std::string& cell) {
  const std::string begin = excelRecord(0x809, "\0\5\5\0\0\0\0\0"s);
  const std::string sheet = excelRecord(0x809, "\0\5\x10\0\0\0\0\0"s);
  std::string page(2, '\0');
  page[0] = static_cast<char>(code_page);
  page[1] = static_cast<char>(code_page >> 8);
  const std::string label = "\0\0\0\0\0\0"s + static_cast<char>(cell.size()) + '\0' + cell;
  const std::string end = excelRecord(0x0a, "");
  return begin + excelRecord(0x42, page) + end + sheet + excelRecord(0x204, label) + end;
}

// A sheet with one cell: a text of units below 256 in the table of all texts.
std::string newWorkbook(const std::string& cell) {
  const std::string begin = excelRecord(0x809, "\0\6\5\0\0\0\0\0\0\0\0\0\0\0\0\0"s);
  const std::string sheet = excelRecord(0x809, "\0\6\x10\0\0\0\0\0\0\0\0\0\0\0\0\0"s);
  const std::string table = "\1\0\0\0\1\0\0\0"s + static_cast<char>(cell.size()) + "\0\0"s + cell;
  const std::string end = excelRecord(0x0a, "");
  return begin + excelRecord(0x42, "\xb0\4") + excelRecord(0xfc, table) + end + sheet +
         excelRecord(0xfd, std::string(10, '\0')) + end;
}

// A document of one piece of bytes. Version 193 is Word 97, 104 is Word 95.
std::string wordDocument(unsigned char version, uint32_t language, const std::string& text) {
  std::string bytes(768, '\0');
  bytes.replace(0, 2, "\xec\xa5");
  bytes[2] = static_cast<char>(version);
  bytes[6] = static_cast<char>(language);
  bytes[7] = static_cast<char>(language >> 8);
  if (version > 104) bytes[11] = 0x10;  // may be of wide characters
  put(&bytes, 24, 768);
  put(&bytes, 28, static_cast<uint32_t>(768 + text.size()));
  return bytes + text + '\r';
}

// The programs have a configuration, which may say anything and cannot be seen from
// inside of the sandbox.
class OldOfficeCharset : public testing::Test {
 protected:
  OldOfficeCharset() {
    std::ofstream(home_ + "/.catdocrc") << "source_charset=cp1253\n";
    setenv("HOME", home_.c_str(), 1);
  }
  ~OldOfficeCharset() override {
    std::filesystem::remove_all(home_);
    unsetenv("HOME");
  }
  OldOfficeCharset(const OldOfficeCharset&) = delete;
  OldOfficeCharset& operator=(const OldOfficeCharset&) = delete;

  static std::string wordsOf(const char* stream, const std::string& content) {
    return words(parsed(parseOldOffice, compound({{stream, content}})).said);
  }

 private:
  static std::string newDirectory() {
    std::string path = testing::TempDir() + "/old-office-XXXXXX";
    EXPECT_NE(nullptr, mkdtemp(path.data()));
    return path;
  }
  const std::string home_ = newDirectory();
};

TEST_F(OldOfficeCharset, OfWorkbooksIsLatin1OrTheirCodePage) {
  EXPECT_EQ("Gr\u00fc\u00dfe", wordsOf("Workbook", newWorkbook("Gr\xfc\xdf"
                                                               "e")));
  EXPECT_EQ("Gr\u00fc\u00dfe", wordsOf("Book", oldWorkbook(1252,
                                                           "Gr\xfc\xdf"
                                                           "e")));
  EXPECT_EQ("\u041c\u043e\u0441\u0442", wordsOf("Book", oldWorkbook(1251, "\xcc\xee\xf1\xf2")));
}

TEST_F(OldOfficeCharset, OfDocumentsIsWesternUnlessTheirLanguageIsNot) {
  const std::string german =
      "Gr\xfc\xdf"
      "e";
  const std::string russian = "\xcc\xee\xf1\xf2";
  EXPECT_EQ("Gr\u00fc\u00dfe", wordsOf("WordDocument", wordDocument(193, 0x407, german)));
  EXPECT_EQ("Gr\u00fc\u00dfe", wordsOf("WordDocument", wordDocument(193, 0x419, german)));
  EXPECT_EQ("Gr\u00fc\u00dfe", wordsOf("WordDocument", wordDocument(104, 0x407, german)));
  EXPECT_EQ("\u041c\u043e\u0441\u0442", wordsOf("WordDocument", wordDocument(104, 0x419, russian)));
}

TEST(OldOfficeFormat, AnUnknownKindIsTold) {
  EXPECT_EQ(Reason::kUnsupported, reasonOf(compound({{"__properties_version1.0", ""}})));
}

std::string record(uint32_t type, const std::string& content, bool has_records = false) {
  std::string bytes(8, '\0');
  bytes[0] = has_records ? '\xf' : '\0';
  bytes[2] = static_cast<char>(type);
  bytes[3] = static_cast<char>(type >> 8);
  put(&bytes, 4, static_cast<uint32_t>(content.size()));
  return bytes + content;
}

TEST(PptFormat, TextOfSlidesIsReadInBothItsEncodings) {
  const std::string slide =
      record(0x3ee, record(0xfa8, "caf\xe9\rtwo") + record(0xfa0, "\x1f\x04\x0b\0x\0"s), true);
  EXPECT_EQ(
      "caf\u00e9\ntwo\n\u041f\nx\n",
      parsed(parseOldOffice, compound({{"PowerPoint Document", record(0x3e8, slide, true)}})).said);
}

TEST(PptFormat, PromptsOfMastersAreLeftOut) {
  const auto shape = [](const std::string& content) { return record(0xf004, content, true); };
  const std::string prompt = shape(record(0xbc3, "") + record(0xfa8, "Click to edit"));
  EXPECT_EQ(
      "Confidential\nClick to edit\n",
      parsed(
          parseOldOffice,
          compound({{"PowerPoint Document",
                     record(0x3f8, prompt + shape(record(0xfa8, "Confidential")), true) + prompt}}))
          .said);
}

TEST(OldOfficeFormat, AFileEmbeddedAsAWholeIsAMember) {
  const auto object =
      parsed(parseOldOffice, compound({{"\1Ole10Native",
                                        "\x30\0\0\0\2\0cat.txt\0C:\\cat.txt\0\0\0\3\0"
                                        "\4\0\0\0tmp\0\3\0\0\0Cat"s}}));
  ASSERT_EQ(1u, object.members.size());
  EXPECT_EQ("cat.txt", object.members[0].name);
  EXPECT_EQ("Cat", object.members[0].content);
}

TEST(OldOfficeFormat, ObjectsThatAreNotOpenedAreTold) {
  const auto lost = [](const char* document, const char* storage, uint32_t child) {
    std::string file = compound({{document, ""}, {storage, ""}});
    put(&file, 1024 + 128 * 2 + 76, child);
    const auto opened = parsed(parseOldOffice, file);
    for (const auto& member : opened.members) EXPECT_EQ(Reason::kUnsupported, member.reason);
    return opened.members.size() == 1 ? opened.members[0].name : "";
  };
  EXPECT_EQ("ObjectPool", lost("WordDocument", "ObjectPool", 1));
  EXPECT_EQ("MBD0001A2B3", lost("Workbook", "MBD0001A2B3", 1));
  EXPECT_EQ("", lost("WordDocument", "ObjectPool", 0xffffffff)) << "as Word leaves it";
  EXPECT_EQ("", lost("Workbook", "_VBA_PROJECT_CUR", 1));
}

TEST(OldOfficeFormat, ChainsThatLeadInCirclesOrNowhereEnd) {
  std::string file = compound({{"Package", "x"}});
  put(&file, 512 + 4 * 1, 1);      // the directory follows itself
  put(&file, 512 + 4 * 2, 2);      // the stream, too
  put(&file, 1024 + 128 + 68, 1);  // an entry is its own neighbour
  const auto document = parsed(parseOldOffice, file);
  ASSERT_EQ(1u, document.members.size());
  EXPECT_LE(document.members[0].content.size(), 4096u);
  EXPECT_EQ(Reason::kDamaged, reasonOf(file.substr(0, 600)));
  EXPECT_EQ(Reason::kDamaged, reasonOf(file.substr(0, 100)));
}

// ---- Attributes

TEST(Attributes, PassagesInThemAreText) {
  const std::string passage =
      "Nobody outside of this house is to learn what the new engine will weigh and cost.";
  EXPECT_EQ("a\nb\n" + passage + "\n",
            parsed(parseXml, "<d><t title='" + passage + "'>a</t>b</d>").said);
  const std::string page = "<meta name=\"description\" content=\"" + passage + "\"";
  for (const std::string& html :
       {"<html><head>" + page + "></head><body>a</body></html>",
        "<?xml version='1.0'?><html><head>" + page + "/></head><body>a</body></html>"}) {
    EXPECT_EQ("a\n" + passage + "\n", parsed(parseHtml, html).said);
  }
}

TEST(Attributes, KeysNumbersAndAddressesAreNoText) {
  for (const std::string& value :
       {"short words only"s, "M 10.5 20.25 L 30.5 40.25 L 50.5 60.25 L 70.5 80.25 L 90.5 100.25 Z"s,
        "http://www.example.org/schema/beans http://www.example.org/schema/beans/beans-3.xsd"s,
        "fill:none;stroke:currentColor;stroke-linejoin:round;stroke-linecap:round;display:inline"s,
        std::string(100, 'a')}) {
    EXPECT_EQ("b\n", parsed(parseXml, "<d a='" + value + "'>b</d>").said);
    EXPECT_EQ("b\n", parsed(parseHtml, "<html><meta content='" + value + "'>b").said);
  }
}

// ---- PDF

std::string pdf(const std::string& content, const std::string& objects = "",
                const std::string& trailer = "", const std::string& catalogue = "") {
  return "%PDF-1.4\n1 0 obj<</Type/Catalog/Pages 2 0 R" + catalogue +
         ">>endobj\n2 0 obj<</Type/Pages/Kids[3 0 R]/Count 1>>endobj\n"
         "3 0 obj<</Type/Page/Parent 2 0 R/MediaBox[0 0 600 800]/Contents 4 0 R"
         "/Resources<</Font<</F<</Type/Font/Subtype/Type1/BaseFont/Helvetica>>>>>>>>endobj\n"
         "4 0 obj<</Length " +
         std::to_string(content.size()) + ">>stream\n" + content + "\nendstream endobj\n" +
         objects + "trailer<</Root 1 0 R" + trailer + ">>\n";
}

TEST(PdfFormat, TextIsReadAndPagesWithoutAnyAreTold) {
  const auto document = parsed(parsePdf, pdf("BT /F 12 Tf 50 700 Td (Some words) Tj ET"));
  EXPECT_EQ("Some words", words(document.said));
  EXPECT_EQ(Reason::kNone, document.reason);
  EXPECT_EQ(Reason::kUnsupported, parsed(parsePdf, pdf("0 0 600 800 re f")).reason);
}

TEST(PdfFormat, APasswordAndDamageAreTold) {
  const std::string key(32, 'k');
  EXPECT_EQ(Reason::kEncrypted,
            parsed(parsePdf, pdf("",
                                 "5 0 obj<</Filter/Standard/V 1/R 2/P -4/O(" + key + ")/U(" + key +
                                     ")>>endobj\n",
                                 "/Encrypt 5 0 R/ID[(0123456789abcdef)(0123456789abcdef)]"))
                .reason);
  EXPECT_EQ(Reason::kDamaged, parsed(parsePdf, "%PDF-1.4\nnothing of that kind").reason);
}

TEST(PdfFormat, DamageInsideOfAPageIsToldAndTheRestOfItRead) {
  const auto damaged = parsed(parsePdf, pdf("BT /F 12 Tf 50 700 Td (Some words) Tj ET\n"
                                            "BT /F 12 Tf 50 600 Td (and mo\x01\x02 Tj ET"));
  EXPECT_EQ(Reason::kDamaged, damaged.reason);
  EXPECT_EQ("Some words", words(damaged.said).substr(0, 10));
  const auto ugly = parsed(parsePdf, pdf("BT /F 12 Tf /None cs 50 700 Td (Some words) Tj ET"));
  EXPECT_EQ(Reason::kNone, ugly.reason) << "a colour that is missing is no loss of text";
}

TEST(PdfFormat, AttachedFilesAreTold) {
  const auto document =
      parsed(parsePdf, pdf("BT /F 12 Tf 50 700 Td (Some words) Tj ET",
                           "5 0 obj<</Type/Filespec/F(cat.txt)/EF<</F 6 0 R>>>>endobj\n"
                           "6 0 obj<</Type/EmbeddedFile/Length 3>>stream\nCat\nendstream endobj\n",
                           "", "/Names<</EmbeddedFiles<</Names[(cat.txt) 5 0 R]>>>>"));
  ASSERT_EQ(1u, document.members.size());
  EXPECT_EQ("cat.txt", document.members[0].name);
  EXPECT_EQ(Reason::kUnsupported, document.members[0].reason);
}

}  // namespace
