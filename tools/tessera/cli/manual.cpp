// Writes the manual and the shells' completions when tessera is built:
//
//   tessera_manual DIRECTORY DATE
//
// makes man/man1, bash-completion/completions, zsh/site-functions and
// fish/vendor_completions.d below the directory, from the definition of the command
// line. Tests: tests/tool/command_line_test.py.
#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "cli/command_line.h"
#include "cli/completions.h"

namespace fs = std::filesystem;

namespace tool {

namespace {

// Text as troff takes it: no escapes, no requests, hyphens that can be copied.
std::string roff(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    const bool line_begins = escaped.empty() || escaped.back() == '\n';
    if (line_begins && (c == '.' || c == '\'')) escaped += "\\&";
    if (c == '\\') {
      escaped += "\\e";
    } else if (c == '-') {
      escaped += "\\-";
    } else if (c == '~') {
      escaped += "\\(ti";
    } else {
      escaped += c;
    }
  }
  return escaped;
}

std::string upperCase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

std::string paragraphs(std::string_view text) {
  std::string page;
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    page += (page.empty() ? "" : ".PP\n") + roff(text.substr(0, end)) + "\n";
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return page;
}

std::string optionEntry(const CLI::Option& option) {
  std::vector<std::string> names;
  for (const std::string& name : option.get_snames()) names.push_back("-" + name);
  for (const std::string& name : option.get_lnames()) names.push_back("--" + name);
  if (names.empty()) names.push_back(option.get_name());
  std::string head = fmt::format("\\fB{}\\fR", roff(fmt::format("{}", fmt::join(names, ", "))));
  const std::string type = option.get_positional() ? "" : option.get_type_name();
  if (!type.empty()) head += fmt::format(" \\fI{}\\fR", roff(type));
  return fmt::format(".TP\n{}\n{}\n", head, roff(option.get_description()));
}

std::string optionSections(const CLI::App& app, const char* heading) {
  std::string page;
  std::string group;
  const auto add = [&](const CLI::Option* option, const std::string& of) {
    if (of != group) page += fmt::format("{} {}\n", heading, roff(of));
    group = of;
    page += optionEntry(*option);
  };
  for (const CLI::Option* option : app.get_options()) {
    if (option->get_positional()) add(option, "Arguments");
  }
  for (const std::string& name : app.get_groups()) {
    for (const CLI::Option* option : app.get_options()) {
      if (option->nonpositional() && option->get_group() == name) add(option, name);
    }
  }
  return page;
}

std::string synopsis(const CLI::App& app, const std::string& name) {
  std::string line = fmt::format("\\fB{}\\fR [\\fIOPTION\\fR]...", roff(name));
  for (const CLI::Option* option : app.get_options()) {
    if (!option->get_positional()) continue;
    const std::string word = fmt::format("\\fI{}\\fR", option->get_name());
    line += " " + (option->get_required() ? word : "[" + word + "]");
    if (option->get_items_expected_max() > 1) line += "...";
  }
  return line + "\n";
}

// Verbs below this one with all their options, or as a list of other pages.
std::string actions(const CLI::App& app, const std::string& name) {
  std::string page;
  for (const CLI::App* verb : app.get_subcommands({})) {
    if (verb->get_group() == "Actions") {
      page += fmt::format(".SH {}\n{}.PP\n{}.\n", roff(verb->get_name()),
                          synopsis(*verb, name + " " + verb->get_name()),
                          roff(verb->get_description()));
      page += optionSections(*verb, ".SS");
    } else {
      page +=
          fmt::format(".TP\n\\fB{}\\fR\n{}, see \\fBtessera\\-{}\\fR(1)\n", roff(verb->get_name()),
                      roff(verb->get_description()), roff(verb->get_name()));
    }
  }
  return page.starts_with(".TP") ? ".SH VERBS\n" + page : page;
}

std::string manualPage(const CLI::App& app, const VerbHelp& help, const std::string& date) {
  const bool is_verb = app.get_parent() != nullptr;
  const std::string name(help.name);
  const std::string command = is_verb ? "tessera " + name : name;
  const std::string title = is_verb ? "tessera-" + name : name;
  std::string page = fmt::format(".TH {} 1 {} \"tessera {}\" \"User Commands\"\n",
                                 roff(upperCase(title)), date, TESSERA_VERSION);
  page += fmt::format(".SH NAME\n{} \\- {}\n", roff(title), roff(help.summary));
  page += ".SH SYNOPSIS\n" + synopsis(app, command);
  if (!app.get_subcommands({}).empty()) page.insert(page.size() - 1, " \\fIVERB\\fR ...");
  page += ".SH DESCRIPTION\n" + paragraphs(help.description);
  page += actions(app, command);
  page += ".SH OPTIONS\n" + optionSections(app, ".SS");
  page += ".SH EXIT STATUS\n";
  for (std::string_view rest = help.statuses; !rest.empty();) {
    const size_t end = std::min(rest.find('\n'), rest.size());
    page += fmt::format(".TP\n{}\n{}\n", rest.substr(0, 1), roff(rest.substr(3, end - 3)));
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  page += ".SH EXAMPLES\n";
  for (const Example& example : help.examples) {
    page += fmt::format(".TP\n\\fB{}\\fR\n{}\n", roff(example.command), roff(example.meaning));
  }
  page += ".SH SEE ALSO\n";
  if (is_verb) return page + "\\fBtessera\\fR(1)\n";
  std::vector<std::string> pages;
  for (const CLI::App* verb : app.get_subcommands({})) {
    pages.push_back(fmt::format("\\fBtessera\\-{}\\fR(1)", verb->get_name()));
  }
  return page + fmt::format("{}\n", fmt::join(pages, ",\n"));
}

void write(const fs::path& path, const std::string& content) {
  fs::create_directories(path.parent_path());
  std::ofstream file(path, std::ios::binary);
  file << content;
  if (!file.flush()) throw std::runtime_error("cannot write " + path.string());
}

void writeAll(const fs::path& directory, const std::string& date) {
  Options options;
  const std::unique_ptr<CLI::App> app = makeCommandLine(&options);
  for (const VerbHelp& help : allHelp()) {
    const bool is_verb = help.name != app->get_name();
    const CLI::App& verb = is_verb ? *app->get_subcommand(std::string(help.name)) : *app;
    const std::string title = is_verb ? fmt::format("tessera-{}", help.name) : "tessera";
    write(directory / "man/man1" / (title + ".1"), manualPage(verb, help, date));
  }
  write(directory / "bash-completion/completions/tessera", bashCompletion(*app));
  write(directory / "zsh/site-functions/_tessera", zshCompletion(*app));
  write(directory / "fish/vendor_completions.d/tessera.fish", fishCompletion(*app));
}

}  // namespace

}  // namespace tool

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("usage: tessera_manual DIRECTORY DATE\n", stderr);
    return 2;
  }
  try {
    tool::writeAll(argv[1], argv[2]);
  } catch (const std::exception& error) {
    fmt::print(stderr, "tessera_manual: {}\n", error.what());
    return 1;
  }
  return 0;
}
