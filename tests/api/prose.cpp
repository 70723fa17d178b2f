#include "prose.h"

#include "documents.h"

namespace {

const char* const kVocabulary[] = {"the",
                                   "of",
                                   "and",
                                   "a",
                                   "to",
                                   "in",
                                   "is",
                                   "for",
                                   "that",
                                   "with",
                                   "contract",
                                   "supplier",
                                   "customer",
                                   "delivery",
                                   "payment",
                                   "schedule",
                                   "quarter",
                                   "revenue",
                                   "forecast",
                                   "employee",
                                   "salary",
                                   "merger",
                                   "board",
                                   "meeting",
                                   "minutes",
                                   "approval",
                                   "budget",
                                   "estimate",
                                   "drawing",
                                   "pump",
                                   "valve",
                                   "pressure",
                                   "test",
                                   "report",
                                   "sample",
                                   "patent",
                                   "claim",
                                   "license",
                                   "source",
                                   "release",
                                   "server",
                                   "network",
                                   "password",
                                   "account",
                                   "balance",
                                   "invoice",
                                   "2024",
                                   "17",
                                   "430",
                                   "shall",
                                   "may",
                                   "must",
                                   "not",
                                   "under",
                                   "M\xc3\xbcller",
                                   "Z\xc3\xbcrich",
                                   "clause",
                                   "annex",
                                   "draft",
                                   "final"};

std::string sentence(documents::Random& random) {
  std::string text;
  const uint64_t words = 8 + random.below(10);
  for (uint64_t i = 0; i < words; ++i) {
    std::string word = kVocabulary[random.below(std::size(kVocabulary))];
    if (i == 0 && word[0] >= 'a' && word[0] <= 'z') word[0] = static_cast<char>(word[0] - 32);
    if (i > 0) text += random.oneIn(9) ? ", " : " ";
    text += word;
  }
  return text + ". ";
}

}  // namespace

std::vector<std::string> paragraphs(size_t count, uint64_t seed) {
  documents::Random random(seed);
  std::vector<std::string> made(count);
  for (std::string& paragraph : made) {
    while (paragraph.size() < 550) paragraph += sentence(random);
  }
  return made;
}

std::string joined(const std::vector<std::string>& paragraphs, size_t first, size_t last) {
  std::string text;
  for (size_t i = first; i < last; ++i) text += paragraphs[i] + "\n\n";
  return text;
}

std::string joined(const std::vector<std::string>& paragraphs) {
  return joined(paragraphs, 0, paragraphs.size());
}
