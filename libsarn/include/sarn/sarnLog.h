// Log hook, fatal errors and invariants of the analysis library.
#pragma once

#include <cassert>

// Levelled log point, level 1 to 4. Log points are marked, not printed: nothing handed in is ever output.
// May be called from any thread.
void printcf(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Stores the library's log threshold, 1 to 4. Call before any other thread uses the library.
void initializeSarnSettings(int level);

// Prints "Sarn Error: Error at line ..." with `line`, `file` and the current errno to standard output and
// ends the process with exit status 1.
[[noreturn]] void sarnFatal(int line, const char* file);

// Source names that fatal reports and assertions carry.
inline constexpr const char* kSarnDvbPsiFile = "source/sarnDvbPsi";
inline constexpr const char* kSarnUdpStreamsFile = "source/sarnUdpStreamsToMonitor";
inline constexpr const char* kGopFile = "source/gop";

// Ends the process through abort(), in the C library's form and in every build type, unless `condition`
// holds. `text` is what the message shows as the expression; `file` and `line` name the invariant for the
// reader of the message.
#define SARN_ASSERT_AT(condition, text, file, line) \
    (static_cast<bool>(condition) ? void(0) : __assert_fail((text), (file), (line), __func__))
#define SARN_ASSERT(condition, text) SARN_ASSERT_AT(condition, text, __FILE__, __LINE__)

// The C library declares this only when assertions are enabled; these invariants always are.
extern "C" void __assert_fail(const char* assertion, const char* file, unsigned int line,
                              const char* function) noexcept __attribute__((noreturn));
