// Extractor and starter have a socket that keeps messages apart. To the starter: the
// seconds (4 bytes) and the words of the command, each with a 0 behind it, with three
// descriptors. Back: a ProgramEnd; the first one tells that the starter is ready. When the
// extractor ends, so does the starter, and the program with it.
#include "extract/helper_starter.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <stdexcept>

#include "extract/descriptor.h"

namespace tool {

namespace {

constexpr size_t kMessageBytes = 8192;
constexpr size_t kFiles = 3;  // standard input, output and error
constexpr int kChannel = 3;   // in the starter

Descriptor to_starter;

// A message and room for its descriptors.
struct Message {
  Message(char* bytes, size_t length) : data{bytes, length} {
    header.msg_iov = &data;
    header.msg_iovlen = 1;
    header.msg_control = control.data();
    header.msg_controllen = control.size();
  }

  iovec data;
  alignas(cmsghdr) std::array<char, CMSG_SPACE(kFiles * sizeof(int))> control{};
  msghdr header{};
};

// --- the starter ---

struct Request {
  unsigned seconds = 0;
  std::string words;
  std::array<Descriptor, kFiles> files;
};

void takeFiles(Message* message, Request* request) {
  const cmsghdr* const header = CMSG_FIRSTHDR(&message->header);
  if (!header || header->cmsg_type != SCM_RIGHTS) return;
  std::array<int, kFiles> files;
  const size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
  std::memcpy(files.data(), CMSG_DATA(header), count * sizeof(int));
  for (size_t i = 0; i < count; ++i) request->files[i] = Descriptor(files[i]);
}

// Nothing when the extractor is gone, or says what it should not.
std::optional<Request> receiveRequest() {
  std::array<char, kMessageBytes> bytes;
  Message message(bytes.data(), bytes.size());
  ssize_t got;
  do {
    got = recvmsg(kChannel, &message.header, MSG_CMSG_CLOEXEC);
  } while (got < 0 && errno == EINTR);
  Request request;
  if (got > 0) takeFiles(&message, &request);
  constexpr size_t kSeconds = sizeof request.seconds;
  if (got <= static_cast<ssize_t>(kSeconds) || bytes[static_cast<size_t>(got) - 1] != '\0') {
    return std::nullopt;
  }
  for (const Descriptor& file : request.files) {
    if (!file) return std::nullopt;
  }
  std::memcpy(&request.seconds, bytes.data(), kSeconds);
  request.words.assign(bytes.data() + kSeconds, static_cast<size_t>(got) - kSeconds);
  return request;
}

[[noreturn]] void becomeProgram(Request* request, const HelperConfinement& confinement,
                                pid_t starter) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != starter) _exit(kNoSuchProgram);  // it has died before that
  struct stat input;
  if (fstat(request->files[0].get(), &input) != 0) _exit(kNoSuchProgram);
  std::vector<char*> arguments;
  for (size_t at = 0; at < request->words.size(); at += std::strlen(&request->words[at]) + 1) {
    arguments.push_back(&request->words[at]);
  }
  arguments.push_back(nullptr);
  if (confinement.confine_program) {
    confinement.confine_program(static_cast<uint64_t>(input.st_size));
  }
  for (size_t i = 0; i < kFiles; ++i) {
    if (dup2(request->files[i].get(), static_cast<int>(i)) < 0) _exit(kNoSuchProgram);
  }
  close_range(kFiles, ~0U, 0);
  // Nobody here may send signals: the program carries its own end with it.
  alarm(request->seconds);
  execvp(arguments[0], arguments.data());
  _exit(kNoSuchProgram);
}

// When the system or the user has too many processes, some of them may end soon.
pid_t forkPatiently() {
  constexpr int kAttempts = 20;
  constexpr useconds_t kPause = 50'000;
  for (int attempt = 1;; ++attempt) {
    const pid_t child = fork();
    if (child >= 0 || errno != EAGAIN || attempt == kAttempts) return child;
    usleep(kPause);
  }
}

ProgramEnd runProgram(Request request, const HelperConfinement& confinement) {
  const pid_t starter = getpid();
  const pid_t child = forkPatiently();
  if (child < 0) return {errno, 0};
  if (child == 0) becomeProgram(&request, confinement, starter);
  for (Descriptor& file : request.files) file.reset();
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return {0, WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status)};
}

void reply(const ProgramEnd& end) {
  if (write(kChannel, &end, sizeof end) != sizeof end) _exit(EXIT_FAILURE);
}

// Never returns, and nothing that the extractor has set up is taken down here.
[[noreturn]] void serve(int channel, const HelperConfinement& confinement, pid_t extractor) {
  try {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // The socket to the command must close with the extractor.
    const int nothing = open("/dev/null", O_RDONLY);
    if (nothing < 0 || dup2(nothing, 0) < 0 || dup2(channel, kChannel) < 0) _exit(EXIT_FAILURE);
    close_range(kChannel + 1, ~0U, 0);
    if (confinement.confine_starter) confinement.confine_starter();
    if (getppid() != extractor) _exit(EXIT_FAILURE);
    reply({});
    while (auto request = receiveRequest()) reply(runProgram(std::move(*request), confinement));
  } catch (...) {
    _exit(EXIT_FAILURE);
  }
  _exit(EXIT_SUCCESS);
}

// --- the extractor ---

bool receiveEnd(ProgramEnd* end) {
  ssize_t got;
  do {
    got = read(to_starter.get(), end, sizeof *end);
  } while (got < 0 && errno == EINTR);
  return got == sizeof *end;
}

// An extractor without its starter is of no more use; the command replaces it.
[[noreturn]] void giveUp() { _exit(EXIT_FAILURE); }

}  // namespace

void startHelperStarter(const HelperConfinement& confinement) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
    throw std::runtime_error(std::string("socketpair: ") + std::strerror(errno));
  }
  to_starter = Descriptor(ends[0]);
  Descriptor other(ends[1]);
  const pid_t extractor = getpid();
  const pid_t starter = fork();
  if (starter < 0) throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
  if (starter == 0) serve(other.get(), confinement, extractor);
  other.reset();
  ProgramEnd ready;
  if (!receiveEnd(&ready)) throw std::runtime_error("helper programs cannot be confined");
}

void startProgram(const std::vector<std::string>& command, int in, int out, int err,
                  unsigned seconds) {
  if (!to_starter) startHelperStarter({});
  std::string bytes(reinterpret_cast<const char*>(&seconds), sizeof seconds);
  for (const std::string& word : command) bytes.append(word).push_back('\0');
  Message message(bytes.data(), bytes.size());
  cmsghdr* const header = CMSG_FIRSTHDR(&message.header);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(kFiles * sizeof(int));
  const std::array<int, kFiles> files = {in, out, err};
  std::memcpy(CMSG_DATA(header), files.data(), sizeof files);
  ssize_t sent;
  do {
    sent = sendmsg(to_starter.get(), &message.header, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  if (sent != static_cast<ssize_t>(bytes.size())) giveUp();
}

ProgramEnd awaitProgram() {
  ProgramEnd end;
  if (!receiveEnd(&end)) giveUp();
  return end;
}

}  // namespace tool
