// The whole platform contract in memory, so that a fuzz target runs thousands of
// inputs a second, leaves nothing behind and sees every byte that the library
// wrote.
//
// Paths are POSIX's: relative ones start at a current directory that cannot be
// removed, "." and ".." are followed, every directory on the way must exist, names
// are at most 255 bytes long. There are regular files and directories only. A
// file that is removed or replaced while it is open lives on in its handles. The
// disk and the memory have an end, so an input that makes the library ask for too
// much sees the failures that a real system would show.
//
// One thread at a time. Tests: fuzz/memory_system_test.cpp.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform.h"

class MemorySystem : public platform::System {
 public:
  static constexpr uint64_t kDiskBytes = 64 << 20;    // of one file
  static constexpr uint64_t kMemoryBytes = 64 << 20;  // of one block

  MemorySystem();

  // For the target: forgets files, directories, the environment and the counts.
  // Files that are still open live on in their handles.
  void clear();

  // Files by the path that the library would use. write() makes the directories
  // on the way; read() of a missing file is "".
  void write(const std::string& path, const std::string& content);
  std::string read(const std::string& path) const;
  bool exists(const std::string& path) const;  // as a file
  uint64_t size(const std::string& path) const;
  void truncate(const std::string& path, uint64_t size);
  std::vector<std::string> names(const std::string& directory) const;  // of its files
  void setEnvironment(const std::string& name, const std::string& value);

  // The largest block that was asked for since clear() or the last call, granted or
  // not; 0 when there was none.
  size_t takeLargestRequest() { return std::exchange(largest_request_, 0); }

  int openFiles() const;  // handles on the files that there are

  std::unique_ptr<platform::File> open(const char* path, platform::OpenMode mode) override;
  bool finalPath(const char* path, std::string* final_path) override;
  bool copyRights(const char* from, const char* to) override;
  bool remove(const char* path) override;
  bool rename(const char* from, const char* to) override;
  bool syncDirectory(const char* path) override;
  bool toNativePath(const char* utf8, platform::PathChar* native, size_t units) override;
  int access(const platform::PathChar* path) override;
  int makeDirectory(const platform::PathChar* path) override;
  uint32_t allocationGranularity() override { return 4096; }  // keeps the trees' files small
  const char* environment(const char* name) override;
  int64_t time() override { return 1700000000; }
  void* allocate(size_t bytes) override;

  // A file; handles share it with the directory.
  struct Node {
    std::string bytes;
    bool owned = false;  // open with kOwn
    int sharers = 0;     // handles open with kShare
    int handles = 0;
  };

 private:
  // What a path leads to. A place that can hold a name has error 0 and a `path`
  // whose directory exists; whether something bears the name is another matter.
  struct Place {
    int error;            // of the C runtime
    std::string path;     // from the root, without "." and ".."
    bool directory_only;  // the path ends in a separator or a dot
  };
  Place resolve(const std::string& path) const;
  std::shared_ptr<Node> find(const std::string& path) const;  // null: no such file

  std::map<std::string, std::shared_ptr<Node>> files_;  // by resolved path
  std::set<std::string> directories_;
  std::map<std::string, std::string> environment_;
  size_t largest_request_ = 0;
};
