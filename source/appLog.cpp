#include "appLog.h"

#include <cerrno>
#include <csignal>
#include <cstring>

void printdf(int, const char*, ...) {}

void reportFatal(int line, const char* file) {
    const int error = errno;
    printdf(4, "Kestor Error: Error at line %d, file %s (%d) [%s]\n", line, file, error, strerror(error));
    raise(SIGTERM);
}
