// Stands in front of the operating system and lets chosen calls fail.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform.h"

enum class Call {
  kOpen,
  kSeek,
  kRead,
  kWrite,
  kSize,
  kTruncate,
  kSync,
  kFinalPath,
  kCopyRights,
  kRemove,
  kRename,
  kSyncDirectory,
  kToNativePath,
  kAccess,
  kMakeDirectory,
  kAllocate,
};

// While it lives, calls of the watched kinds are counted, and the n-th of them
// fails: fail(Call::kWrite, 3) lets the third write fail. With `lasting` every
// later one fails too. fail() starts the count anew. A failing write leaves
// half of its bytes behind; a sync that succeeds does not wait for the disk.
// Blocks of memory are not zero at first. Not for calls from several threads.
class FailPoint final : public platform::System {
 public:
  FailPoint();
  ~FailPoint() override;
  FailPoint(const FailPoint&) = delete;
  FailPoint& operator=(const FailPoint&) = delete;

  // n counts from 1; 0 only counts. `path_part` narrows the file calls to paths
  // that contain it.
  void fail(Call call, int n, bool lasting = false, const std::string& path_part = "");
  void failAny(const std::set<Call>& calls, int n, bool lasting = false,
               const std::string& path_part = "");
  int count() const { return count_; }  // watched calls since fail()
  bool failed() const { return failures_ > 0; }
  int failures() const { return failures_; }

  // Lasting failures end after so many; to be called after fail().
  void atMost(int failures) { most_ = failures; }

  // From note() on, the watched calls since fail() in their order: "sync PATH",
  // with the path that the call, or its file, was given.
  void note() { noting_ = true; }
  const std::vector<std::string>& watched() const { return watched_; }

  uint64_t bytesAllocated() const { return bytes_allocated_; }  // asked for since fail()
  void setEnvironment(const char* name,
                      const char* value);  // what environment() answers; null: not set
  void setGranularity(uint32_t bytes) { granularity_ = bytes; }  // 0: that of the system

  std::unique_ptr<platform::File> open(const char* path, platform::OpenMode mode) override;
  bool finalPath(const char* path, std::string* final_path) override;
  bool copyRights(const char* from, const char* to) override;
  bool remove(const char* path) override;
  bool rename(const char* from, const char* to) override;
  bool syncDirectory(const char* path) override;
  bool toNativePath(const char* utf8, platform::PathChar* native, size_t units) override;
  int access(const platform::PathChar* path) override;
  int makeDirectory(const platform::PathChar* path) override;
  uint32_t allocationGranularity() override;
  const char* environment(const char* name) override;
  int64_t time() override;
  void* allocate(size_t bytes) override;

  bool fails(Call call, const std::string& path);  // counts the call; for the files it opens

 private:
  std::set<Call> calls_;
  std::string path_part_;
  int n_ = 0;
  bool lasting_ = false;
  int count_ = 0;
  int failures_ = 0;
  int most_ = 0;  // failures; 0: any number
  bool noting_ = false;
  std::vector<std::string> watched_;
  uint64_t bytes_allocated_ = 0;
  uint32_t granularity_ = 0;
  std::map<std::string, std::optional<std::string>> environment_;
};
