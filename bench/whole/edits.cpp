#include "edits.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <string_view>
#include <utility>

#include "documents.h"

namespace {

using documents::Random;

// The document, and unrelated texts around it where the edit wants some.
struct Material {
  const std::string& document;
  const std::string& host;
  const std::string& other_host;
};

std::string cut(const std::string& text, size_t bytes, Random* random) {
  return text.substr(random->below(text.size() - bytes + 1), bytes);
}

// The end of the paragraph in which the byte at `at` stands.
size_t paragraphEnd(const std::string& text, size_t at) {
  return std::min(text.find("\n\n", at), text.size() - 2) + 2;
}

std::vector<std::string> paragraphsOf(const std::string& text) {
  std::vector<std::string> all;
  for (size_t at = 0, end; at < text.size(); at = end) {
    end = paragraphEnd(text, at);
    all.push_back(text.substr(at, end - at));
  }
  return all;
}

std::vector<std::string> wordsOf(std::string_view text) {
  std::vector<std::string> words;
  std::string word;
  for (const char c : text) {
    if (!std::isspace(static_cast<unsigned char>(c))) {
      word += c;
    } else if (!word.empty()) {
      words.push_back(std::exchange(word, {}));
    }
  }
  if (!word.empty()) words.push_back(word);
  return words;
}

// ---- The edits: each gives the text that is sent -----------------------

std::string copied(const Material& from, Random*) { return from.document; }

std::string half(const Material& from, Random* random) {
  return cut(from.document, from.document.size() / 2, random);
}

std::string tenth(const Material& from, Random* random) {
  return cut(from.document, from.document.size() / 10, random);
}

std::string passage(const Material& from, Random* random) {
  std::string text = from.host;
  const std::string quoted = cut(from.document, 500 + random->below(1001), random);
  return text.insert(paragraphEnd(text, random->below(text.size())), quoted + "\n\n");
}

// Lines of another length, as another program would break them.
std::string rewrapped(const Material& from, Random* random) {
  const size_t width = 40 + random->below(61);
  std::string text;
  for (const std::string& paragraph : paragraphsOf(from.document)) {
    size_t column = 0;
    for (const std::string& word : wordsOf(paragraph)) {
      const bool fits = column > 0 && column + 1 + word.size() <= width;
      if (column > 0) text += fits ? ' ' : '\n';
      column = fits ? column + 1 + word.size() : word.size();
      text += word;
    }
    text += "\n\n";
  }
  return text;
}

std::string reordered(const Material& from, Random* random) {
  std::vector<std::string> all = paragraphsOf(from.document);
  for (size_t i = all.size(); i > 1; --i) std::swap(all[i - 1], all[random->below(i)]);
  std::string text;
  for (const std::string& paragraph : all) text += paragraph;
  return text;
}

// So many of a hundred words replaced by words of another text, left out, or
// followed by one more, each a third of them.
template <int kPercent>
std::string edited(const Material& from, Random* random) {
  const std::vector<std::string> foreign = wordsOf(from.host);
  const auto anyWord = [&] { return foreign[random->below(foreign.size())]; };
  std::string text;
  std::string word;
  const auto finishWord = [&] {
    if (!word.empty() && random->below(100) < kPercent) {
      switch (random->below(3)) {
        case 0:
          word = anyWord();
          break;
        case 1:
          word.clear();
          break;
        default:
          word += ' ' + anyWord();
      }
    }
    text += std::exchange(word, {});
  };
  for (const char c : from.document) {
    if (!std::isspace(static_cast<unsigned char>(c))) {
      word += c;
      continue;
    }
    finishWord();
    text += c;
  }
  finishWord();
  return text;
}

std::string inside(const Material& from, Random*) {
  return from.host + from.document + from.other_host;
}

std::string upperCased(const Material& from, Random*) {
  std::string text = from.document;
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

std::string unrelated(const Material& from, Random*) { return from.host; }

struct Edit {
  const char* name;
  std::string (*make)(const Material& from, Random* random);
};

constexpr Edit kEdits[] = {
    {"whole_copy", copied},
    {"half", half},
    {"tenth", tenth},
    {"passage_in_other_text", passage},
    {"rewrapped", rewrapped},
    {"reordered", reordered},
    {"words_edited_1", edited<1>},
    {"words_edited_5", edited<5>},
    {"words_edited_15", edited<15>},
    {"inside_other_text", inside},
    {"upper_cased", upperCased},
    {"unrelated", unrelated},
};

}  // namespace

std::vector<std::string> queryClasses() {
  std::vector<std::string> names;
  for (const Edit& edit : kEdits) names.emplace_back(edit.name);
  return names;
}

std::vector<Query> queries(const Collection& collection, const std::string& query_class,
                           size_t count) {
  const auto edit = std::find_if(std::begin(kEdits), std::end(kEdits),
                                 [&](const Edit& one) { return one.name == query_class; });
  const auto number = static_cast<size_t>(edit - std::begin(kEdits));
  const std::vector<std::string>& indexed = collection.indexed;
  const std::vector<std::string>& hosts = collection.unrelated;
  Random random(number + 1);
  std::vector<Query> made;
  for (size_t i = 0; i < count; ++i) {
    // A stride through all documents, from another place for each class.
    const size_t source = (i * indexed.size() / count + number) % indexed.size();
    const Material from = {indexed[source], hosts[i % hosts.size()],
                           hosts[(i + hosts.size() / 2) % hosts.size()]};
    Query query = {edit->make(from, &random), source};
    if (edit->make == unrelated) query.source.reset();
    made.push_back(std::move(query));
  }
  return made;
}
