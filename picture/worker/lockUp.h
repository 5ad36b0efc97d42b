// Takes from a worker all that decoding does not need.
#pragma once

#include <cstddef>

namespace pictured {

// What a worker may hold besides the libraries: some ten times what the largest picture takes.
inline constexpr std::size_t kWorkerDataBytes = std::size_t{384} * 1024 * 1024;
inline constexpr std::size_t kWorkerAddressBytes = std::size_t{1536} * 1024 * 1024;

// From here on this process reads and writes one socket, computes, takes memory (kWorkerDataBytes) and ends.
// It opens, makes, sends and asks nothing else: another system call ends it (SIGSYS). All other descriptors
// are closed; it has no capability and gets none; it dies with its parent. Call it with one thread, when all
// libraries are loaded. Throws std::runtime_error, what() is a sentence: the process has to end then.
void lockUp(int socket);

}  // namespace pictured
