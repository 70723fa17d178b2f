#include "files/tree_watch.h"

#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "cli/interrupt.h"
#include "cli/names.h"
#include "failure.h"

namespace fs = std::filesystem;

namespace tool {

namespace {

constexpr uint32_t kChanges = IN_CLOSE_WRITE | IN_MODIFY | IN_ATTRIB | IN_CREATE | IN_DELETE |
                              IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF;

bool isAtOrBelow(const std::string& path, const std::string& directory) {
  return path == directory || path.starts_with(directory == "/" ? "/" : directory + "/");
}

// Until there is something to read, the time is over, or the user interrupts. Signals
// are held back until the wait has begun, or one that comes right before it is missed.
// The thread that waits has to be the only one.
void waitFor(int descriptor, std::optional<std::chrono::milliseconds> longest) {
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGINT);
  sigaddset(&ends, SIGTERM);
  sigset_t before;
  sigprocmask(SIG_BLOCK, &ends, &before);
  if (!interrupted()) {
    pollfd file = {descriptor, POLLIN, 0};
    timespec time = {};
    if (longest) {
      time.tv_sec = static_cast<time_t>(longest->count() / 1000);
      time.tv_nsec = static_cast<long>(longest->count() % 1000) * 1000000;
    }
    ::ppoll(&file, 1, longest ? &time : nullptr, &before);
  }
  sigprocmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace

struct TreeWatch::Event {
  int watch;
  uint32_t what;
  std::string name;
};

TreeWatch::TreeWatch(std::vector<std::string> roots, std::string left_out)
    : roots_(std::move(roots)),
      left_out_(std::move(left_out)),
      descriptor_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  if (descriptor_ < 0) throw Failure(fmt::format("cannot watch: {}", std::strerror(errno)));
  try {
    watchAll();
  } catch (...) {
    ::close(descriptor_);  // no destructor runs for half an object
    throw;
  }
}

TreeWatch::~TreeWatch() { ::close(descriptor_); }

bool TreeWatch::isRoot(const std::string& path) const {
  return std::find(roots_.begin(), roots_.end(), path) != roots_.end();
}

void TreeWatch::watchAll() {
  for (const std::string& root : roots_) {
    watch(root);
    if (std::none_of(paths_.begin(), paths_.end(),
                     [&](const auto& entry) { return entry.second == root; })) {
      throw Failure(
          fmt::format("cannot watch {}: it is no directory that can be read", shownName(root)));
    }
  }
}

// A directory that has gone, or may not be read, has nothing to tell.
void TreeWatch::watch(const std::string& directory) {
  if (isAtOrBelow(directory, left_out_)) return;
  const int watch_number =
      ::inotify_add_watch(descriptor_, directory.c_str(), kChanges | IN_ONLYDIR | IN_DONT_FOLLOW);
  if (watch_number < 0 && (errno == ENOSPC || errno == ENOMEM)) {
    throw Failure(
        fmt::format("cannot watch {}: the system allows no more directories to be "
                    "watched\nThe limit is in /proc/sys/fs/inotify/max_user_watches.",
                    shownName(directory)));
  }
  if (watch_number < 0) return;
  paths_[watch_number] = directory;
  std::error_code error;
  for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
       entry.increment(error)) {
    std::error_code gone;
    if (entry->symlink_status(gone).type() == fs::file_type::directory) {
      watch(entry->path().native());
    }
  }
}

void TreeWatch::forget(const std::string& directory) {
  for (auto entry = paths_.begin(); entry != paths_.end();) {
    if (isAtOrBelow(entry->second, directory)) {
      ::inotify_rm_watch(descriptor_, entry->first);
      entry = paths_.erase(entry);
    } else {
      ++entry;
    }
  }
}

void TreeWatch::take(const Event& event, std::vector<std::string>* changed) {
  if (event.what & IN_Q_OVERFLOW) {
    watchAll();
    changed->insert(changed->end(), roots_.begin(), roots_.end());
    return;
  }
  const auto known = paths_.find(event.watch);
  if (known == paths_.end()) return;
  const std::string directory = known->second;
  if (event.what & (IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT)) {
    // What was in it is not thereby gone: a disk may just have been taken away.
    if (isRoot(directory)) throw Failure(fmt::format("{} is gone", shownName(directory)));
  } else if (event.what & IN_IGNORED) {
    paths_.erase(known);
  } else if (!event.name.empty()) {
    const std::string path = (fs::path(directory) / event.name).native();
    if (event.what & IN_ISDIR) {
      if (event.what & (IN_MOVED_FROM | IN_DELETE)) forget(path);
      if (event.what & (IN_MOVED_TO | IN_CREATE)) watch(path);
      if (event.what & (IN_CLOSE_WRITE | IN_MODIFY)) return;
    }
    if (!isAtOrBelow(path, left_out_)) changed->push_back(path);
  }
}

std::vector<std::string> TreeWatch::wait(std::optional<std::chrono::milliseconds> longest) {
  waitFor(descriptor_, longest);
  std::vector<std::string> changed;
  alignas(inotify_event) std::array<char, 64 << 10> buffer;
  while (true) {
    const ssize_t got = ::read(descriptor_, buffer.data(), buffer.size());
    if (got <= 0) break;
    for (ssize_t at = 0; at < got;) {
      inotify_event head;
      std::memcpy(&head, buffer.data() + at, sizeof head);
      const char* name = buffer.data() + at + sizeof head;  // padded with zeros
      take({head.wd, head.mask, std::string(name, ::strnlen(name, head.len))}, &changed);
      at += static_cast<ssize_t>(sizeof head + head.len);
    }
  }
  return changed;
}

}  // namespace tool
