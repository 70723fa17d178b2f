// Search tables written straight into their files: the tables of a million documents
// in seconds, byte for byte those that an index of the same documents leaves.
#pragma once

#include <filesystem>

#include "collection.h"
#include "documents.h"
#include "host.h"

// Writes the tables of the documents 0 to `documents` - 1 into a new directory, from
// which host::loadTables() loads them. Throws std::runtime_error when that fails.
// Returns how many elements they have.
size_t writeTables(const std::filesystem::path& directory, size_t documents,
                   const host::SignatureSource& signatures);

// The server signatures of an archive: those of the collection first, then
// made-up ones. A made-up signature sums the letters of two half windows of the
// collection, so that they crowd as real ones do; a document has 10 to 30 of them,
// as texts of 12 to 40 KB have.
class Archive {
 public:
  explicit Archive(const Collection& collection);

  // To be called for ascending numbers from 0 on: the made-up lists come from one
  // row of random numbers.
  const host::Signatures& operator()(size_t document);

 private:
  std::vector<host::Signatures> real_;
  std::vector<uint64_t> first_halves_;   // eight sums of letters
  std::vector<uint64_t> second_halves_;  // each
  documents::Random random_;
  host::Signatures made_up_;
};
