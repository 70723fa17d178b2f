#include "files/walk.h"

#include <fmt/format.h>
#include <fnmatch.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <string_view>
#include <system_error>
#include <utility>

#include "cli/names.h"
#include "failure.h"

namespace fs = std::filesystem;

namespace tool {

namespace {

bool fits(std::string_view path, const std::vector<std::string>& globs) {
  while (path.size() > 1 && path.ends_with('/')) path.remove_suffix(1);
  const std::string base(path.substr(path.rfind('/') + 1));
  if (base.empty() || base == "." || base == "..") return false;  // no name at all
  return std::any_of(globs.begin(), globs.end(), [&](const std::string& glob) {
    return ::fnmatch(glob.c_str(), base.c_str(), 0) == 0;
  });
}

std::string readAll(std::FILE* file) {
  std::string content;
  char buffer[1 << 16];
  while (const size_t got = std::fread(buffer, 1, sizeof buffer, file)) content.append(buffer, got);
  return content;
}

std::vector<std::string> readList(const std::string& name, bool null_separated) {
  struct Closer {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };
  std::unique_ptr<std::FILE, Closer> opened;
  if (name != "-") opened.reset(std::fopen(name.c_str(), "re"));
  std::FILE* const file = name == "-" ? stdin : opened.get();
  const std::string content = file ? readAll(file) : "";
  if (!file || std::ferror(file)) {
    throw Failure(
        fmt::format("cannot read the list {}: {}", shownName(name), std::strerror(errno)));
  }
  if (!null_separated && content.find('\0') != std::string::npos) {
    throw Failure(
        fmt::format("the list {} has NUL characters in it: is --null meant?", shownName(name)));
  }
  std::vector<std::string> entries;
  const char separator = null_separated ? '\0' : '\n';
  for (size_t begin = 0; begin < content.size();) {
    const size_t end = std::min(content.find(separator, begin), content.size());
    if (end > begin) entries.push_back(content.substr(begin, end - begin));
    begin = end + 1;
  }
  return entries;
}

class Walk {
 public:
  Walk(const FileChoice& choice, const fs::path& left_out) : choice_(choice), left_out_(left_out) {}

  void visitNamed(const std::string& name);
  void addStandardInput() {
    if (paths_.insert("").second) found_.files.push_back({"-", {}});
  }

  FoundFiles take() { return std::move(found_); }

 private:
  void addFile(const std::string& name, const fs::path& path) {
    if (paths_.insert(path.native()).second) found_.files.push_back({name, path});
  }
  void visitDirectory(const std::string& name, const fs::path& path, const struct stat& status);
  void visitEntry(const std::string& name, const fs::path& path);
  void complainAbout(const char* what, const std::string& name, const fs::path& path,
                     const std::string& reason);

  const FileChoice& choice_;
  const fs::path& left_out_;
  FoundFiles found_;
  std::set<std::string> paths_;                    // of the files found
  std::set<std::pair<dev_t, ino_t>> directories_;  // been there: links may lead back
  dev_t file_system_ = 0;                          // of what was named
};

void Walk::visitNamed(const std::string& name) {
  struct stat status;
  const bool follow = choice_.links != FileChoice::Links::kNone;
  const bool exists =
      (follow ? ::stat(name.c_str(), &status) : ::lstat(name.c_str(), &status)) == 0;
  std::error_code error(exists ? 0 : errno, std::generic_category());
  const fs::path path = exists ? fs::canonical(name, error) : fs::absolute(name);
  if (error) return complainAbout("read", name, path, error.message());

  if (S_ISDIR(status.st_mode)) {
    if (fits(name, choice_.exclude_directories)) return;
    found_.directories.push_back(path);
    file_system_ = status.st_dev;
    const size_t first = found_.files.size();
    visitDirectory(name, path, status);
    std::sort(found_.files.begin() + static_cast<std::ptrdiff_t>(first), found_.files.end(),
              [](const FoundFile& a, const FoundFile& b) { return a.name < b.name; });
  } else if (S_ISREG(status.st_mode)) {
    if (!fits(name, choice_.exclude)) addFile(name, path);
  } else {
    complainAbout("read", name, path,
                  S_ISLNK(status.st_mode) ? "a symbolic link, which is not to be followed"
                                          : "neither a regular file nor a directory");
  }
}

// Lists the whole directory before it goes deeper: however deep a tree is, one
// directory is open at a time.
void Walk::visitDirectory(const std::string& name, const fs::path& path,
                          const struct stat& status) {
  if (path == left_out_ || !directories_.insert({status.st_dev, status.st_ino}).second) return;
  std::vector<std::string> entries;
  std::error_code error;
  for (fs::directory_iterator entry(path, error), end; !error && entry != end;
       entry.increment(error)) {
    entries.push_back(entry->path().filename().native());
  }
  if (error) complainAbout("list", name, path, error.message());
  std::sort(entries.begin(), entries.end());
  for (const std::string& entry : entries) {
    visitEntry(name.ends_with('/') ? name + entry : name + "/" + entry, path / entry);
  }
}

void Walk::visitEntry(const std::string& name, const fs::path& path) {
  struct stat status;
  if (::lstat(path.c_str(), &status) != 0) {
    if (errno != ENOENT) complainAbout("read", name, path, std::strerror(errno));
    return;  // it has gone in the meantime
  }
  fs::path target = path;
  if (S_ISLNK(status.st_mode)) {
    if (choice_.links != FileChoice::Links::kAll) return;
    std::error_code error;
    target = fs::canonical(path, error);
    if (error || ::stat(path.c_str(), &status) != 0) {
      return complainAbout("follow", name, path, error ? error.message() : std::strerror(errno));
    }
  }
  if (choice_.one_file_system && status.st_dev != file_system_) return;
  if (S_ISDIR(status.st_mode)) {
    if (!fits(name, choice_.exclude_directories)) visitDirectory(name, target, status);
  } else if (S_ISREG(status.st_mode)) {
    const bool included = choice_.include.empty() || fits(name, choice_.include);
    if (included && !fits(name, choice_.exclude)) addFile(name, target);
  }
}

void Walk::complainAbout(const char* what, const std::string& name, const fs::path& path,
                         const std::string& reason) {
  found_.unseen.push_back(path);
  found_.problems.push_back(fmt::format("cannot {} {}: {}", what, shownName(name), reason));
}

}  // namespace

FoundFiles findFiles(const FileChoice& choice, const fs::path& left_out, StandardInput input) {
  const auto isInput = [](const std::string& name) { return name == "-"; };
  const std::vector<std::string>& lists = choice.files_from;
  const bool document = input == StandardInput::kTaken &&
                        std::any_of(choice.paths.begin(), choice.paths.end(), isInput);
  if (std::count_if(lists.begin(), lists.end(), isInput) + (document ? 1 : 0) > 1) {
    throw Failure("the standard input, \"-\", can be read once only");
  }
  Walk walk(choice, left_out);
  for (const std::string& name : choice.paths) {
    if (document && isInput(name)) {
      walk.addStandardInput();
    } else {
      walk.visitNamed(name);
    }
  }
  for (const std::string& list : lists) {
    for (const std::string& name : readList(list, choice.null_separated)) walk.visitNamed(name);
  }
  return walk.take();
}

}  // namespace tool
