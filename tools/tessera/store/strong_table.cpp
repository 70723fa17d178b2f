#include "store/strong_table.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <fstream>
#include <system_error>
#include <vector>

#include "cli/names.h"
#include "failure.h"
#include "library/library.h"

namespace fs = std::filesystem;

namespace tool {

namespace {

static_assert(std::endian::native == std::endian::little, "numbers are read as they stand");

struct Posting {
  Signature signature;
  int32_t offset;  // of the file ID from the index's base
  int32_t source;
};
static_assert(sizeof(Posting) == 16, "read as it stands");

[[noreturn]] void fail(const fs::path& file) {
  throw Failure(
      fmt::format("cannot read {}: it is damaged or was never finished\n"
                  "'tessera rebuild' writes it anew.",
                  shownName(file.native())));
}

int64_t baseOf(const fs::path& index) {
  int64_t base = 0;
  std::ifstream file(index / "meta_data.bin", std::ios::binary);
  if (!file.read(reinterpret_cast<char*>(&base), sizeof base)) fail(index / "meta_data.bin");
  return base;
}

}  // namespace

fs::path strongTable(const fs::path& index) {
  std::error_code error;
  for (fs::directory_iterator entry(index, error), end; !error && entry != end;
       entry.increment(error)) {
    if (entry->path().extension() == ".stbl") return entry->path();
  }
  return {};
}

void eachPosting(const fs::path& index,
                 const std::function<void(const Signature&, int64_t file_id)>& visit) {
  const fs::path path = strongTable(index);
  if (path.empty()) fail(index);
  const int64_t base = baseOf(index);
  std::ifstream file(path, std::ios::binary);
  std::vector<Posting> postings(4096);
  while (file) {
    file.read(reinterpret_cast<char*>(postings.data()),
              static_cast<std::streamsize>(postings.size() * sizeof(Posting)));
    const auto got = static_cast<size_t>(file.gcount());
    if (file.bad() || got % sizeof(Posting) != 0) fail(path);
    for (size_t i = 0; i < got / sizeof(Posting); ++i) {
      const int64_t id = base + postings[i].offset;
      if (id != kRootFileId) visit(postings[i].signature, id);
    }
  }
  if (!file.eof()) fail(path);
}

}  // namespace tool
