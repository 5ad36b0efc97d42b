#include "sarn/sarnLog.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

int logThreshold = 0;

}  // namespace

void initializeSarnSettings(int level) {
    logThreshold = level;
}

void printcf(int level, const char* /*format*/, ...) {
    if (level > logThreshold) {
        return;
    }
    // Log points are marked in the code only; what an operator must see is printed directly.
}

void sarnFatal(int line, const char* file) {
    printf("Sarn Error: Error at line %d, file %s (%d) [%s]\n", line, file, errno, strerror(errno));
    exit(1);
}
