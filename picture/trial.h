// One picture and one piece of sound from files, for people and tests.
#pragma once

#include <string>

namespace pictured {

struct Trial {
    std::string program;  // for the worker
    std::string picture;  // an elementary stream; empty: none
    std::string sound;    // likewise
    std::string jpeg;     // where to write it; empty: nowhere
};

// Has them decoded as the service does, by a worker, and prints the figures. The codec goes by the files'
// endings. Returns whether all of it could be decoded. Throws std::runtime_error with a sentence for files
// that cannot be read or written.
bool tryFiles(const Trial& trial);

}  // namespace pictured
