// A file through kestor-measure: bare packets of any size, or a capture; and its report as people read it.
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "fuzz/fuzzing.h"
#include "measure.h"
#include "meter/reportText.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const int file = memfd_create("recording", MFD_CLOEXEC);
    if (write(file, data, size) != static_cast<ssize_t>(size)) {
        __builtin_trap();
    }
    const MeasuredFile measured =
        measureFile("/proc/self/fd/" + std::to_string(file), {}, [](uint64_t, uint64_t) {});
    for (const meter::Report& report : measured.reports) {
        meter::reportText(report, "recording");
        meter::toJson(report);
    }
    close(file);
    return 0;
}
