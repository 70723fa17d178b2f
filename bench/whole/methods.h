// Three ways to recognise a document, as a host would use each of them.
#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

struct Answer {
  size_t document;  // its number in the list that was indexed
  bool strong;      // sure, as far as the method grades its answers
};

class Method {
 public:
  virtual ~Method() = default;

  // Keeps what it needs of the documents, and what it kept before no more.
  virtual void index(const std::vector<std::string>& documents) = 0;
  // All documents that the method takes for relatives of the text.
  virtual std::vector<Answer> ask(const std::string& text) = 0;
  virtual double bytesPerDocument() const = 0;
};

// An archive: a million documents that need no text of their own.
class LinearMethod : public Method {
 public:
  // Each hash again and again, in random order, until there are `documents`. The
  // answers still name the documents that were indexed.
  virtual void repeat(size_t documents) = 0;
};

// Tessera: sparse keeps the few server signatures of each document, full all that
// a client makes; the text asked about always gets the client's. Strong is level 2.
// Its index is made below `directory`, and bytes count all its files.
std::unique_ptr<Method> tesseraSparse(const std::filesystem::path& directory);
std::unique_ptr<Method> tesseraFull(const std::filesystem::path& directory);

// ssdeep: fuzzy_compare() with the hash of each document. An answer is any score
// above 0, a strong one a score of 60 or more.
std::unique_ptr<LinearMethod> ssdeep();

// TLSH: the distance, length included, to the hash of each document. An answer is
// a distance of at most 100, a strong one of at most 30.
std::unique_ptr<LinearMethod> tlsh();
