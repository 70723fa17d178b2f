// Completions of the command line for three shells, made from its definition.
// Tests: tests/tool/command_line_test.py.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace tool {

std::string bashCompletion(const CLI::App& app);
std::string zshCompletion(const CLI::App& app);
std::string fishCompletion(const CLI::App& app);

}  // namespace tool
