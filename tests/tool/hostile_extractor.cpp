// An extractor that a document has taken over, for inspector_test.cpp: it confines
// itself as the real one does, and then does what the name of the document says. What it
// could do it says in the detail of a part; "refused" is what everybody wants to read.
#include <fcntl.h>
#include <linux/io_uring.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <new>
#include <string>
#include <vector>

#include "extract/helper_starter.h"
#include "extract/protocol.h"
#include "extract/sandbox.h"

namespace {

using namespace tool;

constexpr int kSocket = 0;

void say(const std::string& detail) {
  Part part;
  part.detail = detail;
  sendFrame(kSocket, FrameType::kPart, encodePart(part));
}

void sendRaw(const std::string& bytes) {
  if (write(kSocket, bytes.data(), bytes.size()) < 0) _exit(3);
}

// What a system call came to.
void tell(long result) {
  const char* const failure = errno == EPERM ? "refused" : std::strerror(errno);
  say(result >= 0 ? "allowed" : failure);
}

std::string number32(uint32_t value) {
  return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}

[[noreturn]] void hang() {
  while (true) pause();
}

void forkBomb() {
  int children = 0;
  while (children < 2000) {
    const pid_t child = fork();
    if (child < 0) break;
    if (child == 0) hang();
    ++children;
  }
  say(children < 2000 ? "stopped" : "not stopped");
}

void takeMemory() {
  constexpr size_t kBlock = 16 << 20;
  size_t taken = 0;
  while (taken < size_t{2} << 30) {
    void* const block =
        mmap(nullptr, kBlock, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (block == MAP_FAILED) break;
    std::memset(block, 1, kBlock);
    taken += kBlock;
  }
  say(taken < size_t{1} << 30 ? "stopped" : "not stopped");
}

// What the starter of helper programs does for it.
int runProgram(const std::vector<std::string>& command) {
  startProgram(command, 1, 1, 2, 100);
  const ProgramEnd end = awaitProgram();
  return end.error == 0 ? end.exit_status : -1;
}

void startPrograms() {
  const int status = runProgram({"touch", "/tmp/tessera-extract-was-here"});
  say(status == 1 ? "refused" : "allowed");
}

void forkInProgram() {
  const int able = runProgram({"sh", "-c", "exit 7"});
  const int status = runProgram({"sh", "-c", "sleep 0 & exit 7"});
  say(able == 7 && status == 2 ? "refused" : "allowed");
}

const std::map<std::string, std::function<void()>>& deeds() {
  static const std::map<std::string, std::function<void()>> deeds_by_name = {
      // against the system
      {"socket", [] { tell(socket(AF_INET, SOCK_STREAM, 0)); }},
      {"unix-socket", [] { tell(socket(AF_UNIX, SOCK_STREAM, 0)); }},
      {"socket-pair",
       [] {
         int ends[2];
         tell(socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
       }},
      {"create", [] { tell(open("/tmp/tessera-extract-was-here", O_WRONLY | O_CREAT, 0600)); }},
      {"write-null", [] { tell(open("/dev/null", O_WRONLY)); }},
      {"read-write-null", [] { tell(open("/dev/null", O_RDWR)); }},
      {"truncate", [] { tell(open("/dev/null", O_RDONLY | O_TRUNC)); }},
      {"unlink", [] { tell(unlink("/tmp/tessera-extract-was-here")); }},
      {"rename", [] { tell(rename("/tmp/a", "/tmp/b")); }},
      {"mkdir", [] { tell(mkdir("/tmp/tessera-extract-was-here", 0700)); }},
      {"chmod", [] { tell(chmod("/tmp", 0777)); }},
      {"mount", [] { tell(mount("none", "/tmp", "tmpfs", 0, nullptr)); }},
      {"ptrace", [] { tell(ptrace(PTRACE_TRACEME, 0, nullptr, nullptr)); }},
      {"kill", [] { tell(kill(getppid(), 0)); }},
      // A descriptor may send any signal to whom it belongs to when something happens to it.
      {"signal-by-descriptor", [] { tell(fcntl(kSocket, F_SETOWN, getppid())); }},
      {"choose-signal", [] { tell(fcntl(kSocket, F_SETSIG, SIGKILL)); }},
      {"outlive-parent", [] { tell(prctl(PR_SET_PDEATHSIG, 0)); }},
      {"sibling",
       [] {
         const long child =
             syscall(SYS_clone, CLONE_PARENT | SIGCHLD, nullptr, nullptr, nullptr, 0);
         if (child == 0) _exit(0);
         tell(child);
       }},
      {"new-namespace", [] { tell(unshare(CLONE_NEWUSER)); }},
      {"bpf", [] { tell(syscall(SYS_bpf, 0, nullptr, 0)); }},
      {"keyctl", [] { tell(syscall(SYS_keyctl, 0, 0, 0, 0, 0)); }},
      {"io-uring",
       [] {
         io_uring_params params{};
         tell(syscall(SYS_io_uring_setup, 1, &params));
       }},
#ifdef __x86_64__
      // The same calls by other numbers: they must not even be asked for.
      {"x32-call",
       [] {
         const pid_t child = fork();
         if (child == 0) _exit(syscall(0x40000000 | SYS_socket, AF_INET, SOCK_STREAM, 0) >= 0);
         int status = 0;
         waitpid(child, &status, 0);
         say(WIFEXITED(status) && WEXITSTATUS(status) == 1 ? "allowed" : "refused");
       }},
      {"32-bit-call",
       [] {
         const pid_t child = fork();
         if (child == 0) {
           long result = 359;  // socket()
           __asm__ volatile("int $0x80"
                            : "+a"(result)
                            : "b"(AF_INET), "c"(SOCK_STREAM), "d"(0)
                            : "memory");
           _exit(result >= 0);
         }
         int status = 0;
         waitpid(child, &status, 0);
         say(WIFEXITED(status) && WEXITSTATUS(status) == 1 ? "allowed" : "refused");
       }},
#endif
      {"new-session", [] { tell(setsid()); }},
      {"new-privileges", [] { say(prctl(PR_GET_NO_NEW_PRIVS) == 1 ? "allowed" : "refused"); }},
      {"be-root", [] { tell(setuid(0) == 0 && geteuid() == 0 ? 0 : -1); }},
      {"fork", [] { tell(fork()); }},
      {"program", startPrograms},
      {"fork-in-program", forkInProgram},
      {"fork-bomb", forkBomb},
      {"memory", takeMemory},
      {"shared-memory",
       [] {
         constexpr size_t kMuch = size_t{4} << 30;  // which costs nothing before it is used
         void* const block =
             mmap(nullptr, kMuch, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
         say(block == MAP_FAILED ? "stopped" : "not stopped");
       }},
      {"users", [] { say(access("/etc/passwd", F_OK) == 0 ? "allowed" : "refused"); }},
      // against the command
      {"hang", [] { hang(); }},
      {"spin",
       [] {
         while (getppid() >= 0) {
         }
       }},
      {"hang-in-program",
       [] {
         runProgram({"sleep", "86397"});
       }},
      {"talk-nonsense-to-starter",
       [] {
         startProgram({}, 1, 1, 2, 1);
         awaitProgram();
       }},
      {"die-but-for-a-child",
       [] {
         if (fork() == 0) {
           for (int i = 0; i < 64; ++i) close(i);
           hang();
         }
         _exit(9);
       }},
      {"die-before-answer", [] { _exit(7); }},
      {"segfault",
       [] {
         sendFrame(kSocket, FrameType::kBegin, "inner!member");
         std::signal(SIGSEGV, SIG_DFL);
         raise(SIGSEGV);
         _exit(8);
       }},
      {"exit",
       [] {
         sendFrame(kSocket, FrameType::kBegin, "inner");
         _exit(9);
       }},
      {"no-memory",
       [] {
         sendFrame(kSocket, FrameType::kBegin, "inner");
         sendFrame(kSocket, FrameType::kEnd, std::string(1, '\1'));
         _exit(0);
       }},
      {"garbage", [] { sendRaw(std::string(100000, '\xaa')); }},
      {"huge-frame", [] { sendRaw(std::string(1, 4).append(number32(0xffffffff))); }},
      {"huge-content",
       [] {
         Part part;
         std::string header = encodePart(part);
         header.back() = 0x7f;
         sendFrame(kSocket, FrameType::kPart, header);
       }},
      {"huge-name", [] { sendFrame(kSocket, FrameType::kPart, number32(0xfffffff0) + "name"); }},
      {"no-such-reason",
       [] {
         Part part;
         std::string header = encodePart(part);
         header[header.size() - 9] = 100;
         sendFrame(kSocket, FrameType::kPart, header);
       }},
      {"content-without-part", [] { sendFrame(kSocket, FrameType::kContent, "content"); }},
      {"more-content-than-announced",
       [] {
         Part part;
         part.content = "123";
         sendFrame(kSocket, FrameType::kPart, encodePart(part));
         sendFrame(kSocket, FrameType::kContent, "1234");
       }},
      {"empty-content-for-ever",
       [] {
         Part part;
         part.content = "123";
         sendFrame(kSocket, FrameType::kPart, encodePart(part));
         while (true) sendFrame(kSocket, FrameType::kContent, "");
       }},
      {"parts-for-ever",
       [] {
         while (true) say("again");
       }},
      {"large-parts",
       [] {
         Part part;
         part.content = std::string(kMaximalPayload, 'x');
         for (int i = 0; i < 100; ++i) {
           sendFrame(kSocket, FrameType::kPart, encodePart(part));
           sendFrame(kSocket, FrameType::kContent, part.content);
         }
       }},
      {"half-a-frame",
       [] {
         sendRaw(std::string("\4\20\0\0", 4));
         _exit(0);
       }},
      {"bad-end", [] { sendFrame(kSocket, FrameType::kEnd, "\5"); }},
      {"escape-codes",
       [] {
         Part part;
         part.name = "a\x1b[31m";
         part.detail = "b\nc";
         sendFrame(kSocket, FrameType::kPart, encodePart(part));
       }},
      {"environment",
       [] {
         std::string all;
         for (char** variable = environ; *variable; ++variable) all.append(*variable).append(" ");
         say(all);
       }},
      {"descriptors",
       [] {
         std::string all;
         for (int i = 0; i < 200; ++i) {
           if (fcntl(i, F_GETFD) >= 0) all.append(std::to_string(i)).append(" ");
         }
         say(all);
       }},
  };
  return deeds_by_name;
}

void serve() {
  FrameHeader header;
  std::string payload;
  Descriptor file;
  if (!receiveFrame(kSocket, &header, &payload, &file)) return;
  const Limits limits = decodeLimits(payload);
  startHelperStarter(helperConfinement(limits));
  sendFrame(kSocket, FrameType::kReady, confineProcess(limits));
  while (receiveFrame(kSocket, &header, &payload, &file)) {
    confineDocument(limits, 0);
    if (payload != "die-before-answer") sendFrame(kSocket, FrameType::kBegin, "");
    const auto deed = deeds().find(payload);
    if (deed != deeds().end()) deed->second();
    sendFrame(kSocket, FrameType::kEnd, std::string(1, '\0'));
  }
}

}  // namespace

int main() {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  try {
    serve();
  } catch (const ProtocolError&) {  // the command has had enough
  }
}
