// The command line of tessera: verbs, options, help, and what becomes of
// errors. The verbs themselves are in commands.h. Tests: tests/tool/tool_test.py.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include "commands.h"
#include "failure.h"
#include "home.h"

namespace {

constexpr char kAbout[] =
    "Fingerprints of documents: indexes the texts that matter and tells which of them\n"
    "a file shares passages with.";

constexpr char kExamples[] =
    "The home is the directory that holds the index and its catalogue: --home DIR,\n"
    "else the environment's TESSERA_HOME, else \".tessera\" in the current directory.\n"
    "It holds fingerprints of confidential texts; keep it as confidential as they are.\n"
    "\n"
    "Examples:\n"
    "  tessera index ~/contracts              index every text below a directory\n"
    "  tessera match draft.txt                what does the draft have in common with them?\n"
    "  tessera sig draft.txt | wc -l          how many signatures does it have?\n"
    "\n"
    "'tessera VERB --help' tells more.";

constexpr char kIndexHelp[] =
    "Files that are not plain text (NUL bytes near their beginning) and texts too short\n"
    "for a signature (fewer than 61 letters and digits have none) are left out and\n"
    "counted. Compressed files (.gz) are decompressed. Links are followed when they\n"
    "are named, not when they are found below a directory.\n"
    "\n"
    "A file that is indexed again replaces what the index held of it. A run that is\n"
    "cut off is made good by the next one; after Ctrl-C what was done so far is kept.\n"
    "\n"
    "Exit status: 0 all done, 2 something could not be indexed.\n"
    "\n"
    "Examples:\n"
    "  tessera index ~/contracts ~/plans/2024.txt\n"
    "  tessera index --home /srv/tessera /usr/share/doc";

constexpr char kMatchHelp[] =
    "Levels: 2 a document holds at least a tenth of the file's signatures, or 9 of\n"
    "them; 1 at least a twentieth, or 3; 0 at least one.\n"
    "\n"
    "Exit status: 0 nothing matched, 1 something did, 2 a file could not be matched.\n"
    "\n"
    "Examples:\n"
    "  tessera match outgoing.txt\n"
    "  tessera match --min-level 2 *.txt && echo clean";

constexpr char kSigHelp[] =
    "One signature of 8 bytes a line, in hexadecimal, in ascending order. Settings are\n"
    "taken from the home when there is one; nothing is written.\n"
    "\n"
    "Example:\n"
    "  comm -12 <(tessera sig a.txt) <(tessera sig b.txt)     what two texts share";

// The arguments, last one first. A file name "[a,b]" would be taken for a list
// of two; written as "./[a,b]" it names the same file and stays one.
std::vector<std::string> reversedArguments(int argc, char** argv) {
  std::vector<std::string> arguments;
  for (int i = argc - 1; i > 0; --i) {
    const std::string argument = argv[i];
    const bool list_like = argument.starts_with('[') && argument.ends_with(']');
    arguments.push_back(list_like ? "./" + argument : argument);
  }
  return arguments;
}

std::string usageError(const CLI::App* app, const CLI::Error& error) {
  std::string message = error.what();
  if (app->get_subcommands().empty() && app->remaining_size() > 0) {
    message = fmt::format("there is no verb '{}'", app->remaining().front());
  }
  return fmt::format("tessera: {}\n'tessera --help' and 'tessera VERB --help' tell more.\n",
                     message);
}

int run(int argc, char** argv) {
  CLI::App app(kAbout, "tessera");
  app.set_version_flag("--version", std::string("tessera ") + TESSERA_VERSION);
  app.footer(kExamples);
  app.require_subcommand(1);
  app.failure_message(usageError);

  std::string home_option;
  tool::IndexOptions index_options;
  tool::MatchOptions match_options;
  tool::SigOptions sig_options;

  CLI::App* index = app.add_subcommand("index", "Add files to the index, or renew them");
  index->add_option("PATH", index_options.files.paths, "Files, and directories with all below them")
      ->required()
      ->type_name("");
  index->footer(kIndexHelp);

  CLI::App* match = app.add_subcommand("match", "Tell which documents of the index a file matches");
  match->add_option("FILE", match_options.files.paths, "Texts to be compared with the index")
      ->required()
      ->type_name("");
  match->add_option("--min-level", match_options.min_level, "The lowest level that is told (1)")
      ->check(CLI::IsMember({0, 1, 2}).description(""))
      ->type_name("0|1|2");
  match->footer(kMatchHelp);

  CLI::App* sig = app.add_subcommand("sig", "Print the signatures of a file");
  sig->add_option("FILE", sig_options.files, "The text")->required()->type_name("");
  sig->footer(kSigHelp);

  for (CLI::App* with_home : {&app, index, match, sig}) {
    with_home->add_option("--home", home_option, "The home of the index")->type_name("DIR");
  }

  if (argc < 2) {
    fmt::print(stderr, "{}", app.help());
    return tool::kFailed;
  }
  try {
    app.parse(reversedArguments(argc, argv));
  } catch (const CLI::ParseError& outcome) {
    return app.exit(outcome) == 0 ? tool::kDone : tool::kFailed;  // 0 is --help and --version
  }

  const tool::CommonOptions common = {.home = tool::homePath(home_option)};
  if (index->parsed()) return tool::indexCommand(common, index_options);
  if (match->parsed()) return tool::matchCommand(common, match_options);
  return tool::sigCommand(common, sig_options);
}

}  // namespace

int main(int argc, char** argv) {
  int status = tool::kFailed;
  try {
    status = run(argc, argv);
  } catch (const std::exception& failure) {
    std::fflush(stdout);
    tool::complain(failure.what());
  }
  if (std::fflush(stdout) != 0) {
    tool::complain("cannot write the output");
    status = tool::kFailed;
  }
  return status;
}
