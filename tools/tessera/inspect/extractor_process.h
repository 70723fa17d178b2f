// One extractor as the command sees it: a process behind a socket, of which the command
// believes nothing but what fits into the limits.
// Tests: tests/tool/inspector_test.cpp.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "extract/descriptor.h"
#include "extract/limits.h"
#include "extract/part.h"
#include "extract/protocol.h"

namespace tool {

// An extractor could not be started, or was dead before it was given anything.
class NoExtractor : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class ExtractorProcess {
 public:
  // Starts `command`, which is a tessera-extract, perhaps in something that confines it.
  // It dies with the calling thread. Throws NoExtractor when it does not answer. While a
  // document is opened, `given_up` is asked whether anybody still waits for it.
  ExtractorProcess(const std::vector<std::string>& command, const Limits& limits,
                   const std::function<bool()>& given_up);
  ~ExtractorProcess();  // ends it, with all that it has started
  ExtractorProcess(const ExtractorProcess&) = delete;
  ExtractorProcess& operator=(const ExtractorProcess&) = delete;

  // How it confines itself.
  const std::string& confinement() const { return confinement_; }

  // Has a document opened. False when the extractor is of no more use; why stands in the
  // last part. Throws NoExtractor before it has delivered anything, and what `deliver`
  // throws, after which the extractor must go, too.
  bool inspect(int file, std::string_view name, const std::function<void(Part&&)>& deliver);

  unsigned documents() const { return documents_; }

 private:
  using Clock = std::chrono::steady_clock;

  // Why nothing more comes. Thrown inside of this class only.
  struct Death {
    Reason reason;
    std::string detail;
  };

  void start(const std::vector<std::string>& command);
  FrameHeader receiveHeader();
  std::string receivePayload(uint32_t length);
  void receive(char* bytes, size_t length);
  Part receivePart(const std::string& header);
  EndStatus receiveParts(const std::function<void(Part&&)>& deliver);
  void end(int signal);  // kills and reaps it
  Death causeOfDeath();

  const Limits limits_;
  const std::function<bool()> given_up_;
  Descriptor socket_;
  pid_t process_ = -1;
  int status_ = 0;  // as waitpid() has it, when process_ is -1
  std::string confinement_;
  Clock::time_point deadline_;
  std::string opening_;  // name of the part that is worked on
  bool answered_ = false;
  unsigned documents_ = 0;
};

}  // namespace tool
