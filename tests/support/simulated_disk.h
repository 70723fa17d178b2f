// A file system in memory whose power can fail at any moment.
//
// What was written but not synced may then be there, or not, or in parts:
//
//   content  every change of a file since its last sync() reached the disk or
//            did not, for each sector of 512 bytes on its own; a length is one
//            the file had since then, or lies on the way to it. In runs that
//            want it so, a sector that was being written holds garbage, all of it
//            or from somewhere on.
//   names    every creation, removal and renaming since the last
//            syncDirectory() of that directory happened or did not, each on its
//            own. sync() of a file does nothing for its name.
//   owners   nobody owns a file any more.
//
// What was synced stays. An open file cannot be removed or renamed, which is
// the stricter way of the two systems. Tests: tests/fault/simulated_disk_test.cpp.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "documents.h"
#include "platform.h"

// While it lives it is the platform's system; only one at a time, one thread.
class SimulatedDisk final : public platform::System {
 public:
  static constexpr size_t kSectorBytes = 512;

  explicit SimulatedDisk(uint64_t seed, uint32_t granularity = 1024);
  ~SimulatedDisk() override;
  SimulatedDisk(const SimulatedDisk&) = delete;
  SimulatedDisk& operator=(const SimulatedDisk&) = delete;

  // Three hardships that are off at first: sectors under writing turn to garbage;
  // every second removal fails, as when some other program looks into the file;
  // syncDirectory() does nothing and does not tell.
  void setGarbage(bool garbage) { garbage_ = garbage; }
  void setRemovalsFail(bool fail) { removals_fail_ = fail; }
  bool removalsFail() const { return removals_fail_; }
  void setDirectorySyncsWork(bool work) { directory_syncs_work_ = work; }

  // The n-th sync of a file from now on fails. As on real systems, what it did not
  // take to the disk stays to be seen, and no later sync knows that it is missing.
  void failSync(uint64_t n) { syncs_until_failure_ = n; }

  // The power fails in the n-th change from now on, a sync being one, too. That
  // change may still reach the disk like any unsynced one; its call and all
  // later ones fail. 0: not at all.
  void crashAt(uint64_t n) { crash_at_ = n == 0 ? 0 : changes_ + n; }
  bool crashed() const { return crashed_; }

  // Decides what is lost and brings the system up again. Files that were open
  // fail for good.
  void losePower();

  std::vector<std::string> names() const;  // of the files, sorted
  std::string content(const std::string& name) const;

  std::unique_ptr<platform::File> open(const char* path, platform::OpenMode mode) override;
  bool remove(const char* path) override;
  bool rename(const char* from, const char* to) override;
  bool syncDirectory(const char* path) override;
  bool finalPath(const char* path, std::string* final_path) override;
  bool copyRights(const char* from, const char* to) override;
  bool toNativePath(const char* utf8, platform::PathChar* native, size_t units) override;
  int access(const platform::PathChar* path) override;
  int makeDirectory(const platform::PathChar* path) override;
  uint32_t allocationGranularity() override { return granularity_; }
  const char* environment(const char* name) override;
  int64_t time() override;
  void* allocate(size_t bytes) override;

 private:
  friend class SimulatedFile;

  // A write, or with `is_length` a new length.
  struct Change {
    bool is_length;
    uint64_t offset;  // or the length
    std::string data;
  };

  struct Inode {
    std::string content;  // what everybody sees
    std::string durable;  // what was there at the last sync
    std::vector<Change> unsynced;
    int open = 0;
    bool owned = false;
    int sharers = 0;
  };
  using InodeRef = std::shared_ptr<Inode>;
  using Names = std::map<std::string, InodeRef>;

  // A name gets a file, or loses it (null); a renaming is both at once.
  struct NameChange {
    std::string name;
    InodeRef inode;
    std::string old_name;
  };

  bool running() const { return !crashed_; }
  bool powerStays();  // counts a change
  void apply(const InodeRef& inode, Change change);
  void settle(Inode* inode);
  static void applyTo(Names* names, const NameChange& change);
  static void applyTo(std::string* content, const Change& change);

  const uint32_t granularity_;
  documents::Random random_;
  bool garbage_ = false;
  bool removals_fail_ = false;
  bool directory_syncs_work_ = true;
  uint64_t syncs_until_failure_ = 0;
  uint64_t changes_ = 0;
  uint64_t crash_at_ = 0;
  bool crashed_ = false;
  uint64_t boot_ = 0;  // files opened before the last loss of power are dead
  Names names_;
  Names durable_names_;
  std::vector<NameChange> unsynced_names_;
};
