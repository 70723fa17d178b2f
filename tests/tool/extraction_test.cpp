// Opening documents and what is in them, and each limit of that.
#include "extract/extraction.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <clocale>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "archives.h"
#include "extract/member_name.h"

namespace {

using namespace tool;
using archives::gzip;
using archives::tar;
using archives::zip;

class Parts final : public PartSink {
 public:
  void begin(const std::string& name) override { begun.push_back(name); }
  void deliver(Part&& part) override {
    parts.push_back(std::move(part));
    if (slow) std::this_thread::sleep_for(std::chrono::milliseconds(300));
  }

  std::vector<std::string> names() const {
    std::vector<std::string> all;
    for (const Part& part : parts) all.push_back(part.name);
    return all;
  }

  // The last word on the part of that name.
  const Part& at(const std::string& name) const {
    const auto found = std::find_if(parts.rbegin(), parts.rend(),
                                    [&](const Part& part) { return part.name == name; });
    if (found == parts.rend()) {
      ADD_FAILURE() << "no part " << name;
      static const Part none;
      return none;
    }
    return *found;
  }

  size_t count(Reason reason) const {
    return static_cast<size_t>(std::count_if(
        parts.begin(), parts.end(), [&](const Part& part) { return part.reason == reason; }));
  }

  std::vector<Part> parts;
  std::vector<std::string> begun;
  bool slow = false;
};

using Names = std::vector<std::string>;

Parts open(const std::string& content, const Limits& limits = {},
           const std::string& name = "document") {
  Parts parts;
  extract(content, name, limits, parts);
  return parts;
}

std::string noise(size_t bytes) {
  std::mt19937_64 random(20240611);
  std::string content(bytes, '\0');
  for (char& c : content) c = static_cast<char>(random());
  return content;
}

std::string hex(const std::array<unsigned char, 32>& digest) {
  std::string text;
  for (const unsigned char byte : digest) {
    constexpr char kDigits[] = "0123456789abcdef";
    text += kDigits[byte / 16];
    text += kDigits[byte % 16];
  }
  return text;
}

// --- what is text, and what is not ---

TEST(Extraction, PlainTextComesInItsCanonicalForm) {
  const Parts parts = open(
      "\xef\xbb\xbf"
      "caf\x65\xcc\x81 abc\r\n");
  ASSERT_EQ(1u, parts.parts.size());
  EXPECT_EQ(Form::kText, parts.parts[0].form);
  EXPECT_EQ(0u, parts.parts[0].content.find("caf\xc3\xa9 abc"));
  EXPECT_EQ("UTF-8", parts.parts[0].encoding);
}

TEST(Extraction, APartTellsSizeAndHashOfItsBytes) {
  const Parts parts = open("abc");
  const Part& part = parts.at("");
  EXPECT_EQ(3u, part.size);
  EXPECT_EQ("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad", hex(part.sha256));
}

TEST(Extraction, WhatIsNoTextIsBytes) {
  const std::string content = noise(5000);
  const Parts parts = open(content);
  EXPECT_EQ(Form::kBinary, parts.at("").form);
  EXPECT_EQ(content, parts.at("").content);
  EXPECT_EQ(Reason::kNone, parts.at("").reason);
}

// It holds pictures, or its chains lead nowhere.
TEST(Extraction, ATextIsNotHiddenByControlCharacters) {
  std::string text;
  for (int line = 0; line < 20; ++line) text += "What nobody outside may read, 100 % of it.\n";
  std::string sown = text;
  for (size_t at = 5; at < sown.size(); at += 8) sown.insert(at, 1, at % 3 == 0 ? '\0' : '\1');
  const Parts parts = open(sown);
  EXPECT_EQ(parts.names(), (Names{"", "text"}));
  EXPECT_EQ(parts.at("").form, Form::kBinary);
  EXPECT_EQ(parts.at("").content, sown);
  EXPECT_EQ(parts.at("text").form, Form::kText);
  EXPECT_EQ(parts.at("text").content, text);
  for (size_t at = 0; at < sown.size(); at += 3) sown[at] = '\2';
  EXPECT_EQ(open(sown).names(), Names{""}) << "this is no text any more";
}

TEST(Extraction, BytesAreNoTextForLackOfControlCharacters) {
  std::mt19937 random(1);
  for (int trial = 0; trial < 50; ++trial) {
    std::string bytes(3000, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    EXPECT_EQ(open(bytes).names().size(), 1u);
  }
}

TEST(Extraction, AnOfficeDocumentWithoutTextIsNotInspected) {
  const std::string docx =
      zip({{"[Content_Types].xml", "<Types/>"},
           {"word/media/image1.png", "\x89PNG\r\n\x1a\n" + noise(5000)},
           {"word/document.xml", "<document><body/></document>"},
           {"_rels/.rels",
            "<Relationships><Relationship Id='1' Target='word/document.xml' Type='http://"
            "schemas.openxmlformats.org/officeDocument/2006/relationships/officeDocument'/>"
            "</Relationships>"}});
  const Part document = open(docx).at("");
  EXPECT_EQ(Form::kBinary, document.form);
  EXPECT_EQ(Reason::kUnsupported, document.reason) << document.detail;
  EXPECT_EQ("no text in it", document.detail);
  EXPECT_EQ(Reason::kNone,
            open("Subject:\nFrom: a\nTo: b\nX: " + std::string(5000, 'x')).at("").reason);
  EXPECT_EQ(Reason::kNone, open("{\\rtf1}").at("").reason);
  EXPECT_EQ(Reason::kUnsupported,
            open("{\\rtf1{\\*\\data " + std::string(5000, 'x') + "}}").at("").reason);
}

TEST(Extraction, APictureIsNeverText) {
  const Parts parts = open("GIF89a, said the text");
  EXPECT_EQ("image/gif", parts.at("").type);
  EXPECT_EQ(Form::kBinary, parts.at("").form);
}

TEST(Extraction, TheFirstBytesOfAPictureHideNoText) {
  std::string text = "GIF89a";
  while (text.size() < 300) text += " and so on";
  EXPECT_EQ(Form::kText, open(text).at("").form);
  EXPECT_EQ(Form::kBinary, open("GIF89a" + noise(300)).at("").form);
}

TEST(Extraction, KnownContainersThatNothingOpensAreNotInspected) {
  const Parts parts = open(std::string("Rar!\x1a\x07\x01\x00", 8) + noise(100));
  EXPECT_EQ("application/x-rar", parts.at("").type);
  EXPECT_EQ(Reason::kUnsupported, parts.at("").reason);
}

TEST(Extraction, AnEncryptedMessageIsTold) {
  const Parts parts = open("-----BEGIN PGP MESSAGE-----\n\nhQEMA7wZ\n-----END PGP MESSAGE-----\n");
  EXPECT_EQ(Reason::kEncrypted, parts.at("").reason);
}

// --- archives ---

TEST(Archive, EveryKindGivesItsMembersWithTheirNames) {
  const std::vector<archives::Entry> entries = {{"dir/a.txt", "text of a"}, {"b.txt", "text of b"}};
  std::vector<std::string> made = {
      zip(entries),
      zip(entries, "zip:compression=store"),
      zip(entries, "zip:zip64"),
      archives::make(ARCHIVE_FORMAT_7ZIP, ARCHIVE_FILTER_NONE, entries),
      archives::make(ARCHIVE_FORMAT_TAR_USTAR, ARCHIVE_FILTER_NONE, entries),
      archives::make(ARCHIVE_FORMAT_TAR_GNUTAR, ARCHIVE_FILTER_NONE, entries)};
  for (const int filter : {ARCHIVE_FILTER_NONE, ARCHIVE_FILTER_GZIP, ARCHIVE_FILTER_BZIP2,
                           ARCHIVE_FILTER_XZ, ARCHIVE_FILTER_ZSTD}) {
    made.push_back(tar(entries, filter));
  }
  for (const std::string& archive : made) {
    const Parts parts = open(archive);
    EXPECT_EQ((Names{"", "dir/a.txt", "b.txt"}), parts.names()) << parts.at("").type;
    EXPECT_EQ(Form::kContainer, parts.at("").form);
    EXPECT_EQ("", parts.at("").content);
    EXPECT_EQ("text of a", parts.at("dir/a.txt").content);
    EXPECT_EQ("text of b", parts.at("b.txt").content);
  }
}

TEST(Archive, ACompressedFileHasOneMemberNamedLikeItself) {
  for (const int filter : {ARCHIVE_FILTER_GZIP, ARCHIVE_FILTER_BZIP2, ARCHIVE_FILTER_XZ,
                           ARCHIVE_FILTER_ZSTD, ARCHIVE_FILTER_LZIP, ARCHIVE_FILTER_COMPRESS}) {
    const Parts parts = open(archives::compressed("some text", filter), {}, "report.txt.zz");
    EXPECT_EQ((Names{"", "report.txt"}), parts.names()) << parts.at("").type;
    EXPECT_EQ("some text", parts.at("report.txt").content);
  }
}

TEST(Archive, NamesOfNestedMembersAreJoined) {
  const std::string inner = zip({{"deep.txt", "deep"}});
  const Parts parts = open(zip({{"inner.zip", inner}, {"x/y.txt.gz", gzip("y")}}));
  EXPECT_EQ((Names{"", "inner.zip", "inner.zip!deep.txt", "x/y.txt.gz", "x/y.txt.gz!y.txt"}),
            parts.names());
  EXPECT_EQ((Names{"", "inner.zip", "inner.zip!deep.txt", "inner.zip", "", "x/y.txt.gz",
                   "x/y.txt.gz!y.txt", "x/y.txt.gz", ""}),
            parts.begun);
}

TEST(Archive, OnlyFilesAreMembers) {
  const std::vector<archives::Entry> entries = {{"directory/", "", AE_IFDIR},
                                                {"link", "/etc/passwd", AE_IFLNK},
                                                {"pipe", "", AE_IFIFO},
                                                {"device", "", AE_IFCHR},
                                                {"file", "text"}};
  EXPECT_EQ((Names{"", "file"}), open(tar(entries)).names());
}

TEST(Archive, NamesAreOnlySaid) {
  const Parts parts = open(tar({{"/etc/passwd", "a"}, {"../../up", "b"}, {"./here", "c"}}));
  EXPECT_EQ((Names{"", "/etc/passwd", "../../up", "here"}), parts.names());
}

TEST(Archive, EqualNamesAreToldApart) {
  const Parts parts = open(tar({{"a", "1"}, {"a#2", "2"}, {"a", "3"}, {"a", "4"}}));
  EXPECT_EQ((Names{"", "a", "a#2", "a#3", "a#4"}), parts.names());
}

TEST(Archive, NamesAreFitForATerminal) {
  const Parts parts = open(tar({{"a\x1b[31m\nb", "1"}, {"caf\xe9", "2"}}));
  EXPECT_EQ((Names{"", "a?[31m?b", "caf\xe9"}), parts.names());
}

TEST(Archive, NamesInUtf16AreReadable) {
  std::setlocale(LC_ALL, "C.UTF-8");
  const Parts parts = open(archives::make(ARCHIVE_FORMAT_7ZIP, ARCHIVE_FILTER_NONE,
                                          {{"\xc3\xbc"
                                            "ber.txt",
                                            "text"}}));
  EXPECT_EQ((Names{"",
                   "\xc3\xbc"
                   "ber.txt"}),
            parts.names());
}

TEST(Archive, AnEncryptedMemberIsToldAndTheOthersAreOpened) {
  const Parts parts = open(zip({{"secret", "text"}}, "zip:encryption=aes256"));
  EXPECT_EQ((Names{"", "secret"}), parts.names());
  EXPECT_EQ(Reason::kEncrypted, parts.at("secret").reason);
  EXPECT_EQ("", parts.at("secret").content);
}

TEST(Archive, ACutArchiveGivesWhatIsThereAndIsDamaged) {
  const std::string whole = tar({{"a", "text of a"}, {"b", noise(100'000)}});
  const Parts parts = open(whole.substr(0, 50'000));
  EXPECT_EQ("text of a", parts.at("a").content);
  EXPECT_EQ(Reason::kDamaged, parts.at("b").reason);
  EXPECT_EQ(Reason::kDamaged, parts.at("").reason);
}

TEST(Archive, ADamagedMemberOfAZipLosesNoOther) {
  std::string archive = zip({{"a", noise(1000)}, {"b", "text of b"}}, "zip:compression=store");
  archive[500] = static_cast<char>(archive[500] ^ 1);  // its checksum tells
  const Parts parts = open(archive);
  EXPECT_EQ(Reason::kDamaged, parts.at("a").reason);
  EXPECT_EQ("text of b", parts.at("b").content);
}

TEST(Archive, EveryCutOfEveryKindEndsWell) {
  const std::vector<archives::Entry> entries = {{"a", "text of a"}, {"b", noise(300)}};
  for (const std::string& whole :
       {zip(entries), tar(entries, ARCHIVE_FILTER_GZIP), tar(entries, ARCHIVE_FILTER_XZ),
        archives::make(ARCHIVE_FORMAT_7ZIP, ARCHIVE_FILTER_NONE, entries)}) {
    for (size_t length = 0; length < whole.size(); ++length) {
      const Parts parts = open(whole.substr(0, length));
      ASSERT_FALSE(parts.parts.empty());
      EXPECT_EQ("", parts.parts[0].name);
    }
  }
}

// An archive may have both: what is only damaged needs no password.
TEST(Archive, ADamagedMemberBesideAnEncryptedOneIsDamaged) {
  std::string archive = zip({{"b", "text of b"}, {"a", noise(1000)}}, "zip:compression=store");
  archive[archive.find("PK\3\4") + 6] |= 1;  // "b" is encrypted, says its header
  archive[archive.find("PK\1\2") + 8] |= 1;  // and the directory
  const size_t content = archive.find(noise(100));
  ASSERT_NE(std::string::npos, content);
  archive[content + 500] = static_cast<char>(archive[content + 500] ^ 1);
  const Parts parts = open(archive);
  EXPECT_EQ(Reason::kEncrypted, parts.at("b").reason);
  EXPECT_EQ(Reason::kDamaged, parts.at("a").reason);
}

// Zeros are an empty tar to whoever looks for one.
TEST(Archive, ACompressedFileOfZerosIsNotAnEmptyArchive) {
  const Parts parts = open(gzip(std::string(4096, '\0')), {}, "zeros.gz");
  EXPECT_EQ((Names{"", "zeros"}), parts.names());
  EXPECT_EQ(4096u, parts.at("zeros").size);
}

TEST(Archive, ATarBehindTheEndOfATarIsOpened) {
  const Parts parts = open(tar({{"a", "1"}}) + tar({{"b", "2"}}));
  EXPECT_EQ((Names{"", "a", "b"}), parts.names());
}

// --- each limit ---

std::string manyWords() {
  std::string words;
  while (words.size() < 300) words += "word" + std::to_string(words.size()) + " ";
  return words;
}

TEST(Archive, NothingHidesWhereTheDirectoryOfAZipDoesNotLead) {
  const std::string text = manyWords();
  const std::string hidden = zip({{"a", text}});
  const std::string shown = zip({{"b", "shown"}});
  // Another archive before it, and behind it something else, near and far.
  EXPECT_EQ((Names{"", "b", "?", "?!a"}), open(hidden + shown).names());
  EXPECT_EQ(text, open(hidden + shown).at("?!a").content);
  EXPECT_EQ(text, open(shown + text).at("?").content);
  const std::string far = shown + noise(100'000);
  EXPECT_EQ((Names{"", "b", "?"}), open(far).names());
  // A directory that has nothing in it.
  const std::string none = std::string("PK\5\6") + std::string(18, '\0');
  EXPECT_EQ(text, open(hidden + none).at("?!a").content);
  // An entry taken off the list: the directory begins behind it.
  std::string both = zip({{"a", text}, {"b", "shown"}});
  const size_t directory = both.find("PK\1\2");
  const size_t second = both.find("PK\1\2", directory + 1);
  const size_t end = both.find("PK\5\6");
  const auto set32 = [&](size_t at, size_t value) {
    for (size_t i = 0; i < 4; ++i) both[at + i] = static_cast<char>(value >> 8 * i);
  };
  both[end + 8] = both[end + 10] = 1;
  set32(end + 12, end - second);
  both.erase(directory, second - directory);
  EXPECT_EQ(Reason::kDamaged, open(both).at("?!a").reason);  // without its end, which is ours
  EXPECT_EQ("shown", open(both).at("b").content);
  // A document that is a zip inside.
  const std::string odt =
      zip({{"mimetype", "application/vnd.oasis.opendocument.text"}, {"content.xml", "<p>x</p>"}});
  EXPECT_EQ(text, open(hidden + odt).at("?!a").content);
}

TEST(Archive, AnOrdinaryZipHidesNothing) {
  EXPECT_EQ((Names{"", "a", "b"}), open(zip({{"a", manyWords()}, {"b", ""}})).names());
  EXPECT_EQ((Names{""}), open(zip({})).names());
}

TEST(Archive, AZipAtTheEndOfAnotherFileIsOpened) {
  const std::string archive = zip({{"a", "text of a"}});
  for (const std::string& before :
       {"GIF89a" + noise(1000), manyWords(), "{\\rtf1 " + manyWords() + "}"}) {
    const Parts parts = open(before + archive);
    const bool is_text = before == manyWords();  // which the archive's bytes do not hide
    EXPECT_EQ(is_text ? (Names{"", "?", "?!a", "text"}) : (Names{"", "?", "?!a"}), parts.names());
    EXPECT_EQ(before.size() + archive.size(), parts.at("").size);
    EXPECT_EQ("text of a", parts.at("?!a").content);
  }
}

TEST(Archive, WhatStandsBehindCompressedDataIsOpened) {
  const std::string text = manyWords();
  EXPECT_EQ(text, open(gzip("x") + text).at("?").content);
  EXPECT_EQ("text of a",
            open(gzip("x") + std::string(20, '\0') + zip({{"a", "text of a"}, {"b", text}}))
                .at("?!a")
                .content);
  EXPECT_EQ(text, open(tar({{"a", "b"}}, ARCHIVE_FILTER_GZIP) + text).at("?").content);
  EXPECT_EQ((Names{"", "a"}), open(tar({{"a", "b"}}, ARCHIVE_FILTER_GZIP)).names());
  EXPECT_EQ((Names{"", "a"}), open(tar({{"a", "b"}})).names());
}

// Unpackers that know nothing of devices make a file of it.
TEST(Archive, ContentOfWhatIsNoFileIsTold) {
  std::string archive = zip({{"a", manyWords()}, {"b", "b"}});
  archive[archive.find("PK\1\2") + 41] = 0x21;  // what it is: a device
  const Parts parts = open(archive);
  EXPECT_EQ((Names{"", "a", "b"}), parts.names());
  EXPECT_EQ(Reason::kUnsupported, parts.at("a").reason);
}

TEST(Limit, DepthCountsContainersInsideEachOther) {
  std::string content = "text";
  for (int i = 0; i < 5; ++i) content = zip({{"m", content}});
  Limits limits;
  limits.depth = 5;
  EXPECT_EQ("text", open(content, limits).at("m!m!m!m!m").content);
  limits.depth = 4;
  const Parts parts = open(content, limits);
  EXPECT_EQ(Reason::kDepthLimit, parts.at("m!m!m!m!m").reason);
  EXPECT_EQ(1u, parts.count(Reason::kDepthLimit));
}

TEST(Limit, MembersCountAtAllDepthsTogether) {
  const std::string inner = zip({{"1", "a"}, {"2", "b"}});
  const std::string content = zip({{"x", inner}, {"y", inner}});
  Limits limits;
  limits.members = 6;
  EXPECT_EQ(0u, open(content, limits).count(Reason::kMemberLimit));
  limits.members = 5;
  const Parts parts = open(content, limits);
  EXPECT_EQ(Reason::kMemberLimit, parts.at("y").reason);
  EXPECT_EQ((Names{"", "x", "x!1", "x!2", "y", "y!1", "y"}), parts.names());
}

TEST(Limit, AMemberTooLargeIsLostAndTheOthersAreNot) {
  const std::vector<archives::Entry> entries = {{"large", noise(1001)}, {"small", noise(1000)}};
  Limits limits;
  limits.member_bytes = 1000;
  for (const std::string& archive :
       {zip(entries), tar(entries, ARCHIVE_FILTER_GZIP),
        archives::make(ARCHIVE_FORMAT_7ZIP, ARCHIVE_FILTER_NONE, entries)}) {
    const Parts parts = open(archive, limits);
    EXPECT_EQ(Reason::kSizeLimit, parts.at("large").reason);
    EXPECT_EQ(0u, parts.at("large").content.size());
    EXPECT_EQ(Reason::kNone, parts.at("small").reason);
    EXPECT_EQ(1000u, parts.at("small").content.size());
  }
}

TEST(Limit, AllMembersTogetherAreLimited) {
  const std::string inner = zip({{"1", noise(400)}, {"2", noise(401)}});  // about 1000 itself
  Limits limits;
  limits.total_bytes = inner.size() + 800;
  const Parts parts = open(zip({{"x", inner}}), limits);
  EXPECT_EQ(Reason::kNone, parts.at("x!1").reason);
  EXPECT_EQ(Reason::kSizeLimit, parts.at("x!2").reason);
  limits.total_bytes = inner.size() + 801;
  EXPECT_EQ(0u, open(zip({{"x", inner}}), limits).count(Reason::kSizeLimit));
}

TEST(Limit, ALargeTextIsInspectedAsFarAsTheLimit) {
  Limits limits;
  limits.total_bytes = 1001;
  std::string text;
  while (text.size() < 3000) text += "\xc3\xa4\xc3\xb6 ";
  const Parts parts = open(text, limits);
  EXPECT_EQ(Reason::kSizeLimit, parts.at("").reason);
  EXPECT_EQ(Form::kText, parts.at("").form);
  EXPECT_EQ("UTF-8", parts.at("").encoding);
  EXPECT_GT(parts.at("").content.size(), 990u);
  EXPECT_LE(parts.at("").content.size(), 1001u);
  EXPECT_EQ(0u, text.find(parts.at("").content));
}

TEST(Limit, LargeBytesAreInspectedAsFarAsTheLimit) {
  Limits limits;
  limits.total_bytes = 1000;
  const Parts parts = open(noise(1001), limits);
  EXPECT_EQ(Reason::kSizeLimit, parts.at("").reason);
  EXPECT_EQ("only the first 1000 bytes were inspected", parts.at("").detail);
  EXPECT_EQ(1000u, parts.at("").content.size());
  EXPECT_EQ(1001u, parts.at("").size);
}

TEST(Limit, ACompressedFileThatExpandsTooMuchIsLost) {
  const std::string zeros(5 << 20, '\0');
  for (const std::string& bomb : {gzip(zeros), archives::compressed(zeros, ARCHIVE_FILTER_BZIP2),
                                  archives::compressed(zeros, ARCHIVE_FILTER_XZ),
                                  archives::compressed(zeros, ARCHIVE_FILTER_ZSTD)}) {
    const Parts parts = open(bomb, {}, "bomb.gz");
    EXPECT_EQ(Reason::kRatioLimit, parts.at("bomb").reason) << parts.at("").type;
  }
  for (const std::string& bomb :
       {zip({{"bomb", zeros}, {"b", "text of b"}}),
        archives::make(ARCHIVE_FORMAT_7ZIP, ARCHIVE_FILTER_NONE, {{"bomb", zeros}})}) {
    EXPECT_EQ(Reason::kRatioLimit, open(bomb).at("bomb").reason);
  }
  EXPECT_EQ("text of b", open(zip({{"bomb", zeros}, {"b", "text of b"}})).at("b").content);
}

TEST(Limit, TheFirstMiBMayExpandAsItLikes) {
  const Parts parts = open(gzip(std::string(1 << 20, '\0')), {}, "a.gz");
  EXPECT_EQ(Reason::kNone, parts.at("a").reason);
}

TEST(Limit, TheRatioIsChangeable) {
  Limits limits;
  limits.ratio = 2000;
  const Parts parts = open(gzip(std::string(5 << 20, '\0')), limits, "a.gz");
  EXPECT_EQ(Reason::kNone, parts.at("a").reason);
}

// What is skipped in a solid archive has to be expanded all the same.
TEST(Limit, NoBombHidesInAMemberThatIsSkipped) {
  Limits limits;
  limits.member_bytes = 1 << 20;
  const Parts parts = open(
      tar({{"bomb", std::string(50 << 20, '\0')}, {"b", "text"}}, ARCHIVE_FILTER_GZIP), limits);
  EXPECT_EQ(Reason::kSizeLimit, parts.at("bomb").reason);
  EXPECT_EQ(Reason::kRatioLimit, parts.at("").reason);
}

TEST(Limit, TheTimeEndsEverything) {
  Limits limits;
  limits.seconds = 0;
  const Parts parts = open(zip({{"x", zip({{"y", "text"}})}}), limits);
  EXPECT_EQ((Names{"", ""}), parts.names());
  EXPECT_EQ(Reason::kTimeLimit, parts.at("").reason);
}

TEST(Limit, TheTimeOfWhoTakesThePartsDoesNotCount) {
  Limits limits;
  limits.seconds = 1;
  Parts parts;
  parts.slow = true;  // 300 ms a part
  extract(zip({{"1", "a"}, {"2", "b"}, {"3", "c"}, {"4", "d"}, {"5", "e"}}), "z", limits, parts);
  EXPECT_EQ(0u, parts.count(Reason::kTimeLimit));
  EXPECT_EQ(6u, parts.parts.size());
}

// --- names ---

TEST(MemberName, WhatLeadsATerminalAstrayIsReplaced) {
  EXPECT_EQ("a?b?c", printable("a\x7f"
                               "b\xc2\x9b"
                               "c"));
  EXPECT_EQ("txt?exe", printable("txt\xe2\x80\xae"
                                 "exe"));
  EXPECT_EQ("\xc3\xa4 \xe2\x80\x93 \xff", printable("\xc3\xa4 \xe2\x80\x93 \xff"));
  EXPECT_EQ("\xe2", printable("\xe2"));
}

TEST(MemberName, FarTooLongIsCut) {
  EXPECT_EQ(std::string(1024, 'a') + "...", memberName(std::string(5000, 'a')));
}

// libbz2 overwrites its stack when it is asked for more after an error.
TEST(Extraction, ABrokenCompressionIsNotAskedAgain) {
  std::mt19937 random(1);
  std::vector<archives::Entry> entries;
  for (const char* const name : {"a", "b", "c"}) {
    std::string lines;
    for (int i = 0; i < 400; ++i) lines += std::to_string(random() % 400) + "\n";
    entries.push_back({name, lines});
  }
  const std::string whole =
      archives::make(ARCHIVE_FORMAT_7ZIP, ARCHIVE_FILTER_NONE, entries, "7zip:compression=bzip2");
  ASSERT_EQ(4u, open(whole).parts.size());
  for (int round = 0; round < 1500; ++round) {
    std::string broken = whole;
    const size_t start = 32 + random() % (whole.size() - 32);
    const size_t end = std::min(start + random() % 512, whole.size());
    for (size_t at = start; at < end; ++at) broken[at] = static_cast<char>(random());
    open(broken);
  }
}

}  // namespace
