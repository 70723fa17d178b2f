#include "memory_system.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace {

using platform::OpenMode;

constexpr char kRoot[] = "/";
constexpr char kCurrentDirectory[] = "/current";
constexpr size_t kLongestName = 255;

std::string joined(const std::string& directory, const std::string& name) {
  return directory == kRoot ? directory + name : directory + "/" + name;
}

std::string parentOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == 0 ? kRoot : path.substr(0, slash);
}

// Holds nothing of the system, so it may be closed after it.
class MemoryFile final : public platform::File {
 public:
  MemoryFile(std::shared_ptr<MemorySystem::Node> node, OpenMode mode)
      : node_(std::move(node)),
        readable_(mode != OpenMode::kRewrite),
        writable_(mode != OpenMode::kRead && mode != OpenMode::kShare),
        owner_(mode == OpenMode::kOwn),
        sharer_(mode == OpenMode::kShare) {
    if (owner_) node_->owned = true;
    if (sharer_) ++node_->sharers;
    ++node_->handles;
  }
  ~MemoryFile() override {
    if (owner_) node_->owned = false;
    if (sharer_) --node_->sharers;
    --node_->handles;
  }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  bool seek(uint64_t offset) override {
    if (offset > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return false;
    position_ = offset;
    return true;
  }

  int64_t read(void* buffer, size_t bytes) override {
    if (!readable_) return -1;
    const std::string& content = node_->bytes;
    if (position_ >= content.size()) return 0;
    const size_t got = std::min<uint64_t>(bytes, content.size() - position_);
    if (got > 0) std::memcpy(buffer, content.data() + position_, got);
    position_ += got;
    return static_cast<int64_t>(got);
  }

  bool write(const void* data, size_t bytes) override {
    if (!writable_) return false;
    if (bytes == 0) return true;
    if (position_ > MemorySystem::kDiskBytes || bytes > MemorySystem::kDiskBytes - position_) {
      return false;
    }
    std::string& content = node_->bytes;
    if (content.size() < position_ + bytes) content.resize(position_ + bytes, '\0');
    std::memcpy(content.data() + position_, data, bytes);
    position_ += bytes;
    return true;
  }

  int64_t size() override { return static_cast<int64_t>(node_->bytes.size()); }

  bool truncate(uint64_t size) override {
    if (!writable_ || size > MemorySystem::kDiskBytes) return false;
    node_->bytes.resize(size, '\0');
    return true;
  }

  bool sync() override { return true; }

 private:
  const std::shared_ptr<MemorySystem::Node> node_;
  const bool readable_;
  const bool writable_;
  const bool owner_;
  const bool sharer_;
  uint64_t position_ = 0;
};

}  // namespace

MemorySystem::MemorySystem() { clear(); }

void MemorySystem::clear() {
  files_.clear();
  directories_ = {kRoot, kCurrentDirectory, "/tmp"};
  environment_.clear();
  largest_request_ = 0;
}

void MemorySystem::write(const std::string& path, const std::string& content) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    makeDirectory(path.substr(0, slash).c_str());
  }
  auto& node = files_[resolve(path).path];
  if (!node) node = std::make_shared<Node>();
  node->bytes = content;
}

std::string MemorySystem::read(const std::string& path) const {
  const auto node = find(path);
  return node ? node->bytes : std::string();
}

bool MemorySystem::exists(const std::string& path) const { return find(path) != nullptr; }

uint64_t MemorySystem::size(const std::string& path) const {
  const auto node = find(path);
  return node ? node->bytes.size() : 0;
}

void MemorySystem::truncate(const std::string& path, uint64_t size) {
  const auto node = find(path);
  if (node) node->bytes.resize(size, '\0');
}

std::vector<std::string> MemorySystem::names(const std::string& directory) const {
  const std::string base = resolve(directory).path;
  std::vector<std::string> found;
  for (const auto& [path, node] : files_) {
    if (parentOf(path) == base) found.push_back(path.substr(joined(base, "").size()));
  }
  return found;
}

int MemorySystem::openFiles() const {
  int handles = 0;
  for (const auto& [path, node] : files_) handles += node->handles;
  return handles;
}

void MemorySystem::setEnvironment(const std::string& name, const std::string& value) {
  environment_[name] = value;
}

MemorySystem::Place MemorySystem::resolve(const std::string& path) const {
  Place place = {path.empty() ? ENOENT : 0, path[0] == '/' ? kRoot : kCurrentDirectory, true};
  for (size_t begin = 0; begin < path.size() && place.error == 0;) {
    const size_t end = std::min(path.find('/', begin), path.size());
    const std::string name = path.substr(begin, end - begin);
    begin = end + 1;
    if (name.empty()) continue;
    // Whatever follows, what there is so far must be a directory.
    if (!directories_.contains(place.path)) {
      place.error = files_.contains(place.path) ? ENOTDIR : ENOENT;
    } else if (name == "..") {
      place.path = parentOf(place.path);
    } else if (name.size() > kLongestName) {
      place.error = ENAMETOOLONG;
    } else if (name != ".") {
      place.path = joined(place.path, name);
    }
    place.directory_only = end < path.size() || name == "." || name == "..";
  }
  return place;
}

std::shared_ptr<MemorySystem::Node> MemorySystem::find(const std::string& path) const {
  const Place place = resolve(path);
  if (place.error != 0 || place.directory_only) return nullptr;
  const auto found = files_.find(place.path);
  return found == files_.end() ? nullptr : found->second;
}

std::unique_ptr<platform::File> MemorySystem::open(const char* path, OpenMode mode) {
  const Place place = resolve(path);
  if (place.error != 0 || place.directory_only || directories_.contains(place.path)) {
    return nullptr;
  }
  const auto found = files_.find(place.path);
  std::shared_ptr<Node> node = found == files_.end() ? nullptr : found->second;
  if (!node) {
    if (mode == OpenMode::kRead || mode == OpenMode::kShare) return nullptr;
    node = std::make_shared<Node>();
    files_[place.path] = node;
  }
  if (mode == OpenMode::kOwn && (node->owned || node->sharers > 0)) return nullptr;
  if (mode == OpenMode::kShare && node->owned) return nullptr;
  if (mode == OpenMode::kNew && found != files_.end()) return nullptr;
  if (mode == OpenMode::kRewrite) node->bytes.clear();
  return std::make_unique<MemoryFile>(std::move(node), mode);
}

// There are no links.
bool MemorySystem::finalPath(const char* path, std::string* final_path) {
  *final_path = path;
  return true;
}

// Nor rights.
bool MemorySystem::copyRights(const char* from, const char* to) {
  return !directories_.contains(resolve(from).path) && (!find(from) || find(to));
}

bool MemorySystem::remove(const char* path) {
  const Place place = resolve(path);
  return place.error == 0 && !place.directory_only && files_.erase(place.path) > 0;
}

// Files only: the library renames no directories.
bool MemorySystem::rename(const char* from, const char* to) {
  const auto node = find(from);
  const Place target = resolve(to);
  if (!node || target.error != 0 || target.directory_only || directories_.contains(target.path)) {
    return false;
  }
  files_.erase(resolve(from).path);
  files_[target.path] = node;
  return true;
}

bool MemorySystem::syncDirectory(const char* path) {
  const Place place = resolve(path);
  return place.error == 0 && directories_.contains(place.path);
}

bool MemorySystem::toNativePath(const char* utf8, platform::PathChar* native, size_t units) {
  const size_t needed = std::strlen(utf8) + 1;
  if (needed > units) return false;
  std::memcpy(native, utf8, needed);
  return true;
}

int MemorySystem::access(const platform::PathChar* path) {
  const Place place = resolve(path);
  if (place.error != 0) return place.error;
  if (directories_.contains(place.path)) return 0;
  if (!files_.contains(place.path)) return ENOENT;
  return place.directory_only ? ENOTDIR : 0;
}

int MemorySystem::makeDirectory(const platform::PathChar* path) {
  const Place place = resolve(path);
  if (place.error != 0) return place.error;
  if (files_.contains(place.path)) return EEXIST;
  return directories_.insert(place.path).second ? 0 : EEXIST;
}

const char* MemorySystem::environment(const char* name) {
  const auto found = environment_.find(name);
  return found == environment_.end() ? nullptr : found->second.c_str();
}

void* MemorySystem::allocate(size_t bytes) {
  largest_request_ = std::max(largest_request_, bytes);
  return bytes > kMemoryBytes ? nullptr : std::malloc(bytes);
}
