// Lines for the journal.
#pragma once

#include <cstdio>
#include <string>

namespace pictured {

// A line that says the same as the one before is not repeated. One thread.
class LogOnChange {
  public:
    void say(const std::string& text) {
        if (text != said_) {
            fprintf(stderr, "%s\n", text.c_str());
            said_ = text;
        }
    }

  private:
    std::string said_;
};

}  // namespace pictured
