#include "cli/command_line.h"

#include <fmt/format.h>

#include <algorithm>

namespace tool {

namespace {

constexpr size_t kHelpWidth = 80;
constexpr char kFileGroup[] = "Which files";
constexpr char kLimitGroup[] = "Limits (what goes beyond is reported as not inspected)";
constexpr char kGeneralGroup[] = "General";

// Help with the meaning of an option beside or below it, wrapped.
class HelpFormatter : public CLI::Formatter {
 public:
  std::string make_option(const CLI::Option* option, bool positional) const override {
    constexpr size_t kColumn = 26;
    std::string head = "  " + make_option_name(option, positional) + make_option_opts(option);
    const std::string meaning = wrapped(option->get_description(), kColumn, kHelpWidth);
    if (head.size() + 2 > kColumn) return head + "\n" + meaning;
    return head + meaning.substr(head.size());
  }

  std::string make_help(const CLI::App* app, std::string name,
                        CLI::AppFormatMode mode) const override {
    std::string help = CLI::Formatter::make_help(app, name, mode);
    return CLI::detail::find_and_replace(help, "\n\n\n", "\n\n");
  }

  std::string make_option_opts(const CLI::Option* option) const override {
    const std::string type = option->get_type_name();
    return type.empty() || option->get_positional() ? "" : " " + type;
  }
};

std::string footer(const VerbHelp& help) {
  std::string text = wrapped(help.description, 0, kHelpWidth);
  text += "\nExit status:\n" + wrapped(help.statuses, 2, kHelpWidth);
  text += "\nExamples:\n";
  for (const Example& example : help.examples) {
    text += fmt::format("  {}\n", example.command);
    if (!example.meaning.empty()) text += fmt::format("      {}\n", example.meaning);
  }
  return text;
}

CLI::App* addVerb(CLI::App* app, std::string_view name) {
  for (const VerbHelp& help : allHelp()) {
    if (help.name != name) continue;
    CLI::App* verb = app->add_subcommand(std::string(name), std::string(help.summary));
    verb->group(std::string(help.group));
    verb->footer([&help] { return footer(help); });
    return verb;
  }
  throw std::logic_error("a verb without help");
}

// An option that may be given many times, one value each.
template <typename T>
CLI::Option* addList(CLI::App* verb, const char* name, std::vector<T>* list, const char* meaning) {
  return verb->add_option(name, *list, meaning)->allow_extra_args(false);
}

CLI::Option* addPaths(CLI::App* verb, const char* name, std::vector<std::string>* paths,
                      const char* meaning) {
  return verb->add_option(name, *paths, meaning)->type_name("PATH");
}

void addWalkOptions(CLI::App* verb, FileChoice* files) {
  addList(verb, "--include", &files->include,
          "Of the files below directories, only those whose base name fits; may be repeated")
      ->type_name("GLOB")
      ->group(kFileGroup);
  addList(verb, "--exclude", &files->exclude, "Not the files whose base name fits")
      ->type_name("GLOB")
      ->group(kFileGroup);
  addList(verb, "--exclude-dir", &files->exclude_directories,
          "Not the directories whose base name fits, nor what is below them")
      ->type_name("GLOB")
      ->group(kFileGroup);
  verb->add_flag_callback(
          "-L,--dereference", [files] { files->links = FileChoice::Links::kAll; },
          "Follow all symbolic links (default: those named, not those below directories)")
      ->group(kFileGroup);
  verb->add_flag_callback(
          "-P,--no-dereference", [files] { files->links = FileChoice::Links::kNone; },
          "Follow no symbolic link, not even those named")
      ->excludes("--dereference")
      ->group(kFileGroup);
  verb->add_flag("-x,--one-file-system", files->one_file_system,
                 "Skip directories on other file systems than the one named")
      ->group(kFileGroup);
}

void addFileOptions(CLI::App* verb, FileChoice* files, const char* meaning) {
  addPaths(verb, "PATH", &files->paths, meaning);
  addList(verb, "--files-from", &files->files_from,
          "Also the files and directories in the list FILE, one a line; \"-\": standard input")
      ->type_name("FILE")
      ->group(kFileGroup);
  verb->add_flag("-0,--null", files->null_separated,
                 "Names in lists end with a NUL character instead of a line break")
      ->group(kFileGroup);
  addWalkOptions(verb, files);
  verb->callback([files] {
    if (files->paths.empty() && files->files_from.empty()) {
      throw CLI::RequiredError("PATH or --files-from");
    }
  });
}

void addInspectOptions(CLI::App* verb, InspectOptions* inspect) {
  const CLI::AsSizeValue size(true);
  Limits& limits = inspect->limits;
  const auto add = [verb](const char* name, auto& value, const char* type, const char* meaning) {
    return verb->add_option(name, value, meaning)->type_name(type)->group(kLimitGroup);
  };
  add("--time-limit", limits.seconds, "SECONDS", "For a file with all in it (120)")
      ->check(CLI::PositiveNumber.description(""));
  add("--total-limit", limits.total_bytes, "SIZE", "Of all documents in a file, expanded (100M)")
      ->transform(CLI::Validator(size).description(""));
  add("--size-limit", limits.member_bytes, "SIZE", "Of one document in a file, expanded (25M)")
      ->transform(CLI::Validator(size).description(""));
  add("--depth-limit", limits.depth, "NUMBER", "Of archives and mails inside each other (16)");
  add("--member-limit", limits.members, "NUMBER", "Of documents in a file (10000)");
  add("--ratio-limit", limits.ratio, "NUMBER", "Expanded bytes for each compressed one (100)")
      ->check(CLI::PositiveNumber.description(""));
  add("--memory-limit", limits.memory_bytes, "SIZE", "Of each process that opens files (1Gi)")
      ->transform(CLI::Validator(size).description(""));
}

void addJobs(CLI::App* verb, InspectOptions* inspect) {
  verb->add_option("-j,--jobs", inspect->jobs, "Files opened at once (one for each processor)")
      ->check(CLI::Range(1u, 1024u).description(""))
      ->type_name("NUMBER")
      ->group(kGeneralGroup);
}

// An option with one word out of a few; "full|sparse" is how help names them.
template <typename Enum>
CLI::Option* addWord(CLI::App* verb, const char* name, Enum* value, const char* meaning,
                     const std::vector<std::pair<std::string, Enum>>& words) {
  std::vector<std::string> names;
  for (const auto& [word, meant] : words) names.push_back(word);
  const auto choose = [value, words](const std::string& typed) {
    for (const auto& [word, meant] : words) {
      if (word == typed) *value = meant;
    }
  };
  return verb->add_option_function<std::string>(name, choose, meaning)
      ->check(CLI::IsMember(names).description(""))
      ->type_name(fmt::format("{}", fmt::join(names, "|")));
}

void addSelection(CLI::App* verb, Selection* selection) {
  addWord<Selection>(verb, "--selection", selection, "How many signatures of a document (full)",
                     {{"full", Selection::kFull}, {"sparse", Selection::kSparse}});
}

void addIndexOptions(CLI::App* verb, IndexOptions* options) {
  addSelection(verb, &options->selection);
  verb->add_option("--label", options->label, "A word that every match with these documents tells")
      ->type_name("TEXT");
  addInspectOptions(verb, &options->inspect);
  addJobs(verb, &options->inspect);
}

void addIndex(CLI::App* app, IndexOptions* options) {
  CLI::App* verb = addVerb(app, "index");
  addFileOptions(verb, &options->files, "Files, and directories with all below them");
  addIndexOptions(verb, options);
  verb->add_flag("--prune", options->prune,
                 "Remove documents from the index whose files are gone from the named directories");
  verb->add_flag("--prune-empty", options->prune_empty,
                 "The same, also when a named directory is empty or gone");
}

void addWatch(CLI::App* app, WatchOptions* options) {
  CLI::App* verb = addVerb(app, "watch");
  addPaths(verb, "PATH", &options->index.files.paths, "Directories")->required();
  addWalkOptions(verb, &options->index.files);
  addIndexOptions(verb, &options->index);
  verb->add_option("--settle", options->settle_seconds,
                   "Index a file when it has been left alone for so long (2)")
      ->check(CLI::Range(0u, 86400u).description(""))
      ->type_name("SECONDS");
}

void addDelete(CLI::App* app, DeleteOptions* options) {
  CLI::App* verb = addVerb(app, "delete");
  addPaths(verb, "PATH", &options->paths, "Documents, or directories with all below them");
  addList(verb, "--id", &options->ids, "The document with this file ID; may be repeated")
      ->type_name("NUMBER");
  verb->add_option("--label", options->label, "All documents that bear this label")
      ->type_name("TEXT");
  verb->callback([options] {
    if (options->paths.empty() && options->ids.empty() && options->label.empty()) {
      throw CLI::RequiredError("PATH, --id or --label");
    }
  });
}

void addCommon(CLI::App* app, CommonTextOptions* options) {
  using Action = CommonTextOptions::Action;
  CLI::App* verb = addVerb(app, "common");
  verb->require_subcommand(1);
  const auto add = [=](const char* name, Action action, const char* summary) {
    CLI::App* part = verb->add_subcommand(name, summary)->group("Actions");
    part->final_callback([=] { options->action = action; });
    return part;
  };
  CLI::App* files = add("add", Action::kAdd, "Declare the text of files common");
  addPaths(files, "FILE", &options->files, "Files whose text is common")->required();
  addInspectOptions(files, &options->inspect);
  CLI::App* gone = add("remove", Action::kRemove, "Take that back");
  addPaths(gone, "FILE", &options->files, "Files that were added")->required();
  add("list", Action::kList, "Show the files that were added")
      ->add_flag("--json", options->json, "JSON lines, one for each file");
  CLI::App* suggest = add("suggest", Action::kSuggest, "Show text that stands in many documents");
  suggest->add_flag("--json", options->json, "JSON lines, one for each signature");
  suggest
      ->add_option("--min-documents", options->min_documents,
                   "In at least so many (a tenth of all)")
      ->check(CLI::PositiveNumber.description(""))
      ->type_name("NUMBER");
}

void addMatch(CLI::App* app, MatchOptions* options) {
  CLI::App* verb = addVerb(app, "match");
  addFileOptions(verb, &options->files,
                 "Files, directories with all below them, \"-\" for the standard input");
  verb->add_option("--min-level", options->min_level, "The lowest level that counts (1)")
      ->check(CLI::IsMember({0, 1, 2}).description(""))
      ->type_name("0|1|2");
  verb->add_flag("--explain", options->explain, "Show the passages that match");
  verb->add_flag("--lenient", options->lenient,
                 "Exit status 0 even if something was not inspected");
  verb->add_flag_callback(
      "--json", [options] { options->report = Report::kJson; },
      "JSON lines; docs/command.md describes the records");
  verb->add_flag_callback(
          "--sarif", [options] { options->report = Report::kSarif; }, "A SARIF 2.1.0 log")
      ->excludes("--json");
  addInspectOptions(verb, &options->inspect);
  addJobs(verb, &options->inspect);
}

void addText(CLI::App* app, TextOptions* options) {
  CLI::App* verb = addVerb(app, "text");
  verb->add_option("FILE", options->file, "The document; \"-\" for the standard input")
      ->required()
      ->type_name("PATH");
  addInspectOptions(verb, &options->inspect);
}

void addSig(CLI::App* app, SigOptions* options) {
  CLI::App* verb = addVerb(app, "sig");
  addPaths(verb, "FILE", &options->files, "Documents; \"-\" for the standard input")->required();
  addSelection(verb, &options->selection);
  verb->add_flag("--json", options->json, "JSON lines, one for each document");
  addInspectOptions(verb, &options->inspect);
}

void addList(CLI::App* app, ListOptions* options) {
  CLI::App* verb = addVerb(app, "list");
  addPaths(verb, "PATH", &options->paths, "Documents, or directories with all below them");
  verb->add_option("--label", options->label, "Only documents that bear this label")
      ->type_name("TEXT");
  verb->add_flag("--json", options->json, "JSON lines, one for each document");
}

void addExport(CLI::App* app, ExportOptions* options) {
  using What = ExportOptions::What;
  CLI::App* verb = addVerb(app, "export");
  addWord<What>(verb, "WHAT", &options->what, "\"catalogue\" (default) or \"tables\"",
                {{"catalogue", What::kCatalogue}, {"tables", What::kTables}});
  verb->add_flag_callback(
      "--json", [options] { options->format = ExportOptions::Format::kJson; },
      "JSON lines instead of CSV");
}

void addUpkeep(CLI::App* app, Options* options) {
  addVerb(app, "verify")->add_flag("--json", options->verify.json, "The findings as JSON");
  addVerb(app, "rebuild")
      ->add_flag("--from-catalogue", options->rebuild.from_catalogue, "Make the index anew, too");
}

void addGeneralOptions(CLI::App* app, Options* options) {
  app->set_help_flag("-h,--help", "Show this help")->group(kGeneralGroup);
  app->add_option("--home", options->home,
                  "The home of the index (TESSERA_HOME, or .tessera in this directory)")
      ->type_name("DIR")
      ->group(kGeneralGroup);
  addWord<ProgressStyle>(app, "--progress", &options->progress,
                         "On the standard error: a bar if that is a terminal (auto), JSON lines",
                         {{"auto", ProgressStyle::kAuto},
                          {"none", ProgressStyle::kNone},
                          {"json", ProgressStyle::kJson}})
      ->group(kGeneralGroup);
  for (CLI::App* verb : app->get_subcommands({})) addGeneralOptions(verb, options);
}

// Whether the argument is an option whose value is the next argument.
bool takesNext(const CLI::App* app, const std::string& argument) {
  const CLI::Option* option = app->get_option_no_throw(argument);
  if (option && option->nonpositional() && option->get_items_expected_max() > 0) return true;
  for (const CLI::App* verb : app->get_subcommands({})) {
    if (takesNext(verb, argument)) return true;
  }
  return false;
}

}  // namespace

std::string wrapped(std::string_view text, size_t indent, size_t width) {
  const std::string margin(indent, ' ');
  std::string lines;
  while (!text.empty()) {
    const size_t line_break = std::min(text.find('\n'), text.size());
    size_t end = line_break;
    if (indent + end > width) {
      const size_t blank = text.rfind(' ', width - indent);
      end = blank == std::string_view::npos ? std::min(text.find(' '), line_break) : blank;
    }
    lines += margin + std::string(text.substr(0, end)) + "\n";
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

std::unique_ptr<CLI::App> makeCommandLine(Options* options) {
  const VerbHelp& help = allHelp().front();
  auto app = std::make_unique<CLI::App>(std::string(help.summary), std::string(help.name));
  app->formatter(std::make_shared<HelpFormatter>());
  app->footer([&help] {
    return footer(help) + "\n'tessera VERB --help' and 'man tessera-VERB' tell more of each verb.";
  });
  app->set_version_flag("--version", std::string("tessera ") + TESSERA_VERSION)
      ->group(kGeneralGroup);
  app->require_subcommand(1);
  app->get_formatter()->label("SUBCOMMAND", "VERB");

  addIndex(app.get(), &options->index);
  addWatch(app.get(), &options->watch);
  addDelete(app.get(), &options->remove);
  addCommon(app.get(), &options->common);
  addMatch(app.get(), &options->match);
  addText(app.get(), &options->text);
  addSig(app.get(), &options->sig);
  addList(app.get(), &options->list);
  addVerb(app.get(), "stats")->add_flag("--json", options->stats.json, "The figures as JSON");
  addExport(app.get(), &options->export_);
  addUpkeep(app.get(), options);
  addGeneralOptions(app.get(), options);
  return app;
}

void parse(CLI::App* app, int argc, char** argv) {
  std::vector<std::string> arguments(argv + 1, argv + argc);
  for (size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    const bool list_like = argument.starts_with('[') && argument.ends_with(']');
    if (list_like && !(i > 0 && takesNext(app, arguments[i - 1]))) {
      arguments[i] = "./" + argument;  // the same file, but no list of several
    }
  }
  std::reverse(arguments.begin(), arguments.end());
  app->parse(std::move(arguments));
}

}  // namespace tool
