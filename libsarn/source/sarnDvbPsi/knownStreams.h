// The registry of live analysis contexts, which the timer thread walks.
#pragma once

#include <pthread.h>
#include <uthash.h>

#include "sarn/tsStream.h"

struct KnownStream {
    ts_stream_t* stream;  // the key
    UT_hash_handle hh;
};

// Guards `knownStreams` and keeps its contexts alive while held. Initialised with the first context; no other
// lock is taken while it is held.
extern pthread_spinlock_t knownStreams_spinlock;
extern KnownStream* knownStreams;
