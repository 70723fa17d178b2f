#include "cli/completions.h"

#include <fmt/format.h>

#include <map>
#include <utility>
#include <vector>

namespace tool {

namespace {

enum class Value { kNone, kFile, kDirectory, kWords, kOther };

// The type that help shows tells what can be completed: "FILE", "a|b", "NUMBER".
Value valueOf(const CLI::Option& option) {
  const std::string type = option.get_type_name();
  if (type.find('|') != std::string::npos) return Value::kWords;
  if (type == "FILE" || type == "PATH") return Value::kFile;
  if (type == "DIR") return Value::kDirectory;
  return option.get_items_expected_max() > 0 ? Value::kOther : Value::kNone;
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
  return CLI::detail::find_and_replace(std::move(text), from, to);
}

std::string wordsOf(const CLI::Option& option) {
  return replaced(option.get_type_name(), "|", " ");
}

std::vector<std::string> namesOf(const CLI::Option& option) {
  std::vector<std::string> names;
  for (const std::string& name : option.get_snames()) names.push_back("-" + name);
  for (const std::string& name : option.get_lnames()) names.push_back("--" + name);
  return names;
}

std::vector<const CLI::Option*> optionsOf(const CLI::App& app) {
  return app.get_options([](const CLI::Option* option) { return option->nonpositional(); });
}

const CLI::Option* positionalOf(const CLI::App& app) {
  const auto found = app.get_options([](const CLI::Option* o) { return o->get_positional(); });
  return found.empty() ? nullptr : found.front();
}

std::string singleQuoted(const std::string& text) {
  return "'" + replaced(text, "'", "'\\''") + "'";
}

// A place in the command line: before the verb, behind it, behind "common add".
struct Scope {
  std::string name;  // "", "match", "common add"
  const CLI::App* app;
};

std::string innerName(const std::string& scope, const CLI::App& verb) {
  return scope.empty() ? verb.get_name() : scope + " " + verb.get_name();
}

void addScopes(const CLI::App& app, const std::string& name, std::vector<Scope>* scopes) {
  scopes->push_back({name, &app});
  for (const CLI::App* verb : app.get_subcommands({})) {
    addScopes(*verb, innerName(name, *verb), scopes);
  }
}

std::vector<Scope> scopesOf(const CLI::App& app) {
  std::vector<Scope> scopes;
  addScopes(app, "", &scopes);
  return scopes;
}

// The options that have a value, by name: a name means the same behind every verb.
std::map<std::string, const CLI::Option*> valuedOptions(const CLI::App& app) {
  std::map<std::string, const CLI::Option*> valued;
  for (const Scope& scope : scopesOf(app)) {
    for (const CLI::Option* option : optionsOf(*scope.app)) {
      if (valueOf(*option) == Value::kNone) continue;
      for (const std::string& name : namesOf(*option)) valued.emplace(name, option);
    }
  }
  return valued;
}

std::string verbNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* verb : app.get_subcommands({})) names.push_back(verb->get_name());
  return fmt::format("{}", fmt::join(names, " "));
}

std::string bashAnswer(Value value, const std::string& words) {
  switch (value) {
    case Value::kFile:
      return "kind=files";
    case Value::kDirectory:
      return "kind=directories";
    case Value::kWords:
      return "words='" + words + "'";
    default:
      return "kind=none";
  }
}

}  // namespace

std::string bashCompletion(const CLI::App& app) {
  std::string valued;  // which options have a value
  std::string values;  // and what it can be
  for (const auto& [name, option] : valuedOptions(app)) {
    valued += fmt::format("{}*:{}", valued.empty() ? "" : " | ", name);
    values +=
        fmt::format("    *:{}) {} ;;\n", name, bashAnswer(valueOf(*option), wordsOf(*option)));
  }
  std::string verbs;    // which words change the scope
  std::string options;  // what can stand in a scope
  for (const Scope& scope : scopesOf(app)) {
    for (const CLI::App* verb : scope.app->get_subcommands({})) {
      verbs += fmt::format("      '{}:{}') scope='{}' ;;\n", scope.name, verb->get_name(),
                           innerName(scope.name, *verb));
    }
    std::vector<std::string> names;
    for (const CLI::Option* option : optionsOf(*scope.app)) {
      for (const std::string& name : namesOf(*option)) names.push_back(name);
    }
    const CLI::Option* positional = positionalOf(*scope.app);
    const std::string verb_names = verbNames(*scope.app);
    options += fmt::format("    '{}') options='{}' {} ;;\n", scope.name, fmt::join(names, " "),
                           !verb_names.empty() ? "words='" + verb_names + "'"
                           : positional ? bashAnswer(valueOf(*positional), wordsOf(*positional))
                                        : "kind=none");
  }
  return fmt::format(R"(# bash completion for tessera

_tessera() {{
  local current=${{COMP_WORDS[COMP_CWORD]}} previous=${{COMP_WORDS[COMP_CWORD - 1]}}
  local scope='' kind='' words='' options='' i
  if [[ $current == = ]]; then
    current=''
  elif [[ $previous == = ]]; then
    previous=${{COMP_WORDS[COMP_CWORD - 2]}}
  fi
  for ((i = 1; i < COMP_CWORD; ++i)); do
    case "$scope:${{COMP_WORDS[i]}}" in
{}      {}) [[ ${{COMP_WORDS[i + 1]}} == = ]] || ((++i)) ;;
    esac
  done
  case "$scope:$previous" in
{}    *)
      case "$scope" in
{}      esac
      if [[ $current == -* ]]; then
        kind='' words=$options
      fi
      ;;
  esac
  case $kind in
    none) COMPREPLY=() ;;
    files | directories)
      compopt -o filenames
      [[ $kind == files ]] && kind=-f || kind=-d
      mapfile -t COMPREPLY < <(compgen $kind -- "$current")
      ;;
    *) mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current") ;;
  esac
}}

complete -F _tessera tessera
)",
                     verbs, valued, values, replaced(options, "    '", "        '"));
}

namespace {

std::string zshText(std::string text) {
  for (const char* special : {"\\", "[", "]", ":"})
    text = replaced(text, special, std::string("\\") + special);
  return text;
}

std::string zshAction(const CLI::Option& option) {
  const std::string type = zshText(option.get_type_name());
  switch (valueOf(option)) {
    case Value::kNone:
      return "";
    case Value::kFile:
      return ":" + type + ":_files";
    case Value::kDirectory:
      return ":" + type + ":_files -/";
    case Value::kWords:
      return ":" + type + ":(" + wordsOf(option) + ")";
    case Value::kOther:
      return ":" + type + ": ";
  }
  return "";
}

// _arguments with everything that can stand in a scope; verbs are left to a function
// of their own.
std::string zshArguments(const CLI::App& app, const std::string& function) {
  std::string text = "  _arguments -s -C -A '-*'";
  for (const CLI::Option* option : optionsOf(app)) {
    const std::vector<std::string> names = namesOf(*option);
    const bool many = option->get_items_expected_max() > 1;
    for (const std::string& name : names) {
      const std::string before = many ? "*" : fmt::format("({})", fmt::join(names, " "));
      const bool equals = name.starts_with("--") && valueOf(*option) != Value::kNone;
      text += " \\\n    " +
              singleQuoted(fmt::format("{}{}{}[{}]{}", before, name, equals ? "=" : "",
                                       zshText(option->get_description()), zshAction(*option)));
    }
  }
  if (!app.get_subcommands({}).empty()) {
    text += fmt::format(" \\\n    '1:verb:{}_verbs' \\\n    '*::argument:->argument'", function);
  } else if (const CLI::Option* positional = positionalOf(app)) {
    const bool many = positional->get_items_expected_max() > 1;
    text += " \\\n    " + singleQuoted((many ? "*" : "1") + zshAction(*positional));
  }
  return text + "\n";
}

std::string zshFunctions(const CLI::App& app, const std::string& function) {
  std::string text;
  std::string cases;
  std::string verbs;
  for (const CLI::App* verb : app.get_subcommands({})) {
    const std::string name = function + "_" + verb->get_name();
    text += zshFunctions(*verb, name);
    cases += fmt::format("    {}) {} ;;\n", verb->get_name(), name);
    verbs += " \\\n    " + singleQuoted(verb->get_name() + ":" + zshText(verb->get_description()));
  }
  if (!verbs.empty()) {
    text += fmt::format("{}_verbs() {{\n  local -a verbs=({}\n  )\n  _describe verb verbs\n}}\n\n",
                        function, verbs);
  }
  text += function + "() {\n";
  if (verbs.empty()) return text + zshArguments(app, function) + "}\n\n";
  text += "  local curcontext=$curcontext context state state_descr line\n  local -A opt_args\n";
  text += zshArguments(app, function);
  return text +
         fmt::format("  [[ $state == argument ]] && case $line[1] in\n{}  esac\n}}\n\n", cases);
}

}  // namespace

std::string zshCompletion(const CLI::App& app) {
  return "#compdef tessera\n\n" + zshFunctions(app, "_tessera") + "_tessera \"$@\"\n";
}

namespace {

std::string fishValue(const CLI::Option& option) {
  switch (valueOf(option)) {
    case Value::kNone:
      return "";
    case Value::kFile:
      return " -r -F";
    case Value::kDirectory:
      return " -x -a '(__fish_complete_directories)'";
    case Value::kWords:
      return " -x -a " + singleQuoted(wordsOf(option));
    case Value::kOther:
      return " -x";
  }
  return "";
}

std::string fishText(std::string text) {
  return "'" + replaced(replaced(std::move(text), "\\", "\\\\"), "'", "\\'") + "'";
}

}  // namespace

std::string fishCompletion(const CLI::App& app) {
  std::string valued;
  for (const auto& [name, option] : valuedOptions(app)) valued += fmt::format(" '*:{}'", name);
  std::string verbs;
  std::string rules;
  for (const Scope& scope : scopesOf(app)) {
    const std::string rule =
        fmt::format("complete -c tessera -n '__tessera_in \"{}\"'", scope.name);
    for (const CLI::App* verb : scope.app->get_subcommands({})) {
      verbs += fmt::format("            case '{}:{}'\n                set scope '{}'\n", scope.name,
                           verb->get_name(), innerName(scope.name, *verb));
      rules += fmt::format("{} -a {} -d {}\n", rule, verb->get_name(),
                           fishText(verb->get_description()));
    }
    for (const CLI::Option* option : optionsOf(*scope.app)) {
      rules += rule;
      for (const std::string& name : option->get_snames()) rules += " -s " + name;
      for (const std::string& name : option->get_lnames()) rules += " -l " + name;
      rules += fishValue(*option) + " -d " + fishText(option->get_description()) + "\n";
    }
    const CLI::Option* positional = positionalOf(*scope.app);
    if (positional && valueOf(*positional) == Value::kWords) {
      rules += rule + " -a " + singleQuoted(wordsOf(*positional)) + "\n";
    } else if (positional) {
      rules += rule + " -F\n";
    }
  }
  return fmt::format(R"(# fish completion for tessera

# Whether the words before the cursor end behind this verb; "" is before any verb.
function __tessera_in
    set -l scope ''
    set -l skip no
    for word in (commandline -opc)[2..]
        if test $skip = yes
            set skip no
            continue
        end
        switch "$scope:$word"
{}            case{}
                set skip yes
        end
    end
    test "$scope" = "$argv[1]"
end

complete -c tessera -f
{})",
                     verbs, valued, rules);
}

}  // namespace tool
