// The tessera command: parses the command line, runs the verb, and turns errors into
// messages and exit statuses. Tests: tests/tool/command_line_test.py.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "cli/command_line.h"
#include "cli/names.h"
#include "failure.h"
#include "store/home.h"

namespace tool {

namespace {

// Without this, a file of the index would get the number of a standard file that whoever
// started the command has closed, and messages would go into it. What holds the number
// here can be neither read nor written.
bool occupyStandardFiles() {
  int file = -1;
  do {
    file = ::open("/dev/null", O_PATH);
  } while (file >= 0 && file <= STDERR_FILENO);
  if (file >= 0) ::close(file);
  return file >= 0;
}

std::string usageError(const CLI::App* app, const CLI::Error& error) {
  std::string message = error.what();
  const CLI::App* last = app;  // of what was understood
  while (!last->get_subcommands().empty()) last = last->get_subcommands().front();
  if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::RequiredError) &&
      !last->get_subcommands({}).empty()) {
    const std::vector<std::string> rest = app->remaining(true);
    message = rest.empty() ? fmt::format("'{}' wants a verb", last->get_name())
                           : fmt::format("there is no verb '{}'", rest.front());
  }
  return fmt::format("tessera: {}\n'tessera --help' and 'tessera VERB --help' tell more.\n",
                     shownName(message));
}

int dispatch(const std::string& verb, const Options& options) {
  const CommonOptions common = {.home = homePath(options.home), .progress = options.progress};
  if (verb == "index") return indexCommand(common, options.index);
  if (verb == "match") return matchCommand(common, options.match);
  if (verb == "sig") return sigCommand(common, options.sig);
  if (verb == "text") return textCommand(common, options.text);
  if (verb == "delete") return deleteCommand(common, options.remove);
  if (verb == "list") return listCommand(common, options.list);
  if (verb == "stats") return statsCommand(common, options.stats);
  if (verb == "verify") return verifyCommand(common, options.verify);
  if (verb == "rebuild") return rebuildCommand(common, options.rebuild);
  if (verb == "export") return exportCommand(common, options.export_);
  if (verb == "common") return commonCommand(common, options.common);
  if (verb == "watch") return watchCommand(common, options.watch);
  throw std::logic_error("a verb that does nothing: " + verb);
}

int run(int argc, char** argv) {
  Options options;
  const std::unique_ptr<CLI::App> app = makeCommandLine(&options);
  app->failure_message(usageError);
  if (argc < 2) {
    fmt::print(stderr, "{}", app->help());
    return kFailed;
  }
  try {
    parse(app.get(), argc, argv);
  } catch (const CLI::ParseError& outcome) {
    return app->exit(outcome) == 0 ? kDone : kFailed;  // 0 is --help and --version
  }
  return dispatch(app->get_subcommands().front()->get_name(), options);
}

}  // namespace

}  // namespace tool

int main(int argc, char** argv) {
  if (!tool::occupyStandardFiles()) return tool::kFailed;
  int status = tool::kFailed;
  try {
    status = tool::run(argc, argv);
  } catch (const std::bad_alloc&) {
    std::fflush(stdout);
    tool::complain("out of memory");
  } catch (const std::exception& failure) {
    std::fflush(stdout);
    tool::complain(failure.what());
  }
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
    tool::complain("cannot write the output");
    status = tool::kFailed;
  }
  return status;
}
