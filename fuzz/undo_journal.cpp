// Undo journals that somebody else wrote. The input makes a store, commits, and
// leaves it in the middle of another batch, as a crash would; then it bends the
// journal, with or without check sums that fit afterwards. What always holds: the
// next opening ends, no file becomes longer than the journal and the files
// justify, and a journal that nobody bent leads back to what was committed.
#include <algorithm>

#include "tree_world.h"

namespace {

using fuzz::Trees;

constexpr char kJournal[] = "s.jnl";

// Makes the check sums of page 0 and of the records fit what is there now.
void seal(MemorySystem* system) {
  std::string file = system->read(kJournal);
  if (file.size() < 4096) return;
  auto* const bytes = reinterpret_cast<unsigned char*>(file.data());
  storeLittle32(bytes + 24, 0);
  storeLittle32(bytes + 24, crc32c(bytes, 4096));
  const uint32_t nonce_crc = crc32c(bytes + 8, 8);
  for (size_t at = 4096; at + 32 <= file.size(); at += 8) {
    if (file.compare(at, 4, "OLDB") != 0) continue;
    const uint64_t length = loadLittle64(bytes + at + 16);
    if (length > file.size() - at - 32) continue;
    storeLittle32(bytes + at + 24, 0);
    storeLittle32(bytes + at + 24, crc32c(bytes + at, 32 + length, nonce_crc));
  }
  system->write(kJournal, file);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input(data, size);
  MemorySystem& system = fuzz::freshSystem();
  const uint8_t choice = input.byte();
  const uint32_t bends = (choice >> 2) % 6;
  const bool sealed = (choice & 0x80) != 0;

  fuzz::Twins twins;
  std::map<std::string, std::string> files;
  {
    Trees world(AccessType::kReadWrite);
    for (uint32_t commits = 0; commits <= (choice & 3); ++commits) {
      fuzz::change(&input, 5, &world, &twins);
      FUZZ_CHECK(world.store.commit());
    }
    fuzz::change(&input, 5, &world, nullptr);
    for (size_t i = 0; i < 12; ++i) files[fuzz::fileName(i)] = system.read(fuzz::fileName(i));
    if (system.exists(kJournal)) files[kJournal] = system.read(kJournal);
  }
  for (const auto& [name, content] : files) system.write(name, content);
  if (!system.exists(kJournal)) system.write(kJournal, "");

  for (uint32_t i = 0; i < bends; ++i) fuzz::bendFile(&input, &system, kJournal);
  if (bends > 0 && sealed) seal(&system);  // also what an earlier batch left there
  const uint64_t journal_size = system.size(kJournal);
  {
    Trees world(AccessType::kReadWrite);
    for (const auto& [name, content] : files) {
      FUZZ_CHECK(system.size(name) <= std::max<uint64_t>(content.size(), journal_size));
    }
    if (bends == 0) fuzz::checkTwins(&world, twins);
    fuzz::useAll(&input, &world);
  }
  FUZZ_EQUAL(0, system.openFiles());
  return 0;
}
