// What this process and its threads have used.
#pragma once

#include <cstdint>

namespace station {

double threadCpuMs();        // processor time of the calling thread
double processCpuSeconds();  // of all threads
uint64_t residentBytes();    // 0 where the kernel does not tell

}  // namespace station
