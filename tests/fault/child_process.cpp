#include "child_process.h"

#include <cstdlib>
#include <filesystem>

#ifdef _WIN32
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <process.h>
#else
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

extern char** environ;
#endif

namespace {

std::string program;

std::vector<char*> argumentList(std::vector<std::string>* arguments) {
  std::vector<char*> list;
  for (std::string& argument : *arguments) list.push_back(argument.data());
  list.push_back(nullptr);
  return list;
}

}  // namespace

void rememberProgram(const char* argv0) { program = std::filesystem::absolute(argv0).string(); }

#ifdef _WIN32

void killThisProcess() {
  TerminateProcess(GetCurrentProcess(), kKilled);
  std::abort();
}

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, bool talks) {
  std::vector<std::string> all = {"child"};
  all.insert(all.end(), arguments.begin(), arguments.end());
  int down[2] = {-1, -1}, up[2] = {-1, -1}, kept[2] = {-1, -1};
  if (talks) {
    // Inherited are the standard handles only.
    if (_pipe(down, 256, _O_BINARY | _O_NOINHERIT) != 0 ||
        _pipe(up, 256, _O_BINARY | _O_NOINHERIT) != 0) {
      return;
    }
    kept[0] = _dup(0);
    kept[1] = _dup(1);
    _dup2(down[0], 0);
    _dup2(up[1], 1);
  }
  process_ = _spawnv(_P_NOWAIT, program.c_str(), argumentList(&all).data());
  if (!talks) return;
  _dup2(kept[0], 0);
  _dup2(kept[1], 1);
  for (const int closed : {kept[0], kept[1], down[0], up[1]}) _close(closed);
  to_ = down[1];
  from_ = up[0];
}

void ChildProcess::kill() { TerminateProcess(reinterpret_cast<HANDLE>(process_), kKilled); }

int ChildProcess::wait() {
  int status = -1;
  waited_ = true;
  _cwait(&status, process_, 0);
  return status;
}

#else

void killThisProcess() {
  ::kill(::getpid(), SIGKILL);
  std::abort();
}

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, bool talks) {
  std::vector<std::string> all = {program};
  all.insert(all.end(), arguments.begin(), arguments.end());
  int down[2] = {-1, -1}, up[2] = {-1, -1};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (talks) {
    if (::pipe2(down, O_CLOEXEC) != 0 || ::pipe2(up, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_adddup2(&actions, down[0], 0);
    posix_spawn_file_actions_adddup2(&actions, up[1], 1);
  }
  pid_t pid = -1;
  if (::posix_spawn(&pid, program.c_str(), &actions, nullptr, argumentList(&all).data(), environ) ==
      0) {
    process_ = pid;
  }
  posix_spawn_file_actions_destroy(&actions);
  if (!talks) return;
  ::close(down[0]);
  ::close(up[1]);
  to_ = down[1];
  from_ = up[0];
}

void ChildProcess::kill() { ::kill(static_cast<pid_t>(process_), SIGKILL); }

int ChildProcess::wait() {
  int status = 0;
  waited_ = true;
  while (::waitpid(static_cast<pid_t>(process_), &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  return WTERMSIG(status) == SIGKILL ? kKilled : -1;
}

#endif

ChildProcess::~ChildProcess() {
  if (started() && !waited_) {
    kill();
    wait();
  }
  for (const int descriptor : {to_, from_}) {
    if (descriptor != -1) ::close(descriptor);
  }
}

void ChildProcess::send(char command) {
  // The answer that does not come tells what went wrong.
  [[maybe_unused]] const auto written = ::write(to_, &command, 1);
}

int ChildProcess::receive() {
  char answer;
  return ::read(from_, &answer, 1) == 1 ? static_cast<unsigned char>(answer) : -1;
}
