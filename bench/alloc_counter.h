/*
 * Heap counting for the benchmark binary. alloc_counter.cpp replaces malloc, calloc,
 * realloc, free, the aligned allocators and the global operator new/delete in the
 * executable; because the executable's definitions come first in symbol resolution, the
 * driver, Qt and the C++ runtime allocate through them too. Counting is always on and
 * costs two relaxed atomic additions per call.
 */
#ifndef ADS_BENCH_ALLOC_COUNTER_H
#define ADS_BENCH_ALLOC_COUNTER_H

namespace adsbench {

struct HeapSnapshot {
    long long allocations; /* successful malloc/calloc/realloc/new calls so far */
    long long liveBytes;   /* usable bytes of the blocks currently allocated */
};

HeapSnapshot heapNow();

}  // namespace adsbench

#endif
