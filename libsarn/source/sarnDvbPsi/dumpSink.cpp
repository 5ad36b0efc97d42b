#include "sarn/dumpSink.h"

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <string>

#include "sarn/sarnLog.h"

namespace {

constexpr int kLogLevel = 4;

class StandardOutputSink : public DumpSink {
  protected:
    void write(std::string_view text) override {
        fwrite(text.data(), 1, text.size(), stdout);
    }
};

class LogSink : public DumpSink {
  protected:
    void write(std::string_view text) override {
        printcf(kLogLevel, "%.*s", static_cast<int>(text.size()), text.data());
    }
};

}  // namespace

void DumpSink::print(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    if (length > 0) {
        std::string text(static_cast<std::size_t>(length), '\0');
        vsnprintf(text.data(), text.size() + 1, format, again);
        write(text);
    }
    va_end(again);
}

DumpSink& standardOutputSink() {
    static StandardOutputSink sink;
    return sink;
}

DumpSink& logSink() {
    static LogSink sink;
    return sink;
}
