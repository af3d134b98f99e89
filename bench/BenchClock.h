// Processor time of the calling thread, for benchmarks that compare two
// measures taken in turn in the same run: on a machine shared with other
// work, wall time moves with the load, processor time much less.
#pragma once

#include <time.h>

inline double ThreadCpuSeconds() {
    struct timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}
