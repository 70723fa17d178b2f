// What the library is for, through the built library: documents that look like
// written ones are indexed, and their copies, excerpts and rearrangements are
// recognised, on both text platforms.
#include <algorithm>

#include "host_session.h"
#include "prose.h"

namespace {

constexpr int kDocuments = 6;

// Six documents of twelve paragraphs, indexed under the file IDs 100 to 105 by
// the given platform, and the match system over them.
class DocumentTest : public LibraryTest {
 protected:
  void index(int platform) {
    generateOn(platform);
    model_.open();
    ASSERT_EQ(0, InitIndexSystem());
    for (int i = 0; i < kDocuments; ++i) {
      document_[i] = paragraphs(12, static_cast<uint64_t>(i));
      const Signatures list = textSignatures(joined(document_[i]));
      model_.add(100 + i, list);
      ASSERT_EQ(0, addDocument(100 + i, list));
    }
    finishIndex();
  }
  void finishIndex() {
    model_.close();
    ASSERT_EQ(0, ExitIndexSystem());
    ASSERT_EQ(0, InitMatchSystem());
  }
  static void generateOn(int platform) {
    ExitSignatureGenerator();
    ASSERT_EQ(0, InitSignatureGenerator(platform));
  }

  // Whom a text gives away, the twin asked as well.
  Matches find(const std::string& text) {
    const Signatures query = textSignatures(text);
    const Matches found = match(query, static_cast<int>(text.size()));
    EXPECT_EQ(model_.match(query, static_cast<int>(text.size())), found);
    return found;
  }

  IndexModel model_;
  std::vector<std::string> document_[kDocuments];
};

TEST_F(DocumentTest, ACopyIsRecognisedOnBothPlatforms) {
  for (const int platform : {TESSERA_SERVER, TESSERA_CLIENT}) {
    index(platform);
    for (int i = 0; i < kDocuments; ++i) {
      EXPECT_EQ((Matches{{100 + i, 2}}), find(joined(document_[i])));
    }
    ASSERT_EQ(0, ExitMatchSystem());
  }
}

TEST_F(DocumentTest, AnUnrelatedTextIsNotRecognised) {
  index(TESSERA_CLIENT);
  for (uint64_t seed = 1000; seed < 1020; ++seed) {
    EXPECT_EQ(Matches{}, find(joined(paragraphs(12, seed))));
  }
}

TEST_F(DocumentTest, EveryParagraphPairIsRecognisedByTheClient) {
  index(TESSERA_CLIENT);
  for (size_t first = 0; first + 2 <= 12; ++first) {
    EXPECT_EQ((Matches{{102, 2}}), find(joined(document_[2], first, first + 2))) << first;
  }
}

TEST_F(DocumentTest, AnExcerptHasNoSignatureOfItsOwn) {
  index(TESSERA_CLIENT);
  const Signatures whole = textSignatures(joined(document_[3]));
  const Signatures excerpt = textSignatures(joined(document_[3]).substr(1700, 2500));
  EXPECT_GT(excerpt.size(), 3u);
  EXPECT_TRUE(std::includes(whole.begin(), whole.end(), excerpt.begin(), excerpt.end()));
}

TEST_F(DocumentTest, ReorderedParagraphsAreRecognised) {
  index(TESSERA_CLIENT);
  std::vector<std::string> reordered = document_[1];
  std::reverse(reordered.begin(), reordered.end());
  EXPECT_EQ((Matches{{101, 2}}), find(joined(reordered)));
}

TEST_F(DocumentTest, AMixOfTwoDocumentsNamesBoth) {
  index(TESSERA_CLIENT);
  const std::string mix =
      joined(document_[4], 0, 5) + joined(paragraphs(3, 999)) + joined(document_[0], 6, 11);
  EXPECT_EQ((Matches{{100, 2}, {104, 2}}), find(mix));
}

TEST_F(DocumentTest, OneParagraphAmongManyIsAWeakMatchOrLess) {
  index(TESSERA_CLIENT);
  const std::string hidden =
      joined(paragraphs(60, 500)) + joined(document_[5], 3, 5) + joined(paragraphs(60, 501));
  const Matches found = find(hidden);
  ASSERT_EQ(1u, found.size());
  EXPECT_EQ(105, found[0].file_id);
  EXPECT_LT(found[0].level, 2);
}

TEST_F(DocumentTest, LayoutDoesNotMatter) {
  index(TESSERA_CLIENT);
  std::string reflowed;
  for (const char c : joined(document_[2], 2, 6)) {
    if (c == ' ') {
      reflowed += reflowed.size() % 3 == 0 ? "\r\n\t" : "  ";
    } else {
      reflowed += c;
    }
  }
  EXPECT_EQ((Matches{{102, 2}}), find(reflowed));
}

TEST_F(DocumentTest, AServersIndexAnswersAClientsQuery) {
  index(TESSERA_SERVER);
  generateOn(TESSERA_CLIENT);
  for (int i = 0; i < kDocuments; ++i) {
    EXPECT_EQ((Matches{{100 + i, 2}}), find(joined(document_[i])));
  }
  EXPECT_EQ(Matches{}, find(joined(paragraphs(12, 1000))));
  const std::string half = joined(document_[3], 0, 6);
  const Matches found = find(half);
  ASSERT_EQ(1u, found.size());
  EXPECT_EQ(103, found[0].file_id);
}

TEST_F(DocumentTest, ADeletedDocumentIsForgottenAndAReplacedOneFollowsItsNewText) {
  index(TESSERA_CLIENT);
  ASSERT_EQ(0, ExitMatchSystem());
  const std::string revised = joined(paragraphs(12, 77));
  model_.open();
  ASSERT_EQ(0, InitIndexSystem());
  model_.erase({100, 101});
  ASSERT_EQ(0, deleteDocuments({100, 101}));
  model_.add(101, textSignatures(revised));
  ASSERT_EQ(0, addDocument(101, textSignatures(revised)));
  finishIndex();
  EXPECT_EQ(Matches{}, find(joined(document_[0])));
  EXPECT_EQ(Matches{}, find(joined(document_[1])));
  EXPECT_EQ((Matches{{101, 2}}), find(revised));
  EXPECT_EQ((Matches{{102, 2}}), find(joined(document_[2])));
}

TEST_F(DocumentTest, TheSameTextUnderSeveralFileIdsNamesThemAll) {
  index(TESSERA_CLIENT);
  ASSERT_EQ(0, ExitMatchSystem());
  const Signatures list = textSignatures(joined(document_[0]));
  model_.open();
  ASSERT_EQ(0, InitIndexSystem());
  for (const int64_t file_id : {2147483646LL, -2LL, -2147483648LL, 0LL, 1LL, 2LL, 3LL}) {
    model_.add(file_id, list);
    ASSERT_EQ(0, addDocument(file_id, list));
  }
  finishIndex();
  EXPECT_EQ(
      (Matches{
          {-2147483648LL, 2}, {-2, 2}, {0, 2}, {1, 2}, {2, 2}, {3, 2}, {100, 2}, {2147483646, 2}}),
      find(joined(document_[0])));
}

TEST_F(DocumentTest, AnImageIsRecognisedByItsExactBytesOnly) {
  ASSERT_EQ(0, InitSignatureGenerator(TESSERA_SERVER));
  const std::string image = documents::bytes(40000, 1);
  ASSERT_EQ(0, InitIndexSystem());
  ASSERT_EQ(0, addDocument(9, binarySignatures(image)));
  ASSERT_EQ(0, ExitIndexSystem());
  ASSERT_EQ(0, InitMatchSystem());
  EXPECT_EQ((Matches{{9, 2}}), match(binarySignatures(image)));
  EXPECT_EQ(Matches{}, match(binarySignatures(image + "x")));
  std::string changed = image;
  ++changed[512];
  EXPECT_EQ(Matches{}, match(binarySignatures(changed)));
}

}  // namespace
