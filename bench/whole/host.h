// The library as a host uses it, through its exports alone. A failed call throws
// std::runtime_error.
//
// The library keeps one generator, one open index and one set of loaded tables
// for each process, and looks for its files in the current directory: these
// functions change all of them, so only match() may run beside itself.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string_view>
#include <vector>

#include "signature.h"
#include "tessera.h"

namespace host {

using Signatures = std::vector<Signature>;

struct Match {
  int64_t file_id;
  int level;
};

// `platform` is TESSERA_SERVER or TESSERA_CLIENT.
Signatures generate(std::string_view text, int platform);

// Gives the signatures of document number `document`; the reference holds until
// the next call.
using SignatureSource = std::function<const Signatures&(size_t document)>;

// Makes an index, in a new directory, of the documents 0 to `documents` - 1.
// Documents without signatures stay out.
void makeIndex(const std::filesystem::path& directory, size_t documents,
               const SignatureSource& signatures);

// What all files of the index below a directory take.
uintmax_t indexBytes(const std::filesystem::path& directory);

// A new directory with the settings file, as current directory.
void enterNew(const std::filesystem::path& directory);

// Loads the tables of a directory, in place of those that are loaded, and enters it.
void loadTables(const std::filesystem::path& directory);

// Releases the tables that are loaded, if any.
void releaseTables();

// The documents that share signatures with a text of `bytes`, by the loaded tables.
std::vector<Match> match(const Signatures& signatures, size_t bytes);

}  // namespace host
