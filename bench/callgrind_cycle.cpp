/*
 * A tiny driver of the benchmark scenarios for callgrind (scripts/bench-callgrind.sh).
 *
 *   callgrind_cycle read <units> <changing 0|1> <cycles>
 *       sets up the polling scenario of bench_scenario.h, warms up with two rounds of the
 *       read list, then runs <cycles> cyclic reads with instrumentation on
 *   callgrind_cycle merge <keys> <reversed 0|1>
 *       one intf_addrMerge of <keys> one-word keys on a freshly initialised driver
 *   callgrind_cycle setdata <calls>
 *       <calls> coalescing intf_setData calls of one word
 *
 * Only the measured part runs with instrumentation on (CALLGRIND_START/STOP_INSTRUMENTATION;
 * run valgrind with --instr-atstart=no). It prints "cycles=<n>" for the script to divide by.
 */
#include "bench_scenario.h"

#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace adsbench;

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s read UNITS CHANGING CYCLES | merge KEYS REVERSED | setdata CALLS\n", argv[0]);
        return 2;
    }
    const char* what = argv[1];
    if (std::strcmp(what, "read") == 0 && argc >= 5) {
        const int units = std::atoi(argv[2]);
        const bool changing = std::atoi(argv[3]) != 0;
        const int cycles = std::atoi(argv[4]);
        const int blocks = setUpPolling(units);
        CycleReplies replies;
        static FRAME_PRO frame;
        QString error;
        long long cycleNo = 0;
        warmUp(frame, replies, changing, blocks, error, cycleNo);
        const long long callbacksBefore = callbackCount();
        CALLGRIND_START_INSTRUMENTATION;
        for (int i = 0; i < cycles; ++i, ++cycleNo)
            cycle(frame, replies.pick(changing, cycleNo, blocks), error);
        CALLGRIND_STOP_INSTRUMENTATION;
        std::printf("cycles=%d callbacks=%lld cached_units=%d blocks=%d\n", cycles, callbackCount() - callbacksBefore,
            cachedUnits(), blocks);
        return 0;
    }
    if (std::strcmp(what, "merge") == 0 && argc >= 4) {
        const int count = std::atoi(argv[2]);
        const bool reversed = std::atoi(argv[3]) != 0;
        initDriver();
        QList<KEY_ADDRESS> keys = wordKeys(count, reversed);
        CALLGRIND_START_INSTRUMENTATION;
        int blocks = intf_addrMerge(keys);
        CALLGRIND_STOP_INSTRUMENTATION;
        std::printf("cycles=1 blocks=%d cached_units=%d\n", blocks, cachedUnits());
        return 0;
    }
    if (std::strcmp(what, "setdata") == 0) {
        const int calls = std::atoi(argv[2]);
        CoalescingWrite writes;
        CALLGRIND_START_INSTRUMENTATION;
        for (int i = 0; i < calls; ++i)
            writes.writeNext();
        CALLGRIND_STOP_INSTRUMENTATION;
        std::printf("cycles=%d queued=%d\n", calls, static_cast<int>(driver.writeList.size()));
        return 0;
    }
    std::fprintf(stderr, "unknown or incomplete command\n");
    return 2;
}
