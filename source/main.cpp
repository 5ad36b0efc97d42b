// Process entry: every option starts one monitor.
#include <unistd.h>

#include <cstdio>

#include "kestor.h"

int main(int argc, char* argv[]) {
    // Diagnostics appear in time also when standard output is a pipe.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    createFifoFile();
    create_core_file();

    int option;
    while ((option = getopt(argc, argv, "cst")) != -1) {
        switch (option) {
            case 's':
                init_kestor(MODE_MONITOR);
                break;
            case 'c':
                init_kestor(MODE_CHANNEL_SCAN);
                break;
            case 't':
                init_kestor(MODE_TEST);
                break;
            default:
                break;
        }
    }
    for (;;) {
        sleep(1);
    }
}
