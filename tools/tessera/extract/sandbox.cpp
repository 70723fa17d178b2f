// In this order: another user than root, limits of the kernel, no new privileges, and a
// list of the system calls that are left. What is not on it is refused with EPERM, so that
// a library that tries something needless goes on without it.
#include "extract/sandbox.h"

#include <asm/termbits.h>
#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <seccomp.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>

namespace tool {

namespace {

[[noreturn]] void fail(const char* what) {
  throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

// --- user ---

// Root is not bound by some limits, and owns too much. Where it may not become somebody
// else it is no real root either.
void leaveRoot() {
  constexpr uid_t kNobody = 65534;
  if (geteuid() != 0) return;
  if (setgroups(0, nullptr) != 0 || setresgid(kNobody, kNobody, kNobody) != 0 ||
      setresuid(kNobody, kNobody, kNobody) != 0) {
    return;
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // forgotten with the user
}

// --- limits ---

// Soft and hard; never more than what holds already.
void limit(__rlimit_resource resource, rlim_t soft, rlim_t hard) {
  rlimit now;
  if (getrlimit(resource, &now) != 0) fail("getrlimit");
  hard = std::min(hard, now.rlim_max);
  const rlimit lower = {std::min(soft, hard), hard};
  if (setrlimit(resource, &lower) != 0) fail("setrlimit");
}

void limit(__rlimit_resource resource, rlim_t value) { limit(resource, value, value); }

#ifdef TESSERA_SANITIZE
constexpr bool kLimitMemory = false;  // a sanitizer takes terabytes of addresses
#else
constexpr bool kLimitMemory = true;
#endif

void limitProcess(const Limits& limits) {
  constexpr rlim_t kOpenFiles = 64;
  limit(RLIMIT_CORE, 0);
  limit(RLIMIT_NOFILE, kOpenFiles);
  if (kLimitMemory) limit(RLIMIT_DATA, limits.memory_bytes);
}

// --- system calls ---

constexpr const char* kAllowed[] = {
    // what is open
    "read", "readv", "pread64", "preadv", "write", "writev", "pwrite64", "lseek", "close",
    "close_range", "dup", "dup2", "dup3", "pipe", "pipe2", "poll", "ppoll", "select", "pselect6",
    "fadvise64", "memfd_create", "recvmsg", "sendmsg",
    // looking at files
    "access", "faccessat", "faccessat2", "stat", "fstat", "lstat", "newfstatat", "statx", "statfs",
    "fstatfs", "readlink", "readlinkat", "getdents64", "getcwd",
    // memory
    "brk", "mmap", "munmap", "mremap", "mprotect", "madvise", "mincore", "membarrier",
    // time
    "clock_gettime", "clock_getres", "clock_nanosleep", "nanosleep", "gettimeofday", "time",
    "times", "alarm", "setitimer", "getitimer",
    // this process
    "getpid", "gettid", "getppid", "getpgrp", "getuid", "geteuid", "getgid", "getegid", "getresuid",
    "getresgid", "getgroups", "getrlimit", "getrusage", "uname", "sysinfo", "umask", "getrandom",
    "sched_yield", "sched_getaffinity", "arch_prctl", "set_tid_address", "set_robust_list", "rseq",
    "futex", "restart_syscall",
    // signals
    "rt_sigaction", "rt_sigprocmask", "rt_sigreturn", "rt_sigsuspend", "rt_sigpending",
    "rt_sigtimedwait", "pause", "sigaltstack",
    // the end
    "exit", "exit_group"};

constexpr const char* kToStartPrograms[] = {"fork", "vfork", "execve", "wait4", "waitid"};

class SystemCallFilter {
 public:
  SystemCallFilter() : filter_(seccomp_init(SCMP_ACT_ERRNO(EPERM))) {
    if (!filter_) fail("seccomp_init");
    seccomp_attr_set(filter_, SCMP_FLTATR_CTL_OPTIMIZE, 2);  // looked up as a tree
  }
  ~SystemCallFilter() { seccomp_release(filter_); }
  SystemCallFilter(const SystemCallFilter&) = delete;
  SystemCallFilter& operator=(const SystemCallFilter&) = delete;

  template <typename... Conditions>
  void allow(const char* call, Conditions... conditions) {
    add(SCMP_ACT_ALLOW, call, conditions...);
  }

  template <typename... Conditions>
  void add(uint32_t action, const char* call, Conditions... conditions) {
    const int number = seccomp_syscall_resolve_name(call);
    if (number == __NR_SCMP_ERROR || number < 0) return;  // not on this processor
    const scmp_arg_cmp all[] = {conditions..., scmp_arg_cmp{}};
    if (seccomp_rule_add_array(filter_, action, number, sizeof...(conditions), all) != 0) {
      throw std::runtime_error(std::string("no filter for ") + call);
    }
  }

  bool load() { return seccomp_load(filter_) == 0; }

 private:
  scmp_filter_ctx filter_;
};

scmp_arg_cmp equals(unsigned argument, uint64_t value) { return {argument, SCMP_CMP_EQ, value, 0}; }

scmp_arg_cmp hasNone(unsigned argument, uint64_t bits) {
  return {argument, SCMP_CMP_MASKED_EQ, bits, 0};
}

enum class Programs { kNone, kMayBeStarted };

bool filterSystemCalls(Programs programs) {
  SystemCallFilter filter;
  for (const char* call : kAllowed) filter.allow(call);

  constexpr uint64_t kWriting = O_ACCMODE | O_CREAT | O_TRUNC;
  filter.allow("open", hasNone(1, kWriting));
  filter.allow("openat", hasNone(2, kWriting));

  // Nor who gets a signal over a descriptor, and which: that would be as good as kill().
  for (const uint64_t command : {F_DUPFD, F_DUPFD_CLOEXEC, F_GETFD, F_SETFD, F_GETFL, F_SETFL}) {
    filter.allow("fcntl", equals(1, command));
  }

  if (programs == Programs::kMayBeStarted) {
    for (const char* call : kToStartPrograms) filter.allow(call);
    // Namespaces, and children of whoever started this one.
    constexpr uint64_t kBeyondItself = CLONE_NEWNS | CLONE_NEWCGROUP | CLONE_NEWUTS | CLONE_NEWIPC |
                                       CLONE_NEWUSER | CLONE_NEWPID | CLONE_NEWNET | CLONE_PARENT;
    filter.allow("clone", hasNone(0, kBeyondItself));
    // Keeps its flags in memory, out of sight; without it clone() is taken.
    filter.add(SCMP_ACT_ERRNO(ENOSYS), "clone3");
  }

  for (const uint64_t request : {TCGETS, FIONREAD, FIOCLEX}) {
    filter.allow("ioctl", equals(1, request));
  }
  for (const uint64_t option : {PR_SET_NAME, PR_GET_NAME}) {
    filter.allow("prctl", equals(0, option));
  }
  filter.allow("prctl", equals(0, PR_SET_PDEATHSIG), equals(1, SIGKILL));
  // Its own limits, and signals to itself: abort().
  filter.allow("prlimit64", equals(0, 0));
  filter.allow("tgkill", equals(0, static_cast<uint64_t>(getpid())));
  return filter.load();
}

std::string confine(const Limits& limits, Programs programs) {
  leaveRoot();
  limitProcess(limits);
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) fail("no_new_privs");
  return filterSystemCalls(programs) ? "seccomp, rlimits" : "rlimits";
}

// The system counts all processes of a user, but for this limit it does not matter how
// many there are.
void forbidProcesses() { limit(RLIMIT_NPROC, 0); }

}  // namespace

std::string confineProcess(const Limits& limits) {
  std::string confinement = confine(limits, Programs::kNone);
  forbidProcesses();
  return confinement;
}

HelperConfinement helperConfinement(const Limits& limits) {
  return {[limits] { confine(limits, Programs::kMayBeStarted); },
          [limits](uint64_t input_bytes) {
            confineDocument(limits, input_bytes);
            forbidProcesses();
          }};
}

void confineDocument(const Limits& limits, uint64_t file_bytes) {
  rusage used;
  if (getrusage(RUSAGE_SELF, &used) != 0) fail("getrusage");
  const auto seconds = static_cast<rlim_t>(used.ru_utime.tv_sec + used.ru_stime.tv_sec);
  limit(RLIMIT_CPU, seconds + limits.seconds + 1, RLIM_INFINITY);
  // Files in memory, which helper programs read: the document or a member.
  limit(RLIMIT_FSIZE, std::max<rlim_t>(file_bytes, limits.total_bytes), RLIM_INFINITY);
  // The file is mapped; the libraries, too.
  constexpr rlim_t kPrograms = 256 << 20;
  if (kLimitMemory) {
    limit(RLIMIT_AS, limits.memory_bytes + file_bytes + kPrograms, RLIM_INFINITY);
  }
}

}  // namespace tool
