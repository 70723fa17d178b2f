// A second run of the same program, which the tests kill, race, and talk to.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Exit code of a process that killed itself or was killed.
inline constexpr int kKilled = 137;

// What the program does when it is started with arguments that begin with
// "child"; each program that starts itself defines it (fault_main.cpp calls it).
int runAsChild(const std::vector<std::string>& arguments);

// Remembers where the program is, before anything changes the directory.
void rememberProgram(const char* argv0);

// Ends this process at once, as a crash would: nothing is flushed or destroyed.
[[noreturn]] void killThisProcess();

// The program with these arguments, in the current directory. With `talks`, its
// standard input and output are pipes to this process.
class ChildProcess {
 public:
  explicit ChildProcess(const std::vector<std::string>& arguments, bool talks = false);
  ~ChildProcess();  // kills it when it still runs
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool started() const { return process_ != -1; }
  void send(char command);  // one character
  int receive();            // one character, or -1 when there is no more
  void kill();              // at once; does not wait
  int wait();               // exit code

 private:
  intptr_t process_ = -1;
  bool waited_ = false;
  int to_ = -1;
  int from_ = -1;
};
