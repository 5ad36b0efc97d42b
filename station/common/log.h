// The station's log: standard error, a line each, with journald's prefix ("<4>"), on a terminal a word for
// it.
#pragma once

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

namespace station {

// Levels of syslog (RFC 5424, clause 6.2.1).
enum class LogLevel : int { kError = 3, kWarning = 4, kNotice = 5, kInfo = 6, kDebug = 7 };

using LogField = std::pair<std::string_view, std::string_view>;

// Lines that wait for standard error; what comes beyond is dropped and counted, and how many it were is
// logged once lines are taken again.
inline constexpr std::size_t kLogQueue = 1000;
inline constexpr std::size_t kLogLine = 4096;  // bytes of a text; the rest is cut off

// Logs one line; line ends and control characters in the text come out as spaces. Fields (names in upper
// case, such as KESTOR_CHANNEL) go along where standard error is the journal, and are left out elsewhere. Any
// thread; never waits: a thread of the log writes, in the order of the calls.
void log(LogLevel level, std::string_view text, std::initializer_list<LogField> fields = {});

// Lines that were dropped since the start. Any thread.
uint64_t droppedLogLines();

// Waits until everything is written, but not longer than that. False when it is not: nobody reads standard
// error. The end of the program does so for up to 300 ms.
bool flushLog(std::chrono::milliseconds atMost);

// One message that may come again and again: says it at first, and then only when it has changed.
class LogOnChange {
  public:
    // True when the text was written, since it differs from the last one. Not for use by several threads.
    bool say(LogLevel level, std::string_view text);
    // What was wrong is over: the next text is said whatever it is. Says `recovered` if something was said
    // before.
    void resolved(std::string_view recovered = {});

  private:
    std::string last_;
};

}  // namespace station
