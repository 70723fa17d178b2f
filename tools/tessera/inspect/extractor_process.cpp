#include "inspect/extractor_process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "extract/member_name.h"

namespace tool {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr seconds kStartTime{30};  // under load
// An extractor that still works tells itself that the time is over, and what it got.
constexpr seconds kGrace{2};
constexpr milliseconds kAttention{200};  // how soon it is noticed that nobody waits any more

// posix_spawn() and what it needs.
class Spawn {
 public:
  Spawn() {
    posix_spawn_file_actions_init(&actions_);
    posix_spawnattr_init(&attributes_);
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes_, &none);
    posix_spawnattr_setsigdefault(&attributes_, &all);
    posix_spawnattr_setpgroup(&attributes_, 0);  // Ctrl-C is for the command alone
    posix_spawnattr_setflags(
        &attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  }
  ~Spawn() {
    posix_spawn_file_actions_destroy(&actions_);
    posix_spawnattr_destroy(&attributes_);
  }
  Spawn(const Spawn&) = delete;
  Spawn& operator=(const Spawn&) = delete;

  // With `socket` as its standard input and no other file of this process.
  int run(const std::vector<std::string>& command, int socket, pid_t* process) {
    posix_spawn_file_actions_adddup2(&actions_, socket, 0);
    posix_spawn_file_actions_addopen(&actions_, 1, "/dev/null", O_WRONLY, 0);
    if (!reportsToTerminal()) {
      posix_spawn_file_actions_addopen(&actions_, 2, "/dev/null", O_WRONLY, 0);
    }
    posix_spawn_file_actions_addclosefrom_np(&actions_, 3);
    std::vector<char*> arguments;
    for (const std::string& argument : command) {
      arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    std::array<char*, 4> environment = {const_cast<char*>("LC_ALL=C.UTF-8"),
                                        const_cast<char*>("PATH=/usr/bin:/bin"),
                                        const_cast<char*>(kSanitizerOptions), nullptr};
    return posix_spawn(process, arguments[0], &actions_, &attributes_, arguments.data(),
                       environment.data());
  }

 private:
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(TESSERA_SANITIZE)
  // The report of a sanitizer must be seen. Looking for leaks needs what is forbidden.
  static constexpr const char* kSanitizerOptions = "ASAN_OPTIONS=detect_leaks=0";
  static bool reportsToTerminal() { return true; }
#else
  static constexpr const char* kSanitizerOptions = nullptr;
  // What a document makes libraries say must not reach a terminal.
  static bool reportsToTerminal() { return false; }
#endif

  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
};

}  // namespace

ExtractorProcess::ExtractorProcess(const std::vector<std::string>& command, const Limits& limits,
                                   const std::function<bool()>& given_up)
    : limits_(limits), given_up_(given_up) {
  start(command);
  try {
    deadline_ = Clock::now() + kStartTime;
    sendFrame(socket_.get(), FrameType::kLimits, encodeLimits(limits_));
    const FrameHeader header = receiveHeader();
    if (header.type != FrameType::kReady) throw ProtocolError("no greeting");
    confinement_ = receivePayload(header.length);
  } catch (const Death& death) {
    end(SIGKILL);
    throw NoExtractor(command[0] + ": " + death.detail);
  } catch (const ProtocolError& error) {
    end(SIGKILL);
    throw NoExtractor(command[0] + ": " + error.what());
  }
}

ExtractorProcess::~ExtractorProcess() { end(SIGKILL); }

void ExtractorProcess::start(const std::vector<std::string>& command) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    throw NoExtractor(std::string("no socket: ") + std::strerror(errno));
  }
  socket_ = Descriptor(ends[0]);
  const Descriptor other(ends[1]);
  const int error = Spawn().run(command, other.get(), &process_);
  if (error != 0) {
    process_ = -1;
    throw NoExtractor(command[0] + ": " + std::strerror(error));
  }
}

bool ExtractorProcess::inspect(int file, std::string_view name,
                               const std::function<void(Part&&)>& deliver) {
  deadline_ = Clock::now() + seconds(limits_.seconds) + kGrace;
  opening_.clear();
  answered_ = false;
  ++documents_;
  Part last;
  try {
    if (!sendDocument(socket_.get(), name, file)) throw NoExtractor("the extractor has ended");
    if (receiveParts(deliver) == EndStatus::kDone) return true;
    last.reason = Reason::kMemoryLimit;
    last.detail = "needs more than " + std::to_string(limits_.memory_bytes) + " bytes";
  } catch (const Death& death) {
    if (!answered_ && !given_up_()) throw NoExtractor(death.detail);
    last.reason = death.reason;
    last.detail = death.detail;
  } catch (const ProtocolError& error) {
    last.reason = Reason::kCrashed;
    last.detail = std::string("the extractor said what it should not: ") + error.what();
  }
  end(SIGKILL);
  last.name = opening_;
  deliver(std::move(last));
  return false;
}

EndStatus ExtractorProcess::receiveParts(const std::function<void(Part&&)>& deliver) {
  // What is done with the parts is in no time limit. Texts may be larger than what they
  // were made of, and every one of them may be as large as all members.
  constexpr uint64_t kGrowth = 16;
  uint64_t content_bytes = 0;
  // Each part may come a second time with a reason.
  for (uint64_t left = 2 * (uint64_t{limits_.members} + 1);;) {
    const FrameHeader header = receiveHeader();
    const std::string payload = receivePayload(header.length);
    answered_ = true;
    if (header.type == FrameType::kBegin) {
      opening_ = printable(payload);
    } else if (header.type == FrameType::kPart) {
      if (left-- == 0) throw ProtocolError("too many parts");
      Part part = receivePart(payload);
      content_bytes += part.content.size();
      if (content_bytes / kGrowth > limits_.total_bytes) {
        throw Death{Reason::kSizeLimit, "the texts of all parts together are too large"};
      }
      const Clock::time_point before = Clock::now();
      deliver(std::move(part));
      deadline_ += Clock::now() - before;
    } else if (header.type == FrameType::kEnd && payload.size() == 1 && payload[0] <= 1) {
      return static_cast<EndStatus>(payload[0]);
    } else {
      throw ProtocolError("unexpected frame");
    }
  }
}

Part ExtractorProcess::receivePart(const std::string& payload) {
  PartHeader header = decodePart(payload, limits_);
  // Memory is taken for what is there, not for what is announced.
  while (header.part.content.size() < header.content_bytes) {
    const FrameHeader next = receiveHeader();
    if (next.type != FrameType::kContent || next.length == 0) throw ProtocolError("no content");
    if (next.length > header.content_bytes - header.part.content.size()) {
      throw ProtocolError("too much content");
    }
    header.part.content += receivePayload(next.length);
  }
  return std::move(header.part);
}

FrameHeader ExtractorProcess::receiveHeader() {
  std::array<char, kHeaderBytes> bytes;
  receive(bytes.data(), bytes.size());
  return decodeHeader({bytes.data(), bytes.size()});
}

std::string ExtractorProcess::receivePayload(uint32_t length) {
  std::string payload(length, '\0');
  receive(payload.data(), payload.size());
  return payload;
}

void ExtractorProcess::receive(char* bytes, size_t length) {
  while (length > 0) {
    const auto left = std::chrono::ceil<milliseconds>(deadline_ - Clock::now()).count();
    if (left <= 0) {
      throw Death{Reason::kTimeLimit, "took longer than " + std::to_string(limits_.seconds) + " s"};
    }
    const bool is_opening = documents_ > 0;
    if (is_opening && given_up_()) throw Death{Reason::kCrashed, "given up"};
    pollfd ready = {socket_.get(), POLLIN, 0};
    poll(&ready, 1, static_cast<int>(std::min<int64_t>(left, kAttention.count())));
    const ssize_t got = recv(socket_.get(), bytes, length, MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (got <= 0) throw causeOfDeath();
    bytes += got;
    length -= static_cast<size_t>(got);
  }
}

void ExtractorProcess::end(int signal) {
  if (process_ < 0) return;
  kill(-process_, signal);  // with the programs it has started
  kill(process_, signal);
  while (waitpid(process_, &status_, 0) < 0 && errno == EINTR) {
  }
  process_ = -1;
}

ExtractorProcess::Death ExtractorProcess::causeOfDeath() {
  // It has closed the socket, which nothing but its end does, if it does what it should.
  constexpr milliseconds kDyingTime{2000};
  const Clock::time_point patience = Clock::now() + kDyingTime;
  while (process_ >= 0 && Clock::now() < patience) {
    siginfo_t ended{};
    waitid(P_PID, static_cast<id_t>(process_), &ended, WEXITED | WNOHANG | WNOWAIT);
    // Not reaped yet, so that its number, by which what it has started is found, is its own.
    if (ended.si_pid == process_) {
      end(SIGKILL);
    } else {
      poll(nullptr, 0, 5);
    }
  }
  if (process_ >= 0) return {Reason::kCrashed, "the extractor has hung up"};
  // What confines it turns a signal into an exit status, as shells do.
  const int code = WIFSIGNALED(status_) ? 128 + WTERMSIG(status_) : WEXITSTATUS(status_);
  if (code == 128 + SIGXCPU) return {Reason::kTimeLimit, "took too much time of the processor"};
  if (code <= 128) return {Reason::kCrashed, "the extractor ended with " + std::to_string(code)};
  const char* name = sigabbrev_np(code - 128);
  return {Reason::kCrashed, std::string("the extractor died of SIG") + (name ? name : "?")};
}

}  // namespace tool
