// How the command gives up, and how it complains when it goes on.
#pragma once

#include <fmt/format.h>

#include <cstdio>
#include <stdexcept>
#include <string>

namespace tool {

// Ends the command with the status 2. what() is a message for the user,
// without the leading "tessera: ".
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Nobody can be told that this cannot be written; the work goes on.
inline void complain(const std::string& message) {
  std::fputs(fmt::format("tessera: {}\n", message).c_str(), stderr);
}

}  // namespace tool
