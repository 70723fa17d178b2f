#include "fail_point.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

constexpr size_t kFilledBytes = 1 << 20;  // of a new block; huge ones stay unused for the most part

const char* nameOf(Call call) {
  switch (call) {
    case Call::kOpen:
      return "open";
    case Call::kSeek:
      return "seek";
    case Call::kRead:
      return "read";
    case Call::kWrite:
      return "write";
    case Call::kSize:
      return "size";
    case Call::kTruncate:
      return "truncate";
    case Call::kSync:
      return "sync";
    case Call::kFinalPath:
      return "final path";
    case Call::kCopyRights:
      return "copy rights";
    case Call::kRemove:
      return "remove";
    case Call::kRename:
      return "rename";
    case Call::kSyncDirectory:
      return "sync directory";
    case Call::kToNativePath:
      return "to native path";
    case Call::kAccess:
      return "access";
    case Call::kMakeDirectory:
      return "make directory";
    case Call::kAllocate:
      return "allocate";
  }
  return "";
}

class FailingFile final : public platform::File {
 public:
  FailingFile(FailPoint* owner, std::string path, std::unique_ptr<platform::File> file)
      : owner_(owner), path_(std::move(path)), file_(std::move(file)) {}

  bool seek(uint64_t offset) override {
    return !owner_->fails(Call::kSeek, path_) && file_->seek(offset);
  }
  int64_t read(void* buffer, size_t bytes) override {
    return owner_->fails(Call::kRead, path_) ? -1 : file_->read(buffer, bytes);
  }
  bool write(const void* data, size_t bytes) override {
    if (!owner_->fails(Call::kWrite, path_)) return file_->write(data, bytes);
    file_->write(data, bytes / 2);
    return false;
  }
  int64_t size() override { return owner_->fails(Call::kSize, path_) ? -1 : file_->size(); }
  bool truncate(uint64_t size) override {
    return !owner_->fails(Call::kTruncate, path_) && file_->truncate(size);
  }
  bool sync() override { return !owner_->fails(Call::kSync, path_); }

 private:
  FailPoint* const owner_;
  const std::string path_;
  const std::unique_ptr<platform::File> file_;
};

}  // namespace

FailPoint::FailPoint() { platform::replace(this); }
FailPoint::~FailPoint() { platform::replace(nullptr); }

void FailPoint::fail(Call call, int n, bool lasting, const std::string& path_part) {
  failAny({call}, n, lasting, path_part);
}

void FailPoint::failAny(const std::set<Call>& calls, int n, bool lasting,
                        const std::string& path_part) {
  calls_ = calls;
  path_part_ = path_part;
  n_ = n;
  lasting_ = lasting;
  count_ = 0;
  failures_ = 0;
  most_ = 0;
  watched_.clear();
  bytes_allocated_ = 0;
}

bool FailPoint::fails(Call call, const std::string& path) {
  if (!calls_.contains(call) || path.find(path_part_) == std::string::npos) return false;
  ++count_;
  if (noting_) watched_.push_back(nameOf(call) + (" " + path));
  if (n_ == 0 || count_ < n_ || (count_ > n_ && !lasting_)) return false;
  if (most_ != 0 && failures_ == most_) return false;
  ++failures_;
  return true;
}

void FailPoint::setEnvironment(const char* name, const char* value) {
  environment_[name] = value != nullptr ? std::optional<std::string>(value) : std::nullopt;
}

std::unique_ptr<platform::File> FailPoint::open(const char* path, platform::OpenMode mode) {
  if (fails(Call::kOpen, path)) return nullptr;
  auto file = platform::native().open(path, mode);
  if (!file) return nullptr;
  return std::make_unique<FailingFile>(this, path, std::move(file));
}

bool FailPoint::finalPath(const char* path, std::string* final_path) {
  return !fails(Call::kFinalPath, path) && platform::native().finalPath(path, final_path);
}

bool FailPoint::copyRights(const char* from, const char* to) {
  return !fails(Call::kCopyRights, from) && platform::native().copyRights(from, to);
}

bool FailPoint::remove(const char* path) {
  return !fails(Call::kRemove, path) && platform::native().remove(path);
}

bool FailPoint::rename(const char* from, const char* to) {
  return !fails(Call::kRename, from) && platform::native().rename(from, to);
}

bool FailPoint::syncDirectory(const char* path) {
  return !fails(Call::kSyncDirectory, path);
}

bool FailPoint::toNativePath(const char* utf8, platform::PathChar* native, size_t units) {
  return !fails(Call::kToNativePath, utf8) && platform::native().toNativePath(utf8, native, units);
}

int FailPoint::access(const platform::PathChar* path) {
  return fails(Call::kAccess, "") ? EACCES : platform::native().access(path);
}

int FailPoint::makeDirectory(const platform::PathChar* path) {
  return fails(Call::kMakeDirectory, "") ? EACCES : platform::native().makeDirectory(path);
}

uint32_t FailPoint::allocationGranularity() {
  return granularity_ != 0 ? granularity_ : platform::native().allocationGranularity();
}

const char* FailPoint::environment(const char* name) {
  const auto set = environment_.find(name);
  if (set == environment_.end()) return platform::native().environment(name);
  return set->second ? set->second->c_str() : nullptr;
}

int64_t FailPoint::time() { return platform::native().time(); }

void* FailPoint::allocate(size_t bytes) {
  bytes_allocated_ += bytes;
  if (fails(Call::kAllocate, "")) return nullptr;
  void* const block = platform::native().allocate(bytes);
  if (block != nullptr) std::memset(block, 0xA5, std::min(bytes, kFilledBytes));
  return block;
}
