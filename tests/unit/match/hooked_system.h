// Stands in front of the operating system and lets a test act in the middle of
// a search: before a file is opened or read, as another thread or process would.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "forwarding_system.h"
#include "platform.h"

// In force while it lives. Acts once for each before...() call and only then:
// what the action itself opens or reads passes by.
class HookedSystem final : public ForwardingSystem {
 public:
  // Before the n-th opening, or the n-th read, of a file whose path contains
  // `path_part`; n counts from 1 and from this call on.
  void beforeOpen(int n, const std::string& path_part, std::function<void()> action) {
    open_ = {n, path_part, std::move(action)};
  }
  void beforeRead(int n, const std::string& path_part, std::function<void()> action) {
    read_ = {n, path_part, std::move(action)};
  }

  // Files whose path contains `path_part` pretend to have this size.
  void pretendSize(const std::string& path_part, int64_t bytes) { sizes_[path_part] = bytes; }

  size_t largestAllocation() const { return largest_allocation_; }  // bytes, so far

  std::unique_ptr<platform::File> open(const char* path, platform::OpenMode mode) override {
    open_.happens(path);
    auto file = ForwardingSystem::open(path, mode);
    if (!file) return nullptr;
    return std::make_unique<HookedFile>(this, path, std::move(file));
  }
  void* allocate(size_t bytes) override {
    largest_allocation_ = std::max(largest_allocation_, bytes);
    return ForwardingSystem::allocate(bytes);
  }

 private:
  struct Hook {
    int n = 0;
    std::string path_part;
    std::function<void()> action;

    void happens(const std::string& path) {
      if (n == 0 || path.find(path_part) == std::string::npos || --n > 0) return;
      action();
    }
  };

  class HookedFile final : public ForwardingFile {
   public:
    HookedFile(HookedSystem* owner, std::string path, std::unique_ptr<platform::File> file)
        : ForwardingFile(std::move(file)), owner_(owner), path_(std::move(path)) {}

    int64_t read(void* buffer, size_t bytes) override {
      owner_->read_.happens(path_);
      return ForwardingFile::read(buffer, bytes);
    }
    int64_t size() override {
      for (const auto& [path_part, bytes] : owner_->sizes_) {
        if (path_.find(path_part) != std::string::npos) return bytes;
      }
      return ForwardingFile::size();
    }

   private:
    HookedSystem* const owner_;
    const std::string path_;
  };

  Hook open_;
  Hook read_;
  std::map<std::string, int64_t> sizes_;
  size_t largest_allocation_ = 0;
};
