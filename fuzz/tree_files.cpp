// Tree files that somebody else wrote. The input makes a store of three trees,
// then bends its files, with or without check sums that fit afterwards. What
// always holds: damage is found or does no harm, nothing hangs, and files that
// nobody bent, or whose bent bytes a check sum covers, give what was stored.
#include <algorithm>

#include "tree_world.h"

namespace {

using fuzz::Trees;

// Makes the check sums of header, blocks and stack fit what is there now.
void seal(MemorySystem* system, size_t number) {
  const std::string name = fuzz::fileName(number);
  std::string file = system->read(name);
  auto* const bytes = reinterpret_cast<unsigned char*>(file.data());
  const bool is_stack = number % 2 == 1;
  if (is_stack) {
    if (file.size() < 16) return;
    storeLittle32(bytes + 4, 0);
    storeLittle32(bytes + 4, crc32c(bytes, file.size()));
    system->write(name, file);
    return;
  }
  if (file.size() < kBlockFileHeaderBytes) return;
  storeLittle32(bytes + 96, 0);
  storeLittle32(bytes + 96, crc32c(bytes, kBlockFileHeaderBytes));
  const size_t block = system->allocationGranularity();
  const size_t entry = number % 4 == 0 ? 8 : 16;
  for (size_t at = block; at + block <= file.size(); at += block) {
    const size_t used = std::min(block, sizeof(BlockHead) + loadLittle32(bytes + at + 20) * entry);
    storeLittle32(bytes + at + 4, 0);
    storeLittle32(bytes + at + 4, crc32c(bytes + at, used));
  }
  system->write(name, file);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input(data, size);
  MemorySystem& system = fuzz::freshSystem();
  const uint8_t choice = input.byte();
  const uint32_t sessions = 1 + (choice & 3);
  const uint32_t bends = (choice >> 2) % 6;
  const bool sealed = (choice & 0x80) != 0;

  fuzz::Twins twins;
  for (uint32_t session = 0; session < sessions; ++session) {
    Trees world(AccessType::kReadWrite);
    FUZZ_CHECK(world.store.valid());
    fuzz::change(&input, 6, &world, &twins);
  }
  bool may_be_absent = false;
  for (uint32_t i = 0; i < bends; ++i) {
    const size_t number = input.below(12);
    fuzz::bendFile(&input, &system, fuzz::fileName(number));
    may_be_absent = may_be_absent || system.size(fuzz::fileName(number)) == 0;
    if (sealed) seal(&system, number);
  }

  {
    Trees world(AccessType::kReadOnly);
    bool sound = world.store.valid();
    for (auto& tree : world.trees) sound = tree->verify() && sound;
    if (bends == 0) FUZZ_CHECK(sound);
    // A check sum that was not made to fit covers all that is used.
    if (sound && !sealed && !may_be_absent) fuzz::checkTwins(&world, twins);
  }
  {
    Trees world(AccessType::kReadWrite);
    if (bends == 0) fuzz::checkTwins(&world, twins);
    fuzz::useAll(&input, &world);
  }
  FUZZ_EQUAL(0, system.openFiles());
  return 0;
}
