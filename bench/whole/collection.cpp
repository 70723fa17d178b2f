// Texts are cut into paragraphs, and a paragraph is left out when some forty letters
// of it stood anywhere before: licences, changes told twice, pages in two formats.
#include "collection.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <numeric>
#include <stdexcept>
#include <string_view>

#include "corpus.h"
#include "documents.h"

namespace {

constexpr size_t kIndexed = 2000;
constexpr size_t kUnrelated = 400;
constexpr size_t kFewest = 100;     // of both: with less, nothing is measured
constexpr size_t kShortest = 5000;  // bytes of a document
constexpr size_t kLongest = 40000;
constexpr size_t kLongestParagraph = 2000;
constexpr size_t kLargestText = 2 << 20;  // of one: the rest would be more of the same
constexpr size_t kPassageLetters = 40;

// The passages seen so far, by their hashes: a table with open addresses.
class Passages {
 public:
  bool contains(uint64_t hash) const { return slots_[place(hash)] != 0; }
  bool full() const { return count_ > slots_.size() / 4 * 3; }

  void insert(uint64_t hash) {
    uint64_t& slot = slots_[place(hash)];
    count_ += slot == 0;
    slot = hash;
  }

 private:
  size_t place(uint64_t hash) const {
    size_t at = hash & (slots_.size() - 1);
    while (slots_[at] != 0 && slots_[at] != hash) at = (at + 1) & (slots_.size() - 1);
    return at;
  }

  std::vector<uint64_t> slots_ = std::vector<uint64_t>(size_t{1} << 24);
  size_t count_ = 0;
};

struct Word {
  uint64_t hash;  // whatever its case
  size_t letters;
};

std::vector<Word> wordsOf(std::string_view text) {
  std::vector<Word> words;
  constexpr Word kNone = {0xcbf29ce484222325, 0};
  Word word = kNone;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (std::isalnum(byte) || byte >= 128) {
      word.hash = (word.hash ^ static_cast<unsigned char>(std::tolower(byte))) * 0x100000001b3;
      ++word.letters;
    } else if (word.letters > 0) {
      words.push_back(word);
      word = kNone;
    }
  }
  if (word.letters > 0) words.push_back(word);
  return words;
}

// For each word the hash, which is not 0, of the shortest run of words from there
// on that is long enough. None for what is no prose but drawn or encoded.
std::vector<uint64_t> passages(const std::vector<Word>& words) {
  std::vector<uint64_t> hashes;
  if (std::any_of(words.begin(), words.end(),
                  [](const Word& word) { return word.letters >= kPassageLetters; })) {
    return hashes;
  }
  for (size_t first = 0; first < words.size(); ++first) {
    uint64_t hash = 0;
    size_t letters = 0;
    for (size_t i = first; i < words.size() && letters < kPassageLetters; ++i) {
      letters += words[i].letters;
      hash = (hash ^ words[i].hash) * 0x9e3779b97f4a7c15;
      hash ^= hash >> 29;
    }
    if (letters >= kPassageLetters) hashes.push_back(hash | 1);
  }
  return hashes;
}

// The last words, so many that they are no passage yet: what follows makes them one.
std::vector<Word> tailOf(const std::vector<Word>& words) {
  auto first = words.end();
  size_t letters = 0;
  while (first != words.begin() && letters + (first - 1)->letters < kPassageLetters) {
    letters += (--first)->letters;
  }
  return {first, words.end()};
}

// The requests that begin a paragraph of a manual page, which has no empty lines.
bool beginsParagraph(std::string_view line) {
  for (const std::string_view request :
       {".PP", ".P", ".LP", ".TP", ".IP", ".SH", ".SS", ".Pp", ".It", ".Sh", ".Ss", ".sp"}) {
    if (line.starts_with(request) &&
        (line.size() == request.size() || line[request.size()] == ' ')) {
      return true;
    }
  }
  return false;
}

bool isComment(std::string_view line) {  // of a manual page
  return line.starts_with(".\\\"") || line.starts_with("'\\\"");
}

std::vector<std::string_view> paragraphs(std::string_view text) {
  std::vector<std::string_view> found;
  size_t start = 0;
  const auto cut = [&](size_t end) {
    if (end > start) found.push_back(text.substr(start, end - start));
    start = end;
  };
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size() - 1) + 1;
    const std::string_view line = text.substr(at, end - at - 1);
    if (beginsParagraph(line) || at - start > kLongestParagraph) cut(at);
    if (isComment(line) || line.find_first_not_of(" \t\r") == std::string_view::npos) {
      cut(at);
      start = end;
    }
    at = end;
  }
  cut(text.size());
  return found;
}

// English prose has a "the" about every hundred bytes; other languages, lists
// and programs hardly any.
bool isEnglish(std::string_view text) {
  size_t count = 0;
  for (size_t at = 0; (at = text.find(" the ", at)) != std::string_view::npos; ++at) ++count;
  return count * 400 > text.size();
}

// Adds what is new in a text, cut at paragraph ends.
void addDocuments(std::string_view text, documents::Random* random, Passages* seen,
                  std::vector<std::string>* all) {
  std::string document;
  std::vector<Word> tail;  // of the document
  size_t wanted = kShortest + random->below(kLongest - kShortest - kLongestParagraph);
  const auto finish = [&] {
    if (document.size() >= kShortest && document.size() <= kLongest && isEnglish(document)) {
      all->push_back(std::move(document));
    }
    document.clear();
    tail.clear();
    wanted = kShortest + random->below(kLongest - kShortest - kLongestParagraph);
  };
  for (const std::string_view paragraph : paragraphs(text)) {
    std::vector<Word> words = wordsOf(paragraph);
    words.insert(words.begin(), tail.begin(), tail.end());
    const std::vector<uint64_t> hashes = passages(words);
    if (hashes.empty() || std::any_of(hashes.begin(), hashes.end(),
                                      [&](uint64_t hash) { return seen->contains(hash); })) {
      continue;
    }
    for (const uint64_t hash : hashes) seen->insert(hash);
    tail = tailOf(words);
    document += paragraph;
    if (!document.ends_with('\n')) document += '\n';
    document += '\n';
    if (document.size() >= wanted) finish();
  }
  finish();
}

Collection collect() {
  const std::vector<std::string>& texts = corpus::texts();
  documents::Random random(1);
  std::vector<size_t> order(texts.size());
  std::iota(order.begin(), order.end(), size_t{0});
  for (size_t i = order.size(); i > 1; --i) std::swap(order[i - 1], order[random.below(i)]);

  Passages seen;
  std::vector<std::string> all;
  for (const size_t i : order) {
    if (all.size() >= kIndexed + kUnrelated || seen.full()) break;
    const auto text = std::string_view(texts[i]).substr(0, kLargestText);
    if (text.size() >= kShortest && isEnglish(text)) addDocuments(text, &random, &seen, &all);
  }
  if (all.size() < kFewest) throw std::runtime_error("too little documentation on this system");
  if (all.size() > kIndexed + kUnrelated) all.resize(kIndexed + kUnrelated);
  if (all.size() < kIndexed + kUnrelated) {
    std::fprintf(stderr, "only %zu documents instead of %zu: too little documentation here\n",
                 all.size(), kIndexed + kUnrelated);
  }
  const size_t unrelated = all.size() * kUnrelated / (kIndexed + kUnrelated);
  Collection made;
  made.unrelated.assign(all.end() - static_cast<ptrdiff_t>(unrelated), all.end());
  all.resize(all.size() - unrelated);
  made.indexed = std::move(all);
  return made;
}

}  // namespace

const Collection& collection() {
  static const Collection made = collect();
  return made;
}
