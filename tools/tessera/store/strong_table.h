// Reads what the index holds from its strong search table, whose layout is in
// docs/formats.md: every pair of a signature and a document, by signature.
// Tests: tests/tool/store_verbs_test.py.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>

#include "library/signature_list.h"

namespace tool {

// The one in the directory of an index; empty when there is none.
std::filesystem::path strongTable(const std::filesystem::path& index);

// All pairs but those of the library's own document. Throws Failure when the table
// cannot be read.
void eachPosting(const std::filesystem::path& index,
                 const std::function<void(const Signature&, int64_t file_id)>& visit);

}  // namespace tool
