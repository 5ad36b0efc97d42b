// Log hook and fatal errors of the application.
#pragma once

// Levelled log point, level 1 to 4. Log points are marked, not printed: nothing handed in is ever output.
// May be called from any thread.
void printdf(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Source names that fatal reports carry.
inline constexpr const char* kConfigurationFile = "source/configuration";
inline constexpr const char* kStreamJoinerFile = "source/streamjoiner";

// Hands the report of a fatal error, with `line`, `file` and the current errno, to the log hook and raises
// SIGTERM, which ends the process unless the signal is ignored.
void reportFatal(int line, const char* file);
