// Tells what changes in directory trees while somebody waits for it (inotify).
//
// Every directory has a watch of its own. A new one gets its watch before it is told, so
// that whoever then looks at what is in it misses nothing. When changes come faster than
// they are read, the system drops some: then the whole trees are told as changed.
// Symbolic links are not followed. Tests: tests/tool/watch_test.py.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tool {

class TreeWatch {
 public:
  // `roots` are directories, absolute, links resolved. Nothing at or below `left_out` is
  // told. Throws Failure when they cannot be watched.
  TreeWatch(std::vector<std::string> roots, std::string left_out);
  ~TreeWatch();
  TreeWatch(const TreeWatch&) = delete;
  TreeWatch& operator=(const TreeWatch&) = delete;

  // Waits for changes, for so long at most, or until the user interrupts. Returns paths
  // of files that were made, written, moved or removed, and of directories that were
  // made, moved or removed with all in them. Throws Failure when a root is gone.
  std::vector<std::string> wait(std::optional<std::chrono::milliseconds> longest);

  size_t directories() const { return paths_.size(); }

 private:
  struct Event;

  void watchAll();
  void watch(const std::string& directory);
  void forget(const std::string& directory);
  void take(const Event& event, std::vector<std::string>* changed);
  bool isRoot(const std::string& path) const;

  const std::vector<std::string> roots_;
  const std::string left_out_;
  const int descriptor_;
  std::map<int, std::string> paths_;  // by watch
};

}  // namespace tool
