// What a program says of its command line: --help in one form for all programs, and mistakes by the word that
// is wrong.
#pragma once

#include <CLI/CLI.hpp>

// Gives `app` the help texts that all programs share. REQUIRES: called before commands are added, which take
// the form over; placeholders are the options' type names, defaults are shown for options with
// capture_default_str().
void shapeHelp(CLI::App& app);

// Says what `error`, thrown by app.parse(), means: help or version on standard output, a mistake on standard
// error with the word that is wrong and one that may have been meant. Returns the exit status: 0, or
// `mistake`.
int reportUsage(const CLI::App& app, const CLI::ParseError& error, int mistake = 2);
