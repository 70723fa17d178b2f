// tessera-extract: opens documents for the tessera command, which starts it, hands it
// documents over the socket that is its standard input, and replaces it after some of
// them. Not for users. protocol.h says how they talk, sandbox.h what it may do.
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <stdexcept>

#include "extract/content_type.h"
#include "extract/extraction.h"
#include "extract/helper_starter.h"
#include "extract/protocol.h"
#include "extract/sandbox.h"

namespace {

using namespace tool;

constexpr int kSocket = 0;

// A whole file, read-only, as long as this lives.
class MappedFile {
 public:
  explicit MappedFile(int file) {
    struct stat status;
    if (fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) {
      throw NotInspected(Reason::kUnreadable, "not a regular file");
    }
    size_ = static_cast<size_t>(status.st_size);
    if (size_ == 0) return;
    memory_ = mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, file, 0);
    if (memory_ == MAP_FAILED) throw NotInspected(Reason::kUnreadable, "cannot be mapped");
  }
  ~MappedFile() {
    if (size_ > 0) munmap(memory_, size_);
  }
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  std::string_view content() const { return {static_cast<const char*>(memory_), size_}; }

 private:
  void* memory_ = nullptr;
  size_t size_ = 0;
};

class SocketSink final : public PartSink {
 public:
  void begin(const std::string& name) override { sendFrame(kSocket, FrameType::kBegin, name); }

  void deliver(Part&& part) override {
    sendFrame(kSocket, FrameType::kPart, encodePart(part));
    std::string_view content = part.content;
    while (!content.empty()) {
      sendFrame(kSocket, FrameType::kContent, content.substr(0, kMaximalPayload));
      content.remove_prefix(std::min<size_t>(content.size(), kMaximalPayload));
    }
  }
};

uint64_t sizeOf(int file) {
  struct stat status;
  return fstat(file, &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0;
}

EndStatus openDocument(int file, const std::string& name, const Limits& limits) {
  SocketSink sink;
  sink.begin("");
  try {
    confineDocument(limits, sizeOf(file));
    const MappedFile mapped(file);
    extract(mapped.content(), name, limits, sink);
    return EndStatus::kDone;
  } catch (const NotInspected& failure) {
    Part part;
    part.reason = failure.reason;
    part.detail = failure.what();
    sink.deliver(std::move(part));
    return EndStatus::kDone;
  } catch (const std::bad_alloc&) {
    return EndStatus::kNoMemory;
  }
}

Limits receiveLimits() {
  FrameHeader header;
  std::string payload;
  Descriptor none;
  if (!receiveFrame(kSocket, &header, &payload, &none) || header.type != FrameType::kLimits) {
    throw ProtocolError("no limits");
  }
  return decodeLimits(payload);
}

void serve() {
  const Limits limits = receiveLimits();
  loadContentTypes();
  startHelperStarter(helperConfinement(limits));
  sendFrame(kSocket, FrameType::kReady, confineProcess(limits));
  FrameHeader header;
  std::string name;
  Descriptor file;
  while (receiveFrame(kSocket, &header, &name, &file)) {
    if (header.type != FrameType::kDocument || !file) throw ProtocolError("no document");
    const EndStatus end = openDocument(file.get(), name, limits);
    file.reset();
    sendFrame(kSocket, FrameType::kEnd, std::string(1, static_cast<char>(end)));
    if (end == EndStatus::kNoMemory) return;  // who knows what is left half done
  }
}

}  // namespace

int main() {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  std::setlocale(LC_ALL, "");  // names in archives are converted by it
  try {
    serve();
    return EXIT_SUCCESS;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "tessera-extract: %s\n", failure.what());
    return EXIT_FAILURE;
  }
}
