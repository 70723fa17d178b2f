// Stands in front of the operating system and lets chosen calls fail.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>

#include "platform.h"

enum class Call {
  kOpen,
  kSeek,
  kRead,
  kWrite,
  kSize,
  kTruncate,
  kSync,
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
// half of its bytes behind. Not for calls from several threads.
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
  void setEnvironment(const char* name,
                      const char* value);  // what environment() answers; null: not set
  void setGranularity(uint32_t bytes) { granularity_ = bytes; }  // 0: that of the system

  std::unique_ptr<platform::File> open(const char* path, platform::OpenMode mode) override;
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
  uint32_t granularity_ = 0;
  std::map<std::string, std::optional<std::string>> environment_;
};
