// A list of directories to which block files may be spread.
// Tests: tests/unit/store/ami_device_test.cpp.
#pragma once

#include <cstddef>
#include <string>

#include "scoped.h"

// The environment variables that name directories, in the order of preference.
inline constexpr char kSingleDeviceVariable[] = "AMI_SINGLE_DEVICE";
inline constexpr char kTemporaryDirectoryVariable[] = "TMPDIR";

class AMI_device {
 public:
  // Takes the list from a text whose components stand between "|". False, and
  // the list is empty, when there is no memory for it.
  bool set_to_path(const char* path);

  // Takes it from an environment variable. False when that is not set.
  bool read_environment(const char* name);

  size_t arity() const { return arity_; }      // directories
  const char* operator[](size_t index) const;  // below arity()
  std::string description() const;             // one line for each directory

 private:
  MallocArray<char> text_;  // the components, each ended by a NUL
  size_t arity_ = 0;
};
