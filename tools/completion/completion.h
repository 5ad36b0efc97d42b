// Completion of a program's command line in shells, from the description that CLI11 has of it.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

// Adds the hidden option "--completion bash|zsh", which prints the shell's completion function and ends. What
// the package installs for the shells calls it, so that completion knows what the installed program does.
// REQUIRES: `app` has a name and outlives its parsing; options and commands may be declared before or after.
void addCompletion(CLI::App& app);

// The functions themselves, named after the program with '_' before it.
std::string bashCompletion(const CLI::App& app);
std::string zshCompletion(const CLI::App& app);
