// Part of the daemon in builds with the address sanitizer only. The daemon never ends by itself, so nothing
// would make it look for leaks: on KESTOR_LEAK_CHECK_SIGNAL it does, and ends with status 0 if there are
// none.
#include <sanitizer/lsan_interface.h>
#include <unistd.h>

#include <csignal>
#include <thread>

namespace {

// Runs before main(), so every thread inherits the blocked signal. The check runs in a thread that waits for
// it and not in a handler, which might have interrupted the allocator.
[[gnu::constructor]] void awaitLeakCheck() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, KESTOR_LEAK_CHECK_SIGNAL);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::thread([signals] {
        int signal;
        sigwait(&signals, &signal);
        __lsan_do_leak_check();  // with leaks it reports them and ends the process
        _exit(0);
    }).detach();
}

}  // namespace
