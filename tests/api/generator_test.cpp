// The six functions that generate, through the built library: their return
// values in every state, their lists, and what they do to the configuration
// file.
#include <algorithm>
#include <climits>
#include <cstdio>
#include <filesystem>

#include "host_session.h"
#include "prose.h"

namespace {

constexpr int kMiB = 1048576;

class Generator : public LibraryTest {
 protected:
  // The list of a text on a platform of its own choosing.
  static Signatures on(int platform, const std::string& text) {
    EXPECT_EQ(0, InitSignatureGenerator(platform));
    const Signatures list = textSignatures(text);
    EXPECT_EQ(0, ExitSignatureGenerator());
    return list;
  }
};

std::string content(size_t length) { return documents::letters(length, 7); }

// Both Generate functions clear their out-values before anything else.
void expectRefused(int (*generate)(char*, int, unsigned char (**)[8], int*), char* text,
                   int length) {
  unsigned char before[1][8];
  unsigned char(*list)[8] = before;
  int count = 5;
  EXPECT_EQ(1, generate(text, length, &list, &count));
  EXPECT_EQ(nullptr, list);
  EXPECT_EQ(0, count);
}

TEST_F(Generator, GeneratesNothingBeforeInit) {
  std::string text = content(1000);
  for (const auto generate : {GenerateSignature4Text, GenerateSignature4Binary}) {
    expectRefused(generate, text.data(), 1000);
    expectRefused(generate, text.data(), 0);
    expectRefused(generate, nullptr, 10);
  }
}

TEST_F(Generator, GeneratesNothingAfterExit) {
  ASSERT_EQ(0, InitSignatureGenerator(TESSERA_CLIENT));
  ASSERT_EQ(0, ExitSignatureGenerator());
  std::string text = content(1000);
  expectRefused(GenerateSignature4Text, text.data(), 1000);
  expectRefused(GenerateSignature4Binary, text.data(), 1000);
}

TEST_F(Generator, KnowsTwoPlatforms) {
  for (const int platform : {0, 3, -1, INT_MAX, INT_MIN}) {
    EXPECT_EQ(1, InitSignatureGenerator(platform)) << platform;
  }
  EXPECT_EQ(1, ExitSignatureGenerator());
  EXPECT_FALSE(dir_.exists("index_sys_config.txt"));
  EXPECT_EQ(0, InitSignatureGenerator(TESSERA_SERVER));
}

TEST_F(Generator, SecondInitIsRefusedAndKeepsThePlatform) {
  const std::string text = content(50000);
  const Signatures server = on(TESSERA_SERVER, text);
  ASSERT_EQ(0, InitSignatureGenerator(TESSERA_SERVER));
  EXPECT_EQ(1, InitSignatureGenerator(TESSERA_CLIENT));
  EXPECT_EQ(1, InitSignatureGenerator(TESSERA_SERVER));
  EXPECT_EQ(server, textSignatures(text));
}

TEST_F(Generator, ExitNeedsAnInit) {
  EXPECT_EQ(1, ExitSignatureGenerator());
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(0, InitSignatureGenerator(TESSERA_CLIENT));
    EXPECT_EQ(0, ExitSignatureGenerator());
    EXPECT_EQ(1, ExitSignatureGenerator());
  }
}

TEST_F(Generator, AListOutlivesTheGenerator) {
  std::string text = content(50000);
  unsigned char(*list)[8] = nullptr;
  int count = 0;
  ASSERT_EQ(0, InitSignatureGenerator(TESSERA_CLIENT));
  ASSERT_EQ(0, GenerateSignature4Text(text.data(), 50000, &list, &count));
  ASSERT_EQ(0, ExitSignatureGenerator());
  EXPECT_GT(count, 0);
  EXPECT_EQ(0, FreeSignature(list));
}

TEST_F(Generator, NullMayBeFreed) {
  EXPECT_EQ(0, FreeSignature(nullptr));
  EXPECT_EQ(0, FreeSigMatchRet(nullptr));
}

TEST_F(Generator, NoDocumentIsASuccessWithoutSignatures) {
  ASSERT_EQ(0, InitSignatureGenerator(TESSERA_SERVER));
  char text[] = "text";
  unsigned char before[1][8];
  for (const auto generate : {GenerateSignature4Text, GenerateSignature4Binary}) {
    for (const int length : {0, -1, INT_MIN, 4}) {
      unsigned char(*list)[8] = before;
      int count = 5;
      EXPECT_EQ(0, generate(length == 4 ? nullptr : text, length, &list, &count)) << length;
      EXPECT_EQ(nullptr, list);
      EXPECT_EQ(0, count);
    }
  }
}

TEST_F(Generator, SixtyCharactersAreTooFew) {
  for (const int platform : {TESSERA_SERVER, TESSERA_CLIENT}) {
    ASSERT_EQ(0, InitSignatureGenerator(platform));
    bool one = false;
    for (uint64_t seed = 0; seed < 500; ++seed) {
      EXPECT_TRUE(textSignatures(documents::letters(60, seed)).empty());
      const size_t count = textSignatures(documents::letters(61, seed)).size();
      EXPECT_LE(count, 1u);
      one |= count == 1;
    }
    EXPECT_TRUE(one) << "one text of 61 letters in 137 has a signature";
    ASSERT_EQ(0, ExitSignatureGenerator());
  }
}

// A window of one repeated character has a multiple of that character as its
// hash; of all that count, only 137 makes it a multiple of 137.
TEST_F(Generator, ASignatureSumsEveryEighthByteOfItsWindow) {
  ASSERT_EQ(0, InitSignatureGenerator(TESSERA_CLIENT));
  EXPECT_TRUE(textSignatures(std::string(300, 'a')).empty());
  // 8 * 137 and 7 * 137, modulo 256
  EXPECT_EQ(Signatures{documents::signature({72, 72, 72, 72, 72, 191, 191, 191})},
            textSignatures(std::string(300, '\x89')));
}

TEST_F(Generator, OnlyLettersDigitsAndHighBytesCount) {
  const std::string letters = content(20000);
  std::string decorated;
  const std::string ignored = " \t\r\n.,;:!?()[]{}<>@#$%^&*-_=+\\|/\"'`~\x01\x7f";
  for (size_t i = 0; i < letters.size(); ++i) {
    decorated += letters[i];
    decorated += ignored[i % ignored.size()];
  }
  decorated += std::string(5, '\0');
  for (const int platform : {TESSERA_SERVER, TESSERA_CLIENT}) {
    const Signatures plain = on(platform, letters);
    EXPECT_FALSE(plain.empty());
    EXPECT_EQ(plain, on(platform, decorated));
  }
}

TEST_F(Generator, UpperAndLowerCaseDiffer) {
  const std::string text = content(20000);
  std::string lower = text;
  for (char& c : lower) c = static_cast<char>(c | 0x20);
  EXPECT_NE(on(TESSERA_CLIENT, text), on(TESSERA_CLIENT, lower));
}

TEST_F(Generator, ListsAscendWithoutRepeats) {
  std::string twice = documents::words(30000, 3);
  twice += twice;
  for (const int platform : {TESSERA_SERVER, TESSERA_CLIENT}) {
    const Signatures list = on(platform, twice);
    EXPECT_GT(list.size(), 10u);
    for (size_t i = 1; i < list.size(); ++i) EXPECT_TRUE(list[i - 1] < list[i]) << i;
  }
}

TEST_F(Generator, TheServerTakesSomeOfTheClientsSignatures) {
  for (const size_t length : {300, 1023, 1024, 2048, 4096, 10000, 200000}) {
    const std::string text = content(length);
    const Signatures server = on(TESSERA_SERVER, text);
    const Signatures client = on(TESSERA_CLIENT, text);
    EXPECT_TRUE(std::includes(client.begin(), client.end(), server.begin(), server.end()));
    const size_t pieces = length / 1024 + 1;
    EXPECT_LE(server.size(), pieces * (pieces < 8 ? 8 / pieces : 1)) << length;
    EXPECT_GE(client.size(), server.size());
  }
}

TEST_F(Generator, TheClientTakesAtMostTenThousand) {
  // 3 MB hold some 22,000 windows that qualify; two of the first 10,000 may
  // share a signature.
  const Signatures list = on(TESSERA_CLIENT, content(3000000));
  EXPECT_LE(list.size(), 10000u);
  EXPECT_GT(list.size(), 9990u);
}

// The one signature of a content that is not text, summed the plain way.
Signature binarySignature(const std::string& bytes) {
  const size_t length = bytes.size();
  const size_t step = length >= 10240 ? 512 : length > 20 ? length / 20 : 1;
  Signature signature = {};
  for (size_t at = 0; at + 4 < length; at += step) {
    for (size_t k = 0; k < 4; ++k) {
      signature.bytes[k] = static_cast<unsigned char>(signature.bytes[k] +
                                                      static_cast<unsigned char>(bytes[at + k]));
    }
  }
  char digits[5];
  std::snprintf(digits, sizeof digits, "%04x", static_cast<unsigned>(length % 65536));
  std::copy_n(digits, 4, signature.bytes + 4);
  return signature;
}

TEST_F(Generator, BinaryContentHasOneSignature) {
  ASSERT_EQ(0, InitSignatureGenerator(TESSERA_SERVER));
  for (const size_t length : {4, 5, 20, 21, 100, 1000, 10239, 10240, 65536, 70000, 1000000}) {
    const std::string bytes = documents::bytes(length, length);
    EXPECT_EQ(Signatures{binarySignature(bytes)}, binarySignatures(bytes)) << length;
  }
}

TEST_F(Generator, BinaryContentOfThreeBytesIsSampledToItsEnd) {
  ASSERT_EQ(0, InitSignatureGenerator(TESSERA_SERVER));
  const Signature expected[] = {{{0x10, 0, 0, 0, '0', '0', '0', '1'}},
                                {{0x20, 0x10, 0, 0, '0', '0', '0', '2'}},
                                {{0x30, 0x20, 0x10, 0, '0', '0', '0', '3'}}};
  for (size_t length = 1; length <= 3; ++length) {
    EXPECT_EQ(Signatures{expected[length - 1]}, binarySignatures(std::string(length, '\x10')));
  }
}

TEST_F(Generator, TheMaximumContentSizeHasBounds) {
  const std::string before = "max_content_size=2000000\n";
  for (const int refused : {1048575, 78643201, 0, -1, INT_MAX, INT_MIN}) {
    configure(before);
    EXPECT_EQ(1, SetMaxContentSize(refused)) << refused;
    EXPECT_EQ(before, dir_.read("index_sys_config.txt"));
  }
  for (const int accepted : {1048576, 78643200}) {
    configure(before);
    EXPECT_EQ(0, SetMaxContentSize(accepted)) << accepted;
    EXPECT_EQ("max_content_size=" + std::to_string(accepted) + "\n",
              dir_.read("index_sys_config.txt"));
  }
}

TEST_F(Generator, TheMaximumContentSizeBoundsTheNormalisedText) {
  const std::string text = content(2 * kMiB);
  const std::string first = text.substr(0, kMiB);
  std::string spaced;
  for (const char c : text) (spaced += c) += ' ';
  for (const int platform : {TESSERA_SERVER, TESSERA_CLIENT}) {
    ASSERT_EQ(0, InitSignatureGenerator(platform));
    const Signatures whole = textSignatures(text);
    ASSERT_EQ(0, SetMaxContentSize(kMiB));
    const Signatures cut = textSignatures(text);
    EXPECT_EQ(textSignatures(first), cut);
    EXPECT_EQ(cut, textSignatures(spaced));
    EXPECT_NE(whole, cut);
    ASSERT_EQ(0, ExitSignatureGenerator());
    std::filesystem::remove("index_sys_config.txt");
  }
}

TEST_F(Generator, ARefusedMaximumContentSizeKeepsTheOneInForce) {
  const std::string text = content(2 * kMiB);
  ASSERT_EQ(0, InitSignatureGenerator(TESSERA_SERVER));
  ASSERT_EQ(0, SetMaxContentSize(kMiB));
  const Signatures cut = textSignatures(text);
  for (const int refused : {100, 1048575, 78643201, INT_MAX}) {
    EXPECT_EQ(1, SetMaxContentSize(refused));
    EXPECT_EQ(cut, textSignatures(text)) << refused;
  }
}

TEST_F(Generator, InitWritesTheMaximumContentSizeInForce) {
  const std::pair<const char*, const char*> files[] = {
      {"", "max_content_size=6291456\n"},
      {"max_content_size=2000000", "max_content_size=2000000\n"},
      {" \tMAX_Content_Size \t=\t 2000000 \r\n", "MAX_Content_Size=2000000\n"},
      {"max_content_size=1048576\n", "max_content_size=1048576\n"},
      {"max_content_size=78643200\n", "max_content_size=78643200\n"},
      {"max_content_size=1048575\n", "max_content_size=6291456\n"},
      {"max_content_size=78643201\n", "max_content_size=6291456\n"},
      {"max_content_size=1000\n", "max_content_size=6291456\n"},
      {"max_content_size=-5\n", "max_content_size=6291456\n"},
      {"max_content_size=+2000000\n", "max_content_size=6291456\n"},
      {"max_content_size=5MB\n", "max_content_size=6291456\n"},
      {"max_content_size=\n", "max_content_size=6291456\n"},
      {"max_content_size\n", "max_content_size\nmax_content_size=6291456\n"},
      {"x=1\nmax_content_size=5\n", "x=1\nmax_content_size=6291456\n"},
      {"\n  remark\nmax_fid_num = 5\n", "\n  remark\nmax_fid_num = 5\nmax_content_size=6291456\n"},
      {"a=b=c\nmax_content_size=3000000\nmax_content_size=4000000\n",
       "a=b=c\nmax_content_size=3000000\nmax_content_size=3000000\n"},
  };
  for (const auto& [before, after] : files) {
    configure(before);
    EXPECT_EQ(0, InitSignatureGenerator(TESSERA_SERVER));
    EXPECT_EQ(after, dir_.read("index_sys_config.txt")) << before;
    EXPECT_EQ(0, ExitSignatureGenerator());
  }
}

TEST_F(Generator, InitCreatesTheConfigurationThatTheIndexNeeds) {
  ASSERT_EQ(0, InitSignatureGenerator(TESSERA_SERVER));
  EXPECT_EQ("max_content_size=6291456\n", dir_.read("index_sys_config.txt"));
  EXPECT_EQ(0, InitIndexSystem());
}

TEST_F(Generator, InitTakesTheMaximumContentSizeFromTheConfiguration) {
  const std::string text = content(2 * kMiB);
  configure("max_content_size = 1048576\n");
  EXPECT_EQ(on(TESSERA_SERVER, text.substr(0, kMiB)), on(TESSERA_SERVER, text));
}

TEST_F(Generator, InitOverwritesWhatWasSetBefore) {
  const std::string text = content(2 * kMiB);
  ASSERT_EQ(0, SetMaxContentSize(kMiB));
  std::filesystem::remove("index_sys_config.txt");
  EXPECT_NE(on(TESSERA_SERVER, text.substr(0, kMiB)), on(TESSERA_SERVER, text));
}

}  // namespace
