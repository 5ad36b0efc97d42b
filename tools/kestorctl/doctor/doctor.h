// kestorctl doctor: what on this machine keeps the probe from doing its work, a line each with what to do.
#pragma once

#include <chrono>
#include <string>

namespace doctor {

struct Request {
    std::string station;  // its socket
    std::chrono::milliseconds timeout{};
    bool json = false;
};

// Looks at everything and prints it. Returns the exit status of a monitoring plugin: 0 all is well, 1
// warnings, 2 failures (3 is for a caller that could not be understood). What could not be seen counts for
// nothing. Throws nothing that a machine may cause.
int run(const Request& request);

}  // namespace doctor
