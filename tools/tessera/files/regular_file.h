// Opening a file that is to be inspected.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "extract/descriptor.h"

namespace tool {

// Without waiting: a pipe may have taken the place of the file that was found. `problem`
// is empty when all is well.
inline Descriptor openRegularFile(const std::string& path, std::string* problem) {
  Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status;
  if (!file || ::fstat(file.get(), &status) != 0) {
    *problem = std::strerror(errno);
  } else if (!S_ISREG(status.st_mode)) {
    *problem = "not a regular file";
  }
  return file;
}

}  // namespace tool
