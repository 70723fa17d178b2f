#include "files/opened_parts.h"

#include <fmt/format.h>

#include "cli/names.h"
#include "failure.h"
#include "files/input.h"
#include "store/records.h"

namespace tool {

namespace {

FoundFiles findNamed(const std::vector<std::string>& files, const std::filesystem::path& home) {
  FileChoice choice;
  choice.paths = files;
  FoundFiles found = findFiles(choice, home, StandardInput::kTaken);
  return found;
}

}  // namespace

OpenedParts::OpenedParts(const std::vector<std::string>& files, const std::filesystem::path& home,
                         const InspectOptions& options)
    : limits_(options.limits),
      found_(findNamed(files, home)),
      inspector_({.limits = options.limits}) {}

bool OpenedParts::each(const std::function<void(const std::string& name, const Part& part)>& show) {
  for (const std::string& problem : found_.problems) complain(problem);
  bool whole = found_.problems.empty();
  for (const FoundFile& file : found_.files) whole = open(file, show) && whole;
  return whole;
}

bool OpenedParts::open(const FoundFile& file,
                       const std::function<void(const std::string&, const Part&)>& show) {
  const auto complainAbout = [](const std::string& name, Reason reason, const std::string& detail) {
    complain(fmt::format("{} was not inspected: {}", name, reasonText(reason, detail)));
  };
  const Input input(file, limits_.total_bytes);
  if (input.reason() != Reason::kNone) {
    complainAbout(shownName(file.name), input.reason(), input.detail());
    return false;
  }
  bool whole = true;
  inspector_.inspect(input.descriptor(), file.path.filename().native(), [&](Part&& part) {
    const std::string name = shownName(part.name.empty() ? file.name : file.name + "!" + part.name);
    if (part.reason != Reason::kNone) {
      complainAbout(name, part.reason, part.detail);
      whole = false;
      if (part.content.empty()) return;
    }
    if (part.form != Form::kContainer) show(name, part);
  });
  return whole;
}

void Headings::print(const std::string& name, const std::string& body) {
  if (!several_ && !first_) {
    first_.emplace(name, body);
    return;
  }
  if (!several_) {
    several_ = true;
    printHeaded(first_->first, first_->second);
    first_.reset();
  }
  printHeaded(name, body);
}

void Headings::end() {
  if (first_) fmt::print("{}", first_->second);
}

void Headings::printHeaded(const std::string& name, const std::string& body) {
  fmt::print("{}==> {} <==\n{}", begun_ ? "\n" : "", name, body);
  begun_ = true;
}

}  // namespace tool
