#include "inspect/confined_command.h"

#include <unistd.h>

#include <filesystem>
#include <system_error>

namespace tool {

namespace {

constexpr char kProgram[] = "/tessera-extract";  // inside

// "/lib" is a link into /usr on most systems and a directory on others.
void addSystemDirectory(const std::string& directory, std::vector<std::string>* command) {
  std::error_code error;
  if (std::filesystem::is_symlink(directory, error)) {
    const std::string target = std::filesystem::read_symlink(directory, error).string();
    command->insert(command->end(), {"--symlink", target, directory});
  } else {
    command->insert(command->end(), {"--ro-bind-try", directory, directory});
  }
}

}  // namespace

std::vector<std::string> confinedCommand(const std::string& program) {
  std::vector<std::string> command = {"/usr/bin/bwrap", "--die-with-parent",   "--new-session",
                                      "--unshare-ipc",  "--unshare-pid",       "--unshare-net",
                                      "--unshare-uts",  "--unshare-cgroup-try"};
  if (geteuid() == 0) {
    // Its user cannot be changed in a user namespace with one user: it does so itself.
    command.insert(command.end(),
                   {"--cap-drop", "ALL", "--cap-add", "CAP_SETUID", "--cap-add", "CAP_SETGID"});
  } else {
    command.insert(command.end(), {"--unshare-user"});
  }
  command.insert(command.end(), {"--ro-bind", "/usr", "/usr"});
  for (const char* directory : {"/lib", "/lib32", "/lib64", "/libx32", "/bin"}) {
    addSystemDirectory(directory, &command);
  }
  // The loader's cache, own additions to the database of file types, and fonts, whose
  // names pdftotext wants to know.
  for (const char* file : {"/etc/ld.so.cache", "/etc/magic", "/etc/fonts", "/etc/alternatives"}) {
    command.insert(command.end(), {"--ro-bind-try", file, file});
  }
  command.insert(command.end(), {"--proc", "/proc", "--dev", "/dev", "--ro-bind", program, kProgram,
                                 "--remount-ro", "/", "--chdir", "/", "--", kProgram});
  return command;
}

}  // namespace tool
