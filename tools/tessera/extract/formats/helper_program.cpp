#include "extract/formats/helper_program.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <iterator>
#include <new>

#include "extract/descriptor.h"
#include "extract/helper_starter.h"

namespace tool {

namespace {

constexpr size_t kErrorBytes = 4096;

struct Pipe {
  Descriptor read;
  Descriptor write;
};

[[noreturn]] void failToStart(const std::string& program, int error = errno) {
  if (error == ENOMEM) throw std::bad_alloc();
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
  startProgram(command, in.get(), out.write.get(), err.write.get(), document.secondsLeft());
  out.write.reset();
  err.write.reset();

  HelperResult result;
  try {
    gather(std::move(out.read), std::move(err.read), document, &result);
  } catch (...) {
    awaitProgram();  // it cannot outlive its alarm by much, nor write to closed pipes
    throw;
  }
  const ProgramEnd end = awaitProgram();
  if (end.error == EAGAIN) throw NotInspected(Reason::kProcessLimit, "no process for " + program);
  if (end.error != 0) failToStart(program, end.error);
  result.exit_status = end.exit_status;
  if (result.exit_status == kNoSuchProgram) {
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
