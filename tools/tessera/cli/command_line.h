// The one definition of what can be typed: verbs, options and what they mean. From it
// come the parser, `--help`, the man pages and the shells' completions (manual.cpp).
// Tests: tests/tool/command_line_test.py.
#pragma once

#include <CLI/CLI.hpp>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "commands.h"

namespace tool {

// What was typed, of all verbs. One of them has been chosen; the others have defaults.
struct Options {
  std::string home;  // as given, or empty
  ProgressStyle progress = ProgressStyle::kAuto;
  IndexOptions index;
  MatchOptions match;
  ListOptions list;
  DeleteOptions remove;
  StatsOptions stats;
  VerifyOptions verify;
  RebuildOptions rebuild;
  ExportOptions export_;
  SigOptions sig;
  TextOptions text;
  WatchOptions watch;
  CommonTextOptions common;
};

struct Example {
  std::string_view command;
  std::string_view meaning;
};

// What is to be said of a verb beside its options.
struct VerbHelp {
  std::string_view name;
  std::string_view group;        // under which `tessera --help` shows it
  std::string_view summary;      // one line
  std::string_view description;  // paragraphs, each one line, "\n" between them
  std::string_view statuses;     // exit statuses, one a line
  std::vector<Example> examples;
};

// The verbs in the order in which help shows them; the command itself, under the name
// "tessera", is the first.
const std::vector<VerbHelp>& allHelp();

// A command line that parses into *options, which must outlive it.
std::unique_ptr<CLI::App> makeCommandLine(Options* options);

// Throws CLI::ParseError: for help too. A file name "[a,b]", which the parser would
// take for a list of two, is a name.
void parse(CLI::App* app, int argc, char** argv);

// `text` with lines broken before the column `width` and each begun with `indent`
// blanks; line breaks in it stay.
std::string wrapped(std::string_view text, size_t indent, size_t width);

}  // namespace tool
