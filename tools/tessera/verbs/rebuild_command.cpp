// "tessera rebuild": makes anew what was lost of an index, from what is left.
// Tests: tests/tool/store_verbs_test.py.
#include <fmt/format.h>

#include <optional>

#include "commands.h"
#include "failure.h"
#include "store/home.h"
#include "store/store.h"
#include "tessera_store.h"

namespace tool {

namespace {

void rebuildTables(const std::filesystem::path& home) {
  requireIndex(home);
  const DirectoryLock tables(kIndexName, DirectoryLock::Kind::kExclusive);
  switch (tessera_rebuild_tables()) {
    case TESSERA_STORE_OK:
      return;
    case TESSERA_STORE_IN_USE:
      throw IndexInUse(std::filesystem::current_path());
    case TESSERA_STORE_DAMAGED:
      throw Failure(
          "the index itself is damaged\n"
          "'tessera rebuild --from-catalogue' makes a new one.");
    default:
      throw Failure("the search tables cannot be written: is the disk full?");
  }
}

}  // namespace

int rebuildCommand(const CommonOptions& common, const RebuildOptions& options) {
  Store store(common.home, Store::Missing::kRefuse,
              options.from_catalogue ? Store::Index::kReplaced : Store::Index::kKept);
  if (options.from_catalogue) {
    store.rebuild();
    fmt::print("the index was made anew\n");
  } else {
    rebuildTables(common.home);
    fmt::print("the search tables were made anew\n");
  }
  return kDone;
}

}  // namespace tool
