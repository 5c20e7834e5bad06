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

#include "adstool/cli.h"

#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace adsbench;

int main(int argc, char** argv)
{
    using namespace adstool::cli;
    CLI::App app("Benchmark scenarios for callgrind", "callgrind_cycle");
    prepare(app);
    app.require_subcommand(1);
    int units = 0, changing = 0, cycles = 0, keys = 0, reversed = 0, calls = 0;
    CLI::App* read = app.add_subcommand("read", "cyclic reads of the polling scenario");
    read->add_option("units", units)->required()->check(Number(1, 100000));
    read->add_option("changing", changing)->required()->check(Number(0, 1));
    read->add_option("cycles", cycles)->required()->check(Number(1, 100000000));
    CLI::App* merge = app.add_subcommand("merge", "one intf_addrMerge of one-word keys");
    merge->add_option("keys", keys)->required()->check(Number(1, 100000));
    merge->add_option("reversed", reversed)->required()->check(Number(0, 1));
    CLI::App* setdata = app.add_subcommand("setdata", "coalescing intf_setData calls of one word");
    setdata->add_option("calls", calls)->required()->check(Number(1, 100000000));
    const int rc = parse(app, argc, argv, "callgrind_cycle");
    if (rc >= 0)
        return rc;

    if (read->parsed()) {
        const int blocks = setUpPolling(units);
        CycleReplies replies;
        static FRAME_PRO frame;
        QString error;
        long long cycleNo = 0;
        warmUp(frame, replies, changing != 0, blocks, error, cycleNo);
        const long long callbacksBefore = callbackCount();
        CALLGRIND_START_INSTRUMENTATION;
        for (int i = 0; i < cycles; ++i, ++cycleNo)
            cycle(frame, replies.pick(changing != 0, cycleNo, blocks), error);
        CALLGRIND_STOP_INSTRUMENTATION;
        std::printf("cycles=%d callbacks=%lld cached_units=%d blocks=%d\n", cycles, callbackCount() - callbacksBefore,
            cachedUnits(), blocks);
        return 0;
    }
    if (merge->parsed()) {
        initDriver();
        QList<KEY_ADDRESS> list = wordKeys(keys, reversed != 0);
        CALLGRIND_START_INSTRUMENTATION;
        int blocks = intf_addrMerge(list);
        CALLGRIND_STOP_INSTRUMENTATION;
        std::printf("cycles=1 blocks=%d cached_units=%d\n", blocks, cachedUnits());
        return 0;
    }
    CoalescingWrite writes;
    CALLGRIND_START_INSTRUMENTATION;
    for (int i = 0; i < calls; ++i)
        writes.writeNext();
    CALLGRIND_STOP_INSTRUMENTATION;
    std::printf("cycles=%d queued=%d\n", calls, static_cast<int>(driver.writeList.size()));
    return 0;
}
