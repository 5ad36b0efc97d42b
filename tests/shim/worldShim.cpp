// Preloaded into a program under test: sets its wall clock ahead or back, and has its files hang.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

// The seconds by which the clock is off: the first eight bytes of the file that KESTOR_SHIM_CLOCK names.
int64_t secondsOff() {
    static const auto* const shared = []() -> const volatile int64_t* {
        const char* const name = getenv("KESTOR_SHIM_CLOCK");
        const int file = name == nullptr
                             ? -1
                             : static_cast<int>(syscall(SYS_openat, AT_FDCWD, name, O_RDONLY | O_CLOEXEC));
        void* const memory =
            file < 0 ? MAP_FAILED : mmap(nullptr, sizeof(int64_t), PROT_READ, MAP_SHARED, file, 0);
        return memory == MAP_FAILED ? nullptr : static_cast<const volatile int64_t*>(memory);
    }
    ();
    return shared == nullptr ? 0 : *shared;
}

// Whoever opens a file whose name ends with KESTOR_SHIM_HANG waits for as long as /tmp/hang is there.
void hangWhere(const char* path) {
    const char* const end = getenv("KESTOR_SHIM_HANG");
    const std::size_t length = end == nullptr ? 0 : strlen(end);
    const std::size_t whole = strlen(path);
    if (length == 0 || whole < length || strcmp(path + whole - length, end) != 0) {
        return;
    }
    while (access("/tmp/hang", F_OK) == 0) {
        usleep(10'000);
    }
}

int openReally(const char* path, int flags, va_list arguments) {
    hangWhere(path);
    const bool makes = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    const int mode = makes ? va_arg(arguments, int) : 0;
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* result) noexcept {
    const int status = static_cast<int>(syscall(SYS_clock_gettime, clock, result));
    if (status == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) {
        result->tv_sec += secondsOff();
    }
    return status;
}

int gettimeofday(timeval* result, void* /*zone*/) noexcept {
    timespec wall{};
    const int status = clock_gettime(CLOCK_REALTIME, &wall);
    *result = {wall.tv_sec, wall.tv_nsec / 1000};
    return status;
}

time_t time(time_t* result) noexcept {
    timespec wall{};
    clock_gettime(CLOCK_REALTIME, &wall);
    if (result != nullptr) {
        *result = wall.tv_sec;
    }
    return wall.tv_sec;
}

int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int result = openReally(path, flags, arguments);
    va_end(arguments);
    return result;
}

int open64(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int result = openReally(path, flags, arguments);
    va_end(arguments);
    return result;
}
}
