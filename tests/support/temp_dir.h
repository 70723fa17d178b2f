// A fresh directory that a test works in and that goes with it.
#pragma once

#include <filesystem>
#include <string>

// Creates an empty directory and makes it the current one, since the library
// looks for its files there; goes back and removes it at the end.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::string path() const { return path_.string(); }
  std::string path(const std::string& name) const { return (path_ / name).string(); }

  // Files, byte for byte; `name` may bear a directory that exists.
  void write(const std::string& name, const std::string& content) const;
  std::string read(const std::string& name) const;  // fails the test when there is none
  bool exists(const std::string& name) const;
  void makeDirectory(const std::string& name) const;

 private:
  std::filesystem::path path_;
  std::filesystem::path previous_;
};
