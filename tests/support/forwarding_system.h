// Passes every call on to the operating system: what stands in front of it in a
// test derives from this and changes the calls that it is there for.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "platform.h"

class ForwardingFile : public platform::File {
 public:
  explicit ForwardingFile(std::unique_ptr<platform::File> file) : file_(std::move(file)) {}

  bool seek(uint64_t offset) override { return file_->seek(offset); }
  int64_t read(void* buffer, size_t bytes) override { return file_->read(buffer, bytes); }
  bool write(const void* data, size_t bytes) override { return file_->write(data, bytes); }
  int64_t size() override { return file_->size(); }
  bool truncate(uint64_t size) override { return file_->truncate(size); }
  bool sync() override { return file_->sync(); }

 private:
  const std::unique_ptr<platform::File> file_;
};

// Is what the library uses for as long as it lives.
class ForwardingSystem : public platform::System {
 public:
  ForwardingSystem() { platform::replace(this); }
  ~ForwardingSystem() override { platform::replace(nullptr); }
  ForwardingSystem(const ForwardingSystem&) = delete;
  ForwardingSystem& operator=(const ForwardingSystem&) = delete;

  std::unique_ptr<platform::File> open(const char* path, platform::OpenMode mode) override {
    return native_.open(path, mode);
  }
  bool finalPath(const char* path, std::string* final_path) override {
    return native_.finalPath(path, final_path);
  }
  bool copyRights(const char* from, const char* to) override {
    return native_.copyRights(from, to);
  }
  bool remove(const char* path) override { return native_.remove(path); }
  bool rename(const char* from, const char* to) override { return native_.rename(from, to); }
  bool syncDirectory(const char* path) override { return native_.syncDirectory(path); }
  bool toNativePath(const char* utf8, platform::PathChar* native, size_t units) override {
    return native_.toNativePath(utf8, native, units);
  }
  int access(const platform::PathChar* path) override { return native_.access(path); }
  int makeDirectory(const platform::PathChar* path) override {
    return native_.makeDirectory(path);
  }
  uint32_t allocationGranularity() override { return native_.allocationGranularity(); }
  const char* environment(const char* name) override { return native_.environment(name); }
  int64_t time() override { return native_.time(); }
  void* allocate(size_t bytes) override { return native_.allocate(bytes); }

 private:
  platform::System& native_ = platform::native();
};
