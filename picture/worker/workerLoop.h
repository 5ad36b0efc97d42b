// What a worker does for as long as it lives.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "exchange.h"

namespace pictured {

// The answer to a request, as it is sent: head, raster, JPEG.
std::string answerTo(const RequestHead& head, std::span<const uint8_t> video, std::span<const uint8_t> audio);

// Locks this process up and answers requests that come over the socket, one after another, until the other
// side closes it. Returns the exit status; says on standard error why it cannot.
int runWorker(int socket);

}  // namespace pictured
