#include "methods.h"

#include <fuzzy.h>
#include <tlsh.h>

#include <array>
#include <stdexcept>
#include <utility>

#include "documents.h"
#include "host.h"

namespace fs = std::filesystem;

namespace {

class Tessera final : public Method {
 public:
  Tessera(fs::path directory, int platform)
      : directory_(std::move(directory)), platform_(platform) {}
  ~Tessera() override { forget(); }

  void index(const std::vector<std::string>& documents) override {
    forget();
    host::Signatures signatures;
    host::makeIndex(directory_, documents.size(), [&](size_t i) -> const host::Signatures& {
      return signatures = host::generate(documents[i], platform_);
    });
    documents_ = documents.size();
  }

  std::vector<Answer> ask(const std::string& text) override {
    host::loadTables(directory_);
    std::vector<Answer> answers;
    for (const host::Match& match :
         host::match(host::generate(text, TESSERA_CLIENT), text.size())) {
      answers.push_back({static_cast<size_t>(match.file_id), match.level == 2});
    }
    return answers;
  }

  double bytesPerDocument() const override {
    return static_cast<double>(host::indexBytes(directory_)) / static_cast<double>(documents_);
  }

 private:
  void forget() {
    if (documents_ == 0) return;
    host::releaseTables();
    fs::current_path(directory_.parent_path());
    fs::remove_all(directory_);
    documents_ = 0;
  }

  const fs::path directory_;
  const int platform_;
  size_t documents_ = 0;
};

const unsigned char* bytesOf(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

class Ssdeep final : public LinearMethod {
 public:
  void index(const std::vector<std::string>& documents) override {
    entries_.clear();
    for (size_t i = 0; i < documents.size(); ++i) entries_.push_back({hashOf(documents[i]), i});
  }

  std::vector<Answer> ask(const std::string& text) override {
    const Hash hash = hashOf(text);
    std::vector<Answer> answers;
    for (const Entry& entry : entries_) {
      const int score = fuzzy_compare(hash.data(), entry.hash.data());
      if (score > 0) answers.push_back({entry.document, score >= 60});
    }
    return answers;
  }

  double bytesPerDocument() const override {
    size_t bytes = 0;
    for (const Entry& entry : entries_) bytes += std::string(entry.hash.data()).size();
    return static_cast<double>(bytes) / static_cast<double>(entries_.size());
  }

  void repeat(size_t documents) override {
    documents::Random random(4);
    const size_t distinct = entries_.size();
    while (entries_.size() < documents) entries_.push_back(Entry(entries_[random.below(distinct)]));
  }

 private:
  using Hash = std::array<char, FUZZY_MAX_RESULT>;  // a string
  struct Entry {
    Hash hash;
    size_t document;
  };

  static Hash hashOf(const std::string& text) {
    Hash hash;
    if (fuzzy_hash_buf(bytesOf(text), static_cast<uint32_t>(text.size()), hash.data()) != 0) {
      throw std::runtime_error("fuzzy_hash_buf fails");
    }
    return hash;
  }

  std::vector<Entry> entries_;
};

class TrendHash final : public LinearMethod {
 public:
  void index(const std::vector<std::string>& documents) override {
    entries_.clear();
    for (size_t i = 0; i < documents.size(); ++i) {
      auto hash = hashOf(documents[i]);
      if (hash) entries_.push_back({std::move(hash), i});
    }
  }

  std::vector<Answer> ask(const std::string& text) override {
    std::vector<Answer> answers;
    const auto hash = hashOf(text);
    if (!hash) return answers;
    for (const Entry& entry : entries_) {
      const int distance = hash->totalDiff(entry.hash.get());
      if (distance <= 100) answers.push_back({entry.document, distance <= 30});
    }
    return answers;
  }

  // Half of what its hexadecimal form has.
  double bytesPerDocument() const override { return TLSH_STRING_LEN / 2.0; }

  void repeat(size_t documents) override {
    documents::Random random(4);
    const size_t distinct = entries_.size();
    while (entries_.size() < documents) {
      const Entry& entry = entries_[random.below(distinct)];
      auto hash = std::make_unique<Tlsh>();
      hash->fromTlshStr(entry.hash->getHash());
      entries_.push_back({std::move(hash), entry.document});
    }
  }

 private:
  struct Entry {
    std::unique_ptr<Tlsh> hash;
    size_t document;
  };

  // Null when the text is too short or too plain for a hash.
  static std::unique_ptr<Tlsh> hashOf(const std::string& text) {
    auto hash = std::make_unique<Tlsh>();
    hash->final(bytesOf(text), static_cast<unsigned>(text.size()));
    const char* const written = hash->getHash();
    return written != nullptr && *written != '\0' ? std::move(hash) : nullptr;
  }

  std::vector<Entry> entries_;
};

}  // namespace

std::unique_ptr<Method> tesseraSparse(const fs::path& directory) {
  return std::make_unique<Tessera>(directory, TESSERA_SERVER);
}

std::unique_ptr<Method> tesseraFull(const fs::path& directory) {
  return std::make_unique<Tessera>(directory, TESSERA_CLIENT);
}

std::unique_ptr<LinearMethod> ssdeep() { return std::make_unique<Ssdeep>(); }

std::unique_ptr<LinearMethod> tlsh() { return std::make_unique<TrendHash>(); }
