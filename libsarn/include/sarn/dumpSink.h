// Where printed tables and packets go.
#pragma once

#include <string_view>

class DumpSink {
  public:
    virtual ~DumpSink() = default;

    // Formats and writes. A "%c" of 0 writes that byte.
    void print(const char* format, ...) __attribute__((format(printf, 2, 3)));

  protected:
    virtual void write(std::string_view text) = 0;
};

// Standard output.
DumpSink& standardOutputSink();

// The library's log at level 4.
DumpSink& logSink();
