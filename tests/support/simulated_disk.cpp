#include "simulated_disk.h"

#include <algorithm>
#include <cerrno>

namespace {

std::string directoryOf(const std::string& path) {
  const size_t separator = path.find_last_of("/\\");
  return separator == std::string::npos ? "." : path.substr(0, separator);
}

}  // namespace

class SimulatedFile final : public platform::File {
 public:
  SimulatedFile(SimulatedDisk* disk, SimulatedDisk::InodeRef inode, platform::OpenMode mode)
      : disk_(disk), boot_(disk->boot_), inode_(std::move(inode)), mode_(mode) {
    ++inode_->open;
    if (mode_ == platform::OpenMode::kOwn) inode_->owned = true;
    if (mode_ == platform::OpenMode::kShare) ++inode_->sharers;
  }

  ~SimulatedFile() override {
    if (boot_ != disk_->boot_) return;
    --inode_->open;
    if (mode_ == platform::OpenMode::kOwn) inode_->owned = false;
    if (mode_ == platform::OpenMode::kShare) --inode_->sharers;
  }

  bool seek(uint64_t offset) override {
    if (!alive()) return false;
    position_ = offset;
    return true;
  }

  int64_t read(void* buffer, size_t bytes) override {
    if (!alive() || mode_ == platform::OpenMode::kRewrite) return -1;
    const std::string& content = inode_->content;
    if (position_ >= content.size()) return 0;
    const size_t got = content.copy(static_cast<char*>(buffer), bytes, position_);
    position_ += got;
    return static_cast<int64_t>(got);
  }

  bool write(const void* data, size_t bytes) override {
    if (!writable()) return false;
    const bool done = disk_->powerStays();
    disk_->apply(inode_, {false, position_, std::string(static_cast<const char*>(data), bytes)});
    position_ += bytes;
    return done;
  }

  int64_t size() override { return alive() ? static_cast<int64_t>(inode_->content.size()) : -1; }

  bool truncate(uint64_t size) override {
    if (!writable()) return false;
    const bool done = disk_->powerStays();
    disk_->apply(inode_, {true, size, ""});
    return done;
  }

  bool sync() override {
    if (!alive() || !disk_->powerStays()) return false;
    if (disk_->syncs_until_failure_ > 0 && --disk_->syncs_until_failure_ == 0) {
      std::erase_if(inode_->unsynced, [this](const auto&) { return disk_->random_.oneIn(2); });
      for (const auto& change : inode_->unsynced) SimulatedDisk::applyTo(&inode_->durable, change);
      inode_->unsynced.clear();
      return false;
    }
    for (const auto& change : inode_->unsynced) SimulatedDisk::applyTo(&inode_->durable, change);
    inode_->unsynced.clear();
    return true;
  }

 private:
  bool alive() const { return disk_->running() && boot_ == disk_->boot_; }
  bool writable() const {
    return alive() && mode_ != platform::OpenMode::kRead && mode_ != platform::OpenMode::kShare;
  }

  SimulatedDisk* const disk_;
  const uint64_t boot_;
  const SimulatedDisk::InodeRef inode_;
  const platform::OpenMode mode_;
  uint64_t position_ = 0;
};

SimulatedDisk::SimulatedDisk(uint64_t seed, uint32_t granularity)
    : granularity_(granularity), random_(seed) {
  platform::replace(this);
}

SimulatedDisk::~SimulatedDisk() { platform::replace(nullptr); }

bool SimulatedDisk::powerStays() {
  ++changes_;
  if (changes_ == crash_at_) crashed_ = true;
  return !crashed_;
}

void SimulatedDisk::applyTo(std::string* content, const Change& change) {
  if (change.is_length) {
    content->resize(change.offset);
    return;
  }
  content->resize(std::max<size_t>(content->size(), change.offset + change.data.size()));
  content->replace(change.offset, change.data.size(), change.data);
}

void SimulatedDisk::apply(const InodeRef& inode, Change made) {
  applyTo(&inode->content, made);
  inode->unsynced.push_back(std::move(made));
}

void SimulatedDisk::applyTo(Names* names, const NameChange& change) {
  if (!change.old_name.empty()) names->erase(change.old_name);
  if (change.inode) {
    (*names)[change.name] = change.inode;
  } else {
    names->erase(change.name);
  }
}

// What of a file is on the disk after a loss of power.
void SimulatedDisk::settle(Inode* inode) {
  inode->open = 0;
  inode->owned = false;
  inode->sharers = 0;
  if (inode->unsynced.empty()) {
    inode->content = inode->durable;  // another one after a sync that failed
    return;
  }
  const size_t changes = inode->unsynced.size();

  // Chances alone would hardly ever lose or keep a whole file.
  enum Fate { kLost, kKept, kTheFirst, kEachOnItsOwn, kSectors, kFates };
  const auto fate = static_cast<Fate>(random_.below(kFates));
  const size_t first = random_.below(changes + 1);
  const uint64_t kept_of_8 = 1 + random_.below(7);

  // Every length the file has had, and a buffer for the longest.
  std::vector<size_t> lengths = {inode->durable.size()};
  for (const Change& made : inode->unsynced) {
    lengths.push_back(made.is_length
                          ? made.offset
                          : std::max<size_t>(lengths.back(), made.offset + made.data.size()));
  }
  const size_t longest = *std::max_element(lengths.begin(), lengths.end());
  std::string left = inode->durable;
  left.resize(longest);
  std::vector<bool> written((longest + kSectorBytes - 1) / kSectorBytes, false);
  size_t length = inode->durable.size();

  for (size_t i = 0; i < changes; ++i) {
    const Change& made = inode->unsynced[i];
    const bool whole = fate == kKept || (fate == kTheFirst && i < first) ||
                       (fate == kEachOnItsOwn && random_.below(8) < kept_of_8);
    if (whole) {
      length =
          made.is_length ? made.offset : std::max<size_t>(length, made.offset + made.data.size());
    }
    if (made.is_length) {
      // What a cut takes away comes back as zeros if the file grows again.
      if (whole) left.resize(std::min<size_t>(made.offset, longest));
      left.resize(longest);
      continue;
    }
    const size_t end = made.offset + made.data.size();
    for (size_t at = made.offset; at < end;) {
      const size_t sector = at / kSectorBytes;
      const size_t sector_end = std::min(end, (sector + 1) * kSectorBytes);
      written[sector] = true;
      if (whole || (fate == kSectors && random_.below(8) < kept_of_8)) {
        left.replace(at, sector_end - at, made.data, at - made.offset, sector_end - at);
      }
      at = sector_end;
    }
  }

  if (fate == kSectors) length = lengths[random_.below(lengths.size())];
  if (fate != kKept && length > inode->durable.size() && random_.oneIn(4)) {
    // On the way there; the disk's own lengths end where sectors do.
    length =
        std::max(inode->durable.size(), random_.below(length / kSectorBytes + 1) * kSectorBytes);
  }
  if (garbage_) {
    for (size_t sector = 0; sector < written.size(); ++sector) {
      if (!written[sector] || !random_.oneIn(8)) continue;
      const size_t end = std::min(left.size(), (sector + 1) * kSectorBytes);
      const size_t sound = random_.oneIn(2) ? random_.below(kSectorBytes) : 0;
      for (size_t at = sector * kSectorBytes + sound; at < end; ++at) {
        left[at] = static_cast<char>(random_.next());
      }
    }
  }
  left.resize(length);
  inode->durable = left;
  inode->content = std::move(left);
  inode->unsynced.clear();
}

void SimulatedDisk::losePower() {
  const uint64_t kept_of_8 = random_.oneIn(3) ? 0 : random_.oneIn(3) ? 8 : random_.below(9);
  // Files nobody will ever find again need no settling, so the names first.
  for (const NameChange& made : unsynced_names_) {
    if (random_.below(8) < kept_of_8) applyTo(&durable_names_, made);
  }
  unsynced_names_.clear();
  names_ = durable_names_;
  for (const auto& [name, inode] : names_) settle(inode.get());
  ++boot_;
  crash_at_ = 0;
  crashed_ = false;
}

std::vector<std::string> SimulatedDisk::names() const {
  std::vector<std::string> all;
  for (const auto& [name, inode] : names_) all.push_back(name);
  return all;
}

std::string SimulatedDisk::content(const std::string& name) const {
  const auto found = names_.find(name);
  return found == names_.end() ? "" : found->second->content;
}

std::unique_ptr<platform::File> SimulatedDisk::open(const char* path, platform::OpenMode mode) {
  using platform::OpenMode;
  if (!running()) return nullptr;
  const auto found = names_.find(path);
  InodeRef inode = found == names_.end() ? nullptr : found->second;
  if (inode && mode == OpenMode::kOwn && (inode->owned || inode->sharers > 0)) return nullptr;
  if (inode && mode == OpenMode::kShare && inode->owned) return nullptr;
  if (inode && mode == OpenMode::kNew) return nullptr;
  if (!inode) {
    if (mode == OpenMode::kRead || mode == OpenMode::kShare) return nullptr;
    const bool done = powerStays();
    inode = std::make_shared<Inode>();
    unsynced_names_.push_back({path, inode, ""});
    applyTo(&names_, unsynced_names_.back());
    if (!done) return nullptr;
  } else if (mode == OpenMode::kRewrite) {
    const bool done = powerStays();
    apply(inode, {true, 0, ""});
    if (!done) return nullptr;
  }
  return std::make_unique<SimulatedFile>(this, inode, mode);
}

bool SimulatedDisk::remove(const char* path) {
  const auto found = names_.find(path);
  if (!running() || found == names_.end() || found->second->open > 0) return false;
  if (removals_fail_ && random_.oneIn(2)) return false;
  const bool done = powerStays();
  unsynced_names_.push_back({path, nullptr, ""});
  applyTo(&names_, unsynced_names_.back());
  return done;
}

bool SimulatedDisk::rename(const char* from, const char* to) {
  const auto found = names_.find(from);
  const auto replaced = names_.find(to);
  if (!running() || found == names_.end() || found->second->open > 0 ||
      (replaced != names_.end() && replaced->second->open > 0)) {
    return false;
  }
  const bool done = powerStays();
  unsynced_names_.push_back({to, found->second, from});
  applyTo(&names_, unsynced_names_.back());
  return done;
}

bool SimulatedDisk::syncDirectory(const char* path) {
  if (!running() || !powerStays()) return false;
  if (!directory_syncs_work_) return true;
  std::string directory = path;
  if (directory.size() > 1 && directory.back() == '/') directory.pop_back();
  std::vector<NameChange> others;
  for (const NameChange& made : unsynced_names_) {
    if (directoryOf(made.name) == directory) {
      applyTo(&durable_names_, made);
    } else {
      others.push_back(made);
    }
  }
  unsynced_names_ = std::move(others);
  return true;
}

bool SimulatedDisk::finalPath(const char* path, std::string* final_path) {
  *final_path = path;  // there are no links
  return true;
}

bool SimulatedDisk::copyRights(const char*, const char*) { return true; }  // nor rights

bool SimulatedDisk::toNativePath(const char* utf8, platform::PathChar* native, size_t units) {
  return platform::native().toNativePath(utf8, native, units);
}

int SimulatedDisk::access(const platform::PathChar* path) {
  std::string name;
  for (; *path != 0; ++path) name.push_back(static_cast<char>(*path));
  return running() && names_.contains(name) ? 0 : ENOENT;
}

int SimulatedDisk::makeDirectory(const platform::PathChar*) { return running() ? 0 : EIO; }

const char* SimulatedDisk::environment(const char* name) {
  return platform::native().environment(name);
}

int64_t SimulatedDisk::time() { return platform::native().time(); }

void* SimulatedDisk::allocate(size_t bytes) { return platform::native().allocate(bytes); }
