// The owner of everything that the station knows.
#pragma once

#include <memory>

#include "fileKeeper.h"
#include "mailbox.h"
#include "state/commands.h"

namespace station {

// One thread owns channel set, alarms and histories; the others send it letters and read the states that it
// publishes.
class Station {
  public:
    // What it runs with from the start; a reload changes the rest. Throws std::runtime_error with a sentence
    // for an operator when it cannot start. `keeper` and `mailbox` have to outlive it.
    Station(LoadedFiles files, LoadedRuntime runtime, FileKeeper& keeper, Mailbox& mailbox);
    // Stops the mailbox and ends all threads; everything is written.
    ~Station();
    Station(const Station&) = delete;

  private:
    struct Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace station
