#include "extract/formats/helper_program.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <iterator>
#include <new>

#include "extract/descriptor.h"

namespace tool {

namespace {

constexpr size_t kErrorBytes = 4096;
constexpr int kNotStarted = 127;  // exit status, as shells have it

struct Pipe {
  Descriptor read;
  Descriptor write;
};

[[noreturn]] void failToStart(const std::string& program) {
  if (errno == ENOMEM) throw std::bad_alloc();
  throw NotInspected(Reason::kUnsupported, "cannot start " + program);
}

Pipe makePipe(const std::string& program) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) failToStart(program);
  return Pipe{Descriptor(ends[0]), Descriptor(ends[1])};
}

// A file in memory, at its beginning.
Descriptor fileWith(std::string_view content, const std::string& program) {
  Descriptor file(memfd_create("document", MFD_CLOEXEC));
  if (!file) failToStart(program);
  for (size_t written = 0; written < content.size();) {
    const ssize_t got = write(file.get(), content.data() + written, content.size() - written);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) failToStart(program);
    written += static_cast<size_t>(got);
  }
  if (lseek(file.get(), 0, SEEK_SET) != 0) failToStart(program);
  return file;
}

// Never returns. Between fork and exec: only what is safe there.
[[noreturn]] void becomeProgram(char* const* arguments, int in, int out, int err, unsigned seconds,
                                pid_t extractor) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != extractor) _exit(kNotStarted);  // it has died before that
  if (dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(kNotStarted);
  close_range(3, ~0U, 0);
  // The extractor may not send signals: the program carries its own end with it.
  alarm(seconds);
  execvp(arguments[0], arguments);
  _exit(kNotStarted);
}

// Reaps the program. It cannot outlive its alarm by much, nor write to closed pipes.
int exitStatus(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

// False at the end of the pipe. What is beyond `limit` is read and dropped.
bool drain(int pipe, size_t limit, std::string* output) {
  std::array<char, 64 << 10> chunk;
  const ssize_t got = ::read(pipe, chunk.data(), chunk.size());
  if (got < 0) return errno == EINTR || errno == EAGAIN;
  if (got == 0) return false;
  const size_t room = limit - std::min(limit, output->size());
  output->append(chunk.data(), std::min(room, static_cast<size_t>(got)));
  return true;
}

void gather(Descriptor out, Descriptor err, const Document& document, HelperResult* result) {
  // One byte more than is allowed tells that there is more.
  const size_t limit = document.limits().total_bytes + 1;
  while (out || err) {
    pollfd ends[] = {{out.get(), POLLIN, 0}, {err.get(), POLLIN, 0}};
    if (poll(ends, 2, 1000) < 0 && errno != EINTR) throw NotInspected(Reason::kUnreadable, "poll");
    if (ends[0].revents && !drain(out.get(), limit, &result->output)) out.reset();
    if (ends[1].revents && !drain(err.get(), kErrorBytes, &result->errors)) err.reset();
    if (result->output.size() == limit) throw NotInspected(Reason::kSizeLimit, "");
    document.checkTime();
  }
}

}  // namespace

HelperResult runHelper(const std::vector<std::string>& command, std::string_view input,
                       const Document& document) {
  const std::string& program = command.at(0);
  // The copy is in memory, too, and in no other limit of it.
  if (input.size() > document.limits().memory_bytes) {
    throw NotInspected(Reason::kMemoryLimit,
                       "larger than " + std::to_string(document.limits().memory_bytes) + " bytes");
  }
  const Descriptor in = fileWith(input, program);
  Pipe out = makePipe(program);
  Pipe err = makePipe(program);
  std::vector<char*> arguments;
  for (const std::string& argument : command) {
    arguments.push_back(const_cast<char*>(argument.c_str()));
  }
  arguments.push_back(nullptr);

  const unsigned seconds = document.secondsLeft();
  const pid_t extractor = getpid();
  const pid_t child = fork();
  if (child < 0) failToStart(program);
  if (child == 0) {
    becomeProgram(arguments.data(), in.get(), out.write.get(), err.write.get(), seconds, extractor);
  }
  out.write.reset();
  err.write.reset();

  HelperResult result;
  try {
    gather(std::move(out.read), std::move(err.read), document, &result);
  } catch (...) {
    exitStatus(child);
    throw;
  }
  result.exit_status = exitStatus(child);
  if (result.exit_status == kNotStarted) {
    throw NotInspected(Reason::kUnsupported, program + " is not installed");
  }
  if (result.exit_status == 128 + SIGALRM || result.exit_status == 128 + SIGXCPU) {
    throw NotInspected(Reason::kTimeLimit, program);
  }
  return result;
}

bool ranOutOfMemory(const HelperResult& result) {
  // As they and the C++ library say it. How they end tells nothing: abort() cannot send
  // its signal from inside of the sandbox.
  constexpr std::string_view kSaid[] = {"Out of memory", "std::bad_alloc", "Insufficient memory",
                                        "Can't allocate memory"};
  return result.exit_status != 0 &&
         std::any_of(std::begin(kSaid), std::end(kSaid), [&](std::string_view said) {
           return result.errors.find(said) != std::string::npos;
         });
}

}  // namespace tool
