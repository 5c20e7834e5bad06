/*
 * Benchmarks of the driver's hot paths (Google Benchmark).
 *
 *   BM_CyclicRead/<units>/<changing>   one 128-byte cyclic read: intf_getSendFrame and
 *                                       intf_dealRcvFrame with a 174-byte reply, with a cache
 *                                       of <units> units; changing=1: every reply byte differs
 *                                       from the cache (one callback per byte), 0: none does
 *   BM_AddrMerge/<keys>/<reversed>     intf_addrMerge of <keys> one-word "M_W" keys on a freshly
 *                                       initialised driver, in ascending or descending order
 *   BM_SetData/coalesce                intf_setData of one word whose queued write is replaced
 *   BM_SetData/queue_full              intf_setData while 513 other writes are queued
 *   BM_GetData/word                    intf_getData of one cached word
 *   BM_Memory/...                      heap bytes per cached unit and per queued write
 *
 * Counters: allocs_per_cycle (heap allocations per steady-state read, all of them in the
 * driver and Qt), callbacks_per_cycle, cached_units. The heap is counted by the replacement
 * allocator in alloc_counter.cpp. A cyclic read that allocates at all, or a replaced write
 * that allocates more than once per call, ends its benchmark with an error, which fails the
 * CTest smoke run.
 */
#include "alloc_counter.h"
#include "bench_scenario.h"

#include <benchmark/benchmark.h>

using namespace adsbench;

namespace {

void BM_CyclicRead(benchmark::State& state)
{
    const int units = static_cast<int>(state.range(0));
    const bool changing = state.range(1) != 0;
    const int blocks = setUpPolling(units);
    CycleReplies replies;
    FRAME_PRO* frame = new FRAME_PRO;
    QString error;
    long long cycleNo = 0;
    warmUp(*frame, replies, changing, blocks, error, cycleNo);

    const long long callbacksBefore = callbackCount();
    long long allocSend = 0;
    long long allocDeal = 0;
    for (auto _ : state) {
        HeapSnapshot h0 = heapNow();
        int got = intf_getSendFrame(frame);
        HeapSnapshot h1 = heapNow();
        got += intf_dealRcvFrame(replies.pick(changing, cycleNo, blocks), error);
        HeapSnapshot h2 = heapNow();
        if (got != 2)
            die("a cyclic read failed", got);
        allocSend += h1.allocations - h0.allocations;
        allocDeal += h2.allocations - h1.allocations;
        ++cycleNo;
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["allocs_per_cycle"] = static_cast<double>(allocSend + allocDeal) / n;
    state.counters["allocs_getSendFrame"] = static_cast<double>(allocSend) / n;
    state.counters["allocs_dealRcvFrame"] = static_cast<double>(allocDeal) / n;
    state.counters["callbacks_per_cycle"] = static_cast<double>(callbackCount() - callbacksBefore) / n;
    state.counters["cached_units"] = cachedUnits();
    state.counters["blocks"] = blocks;
    state.counters["bytes_per_s"]
        = benchmark::Counter(static_cast<double>(kBlockBytes) * n, benchmark::Counter::kIsRate);
    if (changing && callbackCount() - callbacksBefore != static_cast<long long>(n) * kBlockBytes)
        state.SkipWithError("not every byte was reported");
    if (allocSend + allocDeal != 0)
        state.SkipWithError("a steady-state polling cycle allocated on the heap");
    delete frame;
}
BENCHMARK(BM_CyclicRead)
    ->ArgNames({"units", "changing"})
    ->ArgsProduct({{100, 1000, 10000}, {1, 0}})
    ->Unit(benchmark::kMicrosecond);

void BM_AddrMerge(benchmark::State& state)
{
    const int count = static_cast<int>(state.range(0));
    const bool reversed = state.range(1) != 0;
    const QList<KEY_ADDRESS> keys = wordKeys(count, reversed);
    int blocks = 0;
    for (auto _ : state) {
        state.PauseTiming();
        initDriver();
        QList<KEY_ADDRESS> copy = keys; /* shares the data; the entry point takes a reference */
        state.ResumeTiming();
        blocks = intf_addrMerge(copy);
        benchmark::DoNotOptimize(blocks);
    }
    state.counters["blocks"] = blocks;
    state.counters["cached_units"] = cachedUnits();
}
BENCHMARK(BM_AddrMerge)
    ->ArgNames({"keys", "reversed"})
    ->ArgsProduct({{100, 1000, 10000}, {0, 1}})
    ->Unit(benchmark::kMillisecond);

/* The same word written again and again with alternating values (CoalescingWrite). */
void BM_SetData_Coalesce(benchmark::State& state)
{
    CoalescingWrite writes;
    HeapSnapshot h0 = heapNow();
    for (auto _ : state)
        writes.writeNext();
    HeapSnapshot h1 = heapNow();
    const long long allocations = h1.allocations - h0.allocations;
    state.counters["allocs_per_call"] = static_cast<double>(allocations) / static_cast<double>(state.iterations());
    state.counters["queued"] = driver.writeList.size();
    if (allocations > static_cast<long long>(state.iterations()))
        state.SkipWithError("more than one heap allocation per replaced write");
}
BENCHMARK(BM_SetData_Coalesce)->Name("BM_SetData/coalesce");

/* 513 distinct writes queued (the limit); each further write of a new item walks the
 * queue for a match and then replaces entry 512. */
void BM_SetData_QueueFull(benchmark::State& state)
{
    initDriver();
    const QString reg = QString::fromLatin1("M_W");
    unsigned char v[2] = {1, 2};
    for (int i = 0; i < 513; ++i)
        intf_setData(1, reg, 2 * i, 1, v, 0);
    int address = 2 * 600;
    HeapSnapshot h0 = heapNow();
    for (auto _ : state) {
        v[0] = static_cast<unsigned char>(v[0] + 1);
        intf_setData(1, reg, address, 1, v, 0);
        address = address == 2 * 600 ? 2 * 601 : 2 * 600;
    }
    HeapSnapshot h1 = heapNow();
    state.counters["allocs_per_call"]
        = static_cast<double>(h1.allocations - h0.allocations) / static_cast<double>(state.iterations());
    state.counters["queued"] = driver.writeList.size();
}
BENCHMARK(BM_SetData_QueueFull)->Name("BM_SetData/queue_full");

void BM_GetData(benchmark::State& state)
{
    setUpPolling(1000);
    const QString reg = QString::fromLatin1("M_W");
    unsigned char out[4];
    int address = 0;
    HeapSnapshot h0 = heapNow();
    for (auto _ : state) {
        intf_getData(1, reg, address, 1, out);
        benchmark::DoNotOptimize(out);
        address = (address + 2) & 511;
    }
    HeapSnapshot h1 = heapNow();
    state.counters["allocs_per_call"]
        = static_cast<double>(h1.allocations - h0.allocations) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_GetData)->Name("BM_GetData/word");

/* Heap bytes per cached unit: units created through intf_getData alone (the cache and its
 * index), and through the whole polling set-up (cache, index and read blocks). */
void BM_Memory_PerUnit(benchmark::State& state)
{
    const int units = static_cast<int>(state.range(0));
    double cacheOnly = 0;
    double withPlan = 0;
    for (auto _ : state) {
        initDriver();
        HeapSnapshot h0 = heapNow();
        const QString bits = QString::fromLatin1("M_bit");
        unsigned char out[8];
        for (int a = 0; a < units; ++a)
            intf_getData(1, bits, 8 * a, 1, out);
        HeapSnapshot h1 = heapNow();
        cacheOnly = static_cast<double>(h1.liveBytes - h0.liveBytes) / units;

        initDriver();
        HeapSnapshot h2 = heapNow();
        setUpPolling(units);
        HeapSnapshot h3 = heapNow();
        withPlan = static_cast<double>(h3.liveBytes - h2.liveBytes) / cachedUnits();
    }
    state.counters["bytes_per_unit_cache"] = cacheOnly;
    state.counters["bytes_per_unit_with_blocks"] = withPlan;
}
BENCHMARK(BM_Memory_PerUnit)->Name("BM_Memory/per_cached_unit")->Arg(10000)->Iterations(1);

/* Heap bytes per queued write: 512 writes of distinct, already cached words. */
void BM_Memory_PerQueuedWrite(benchmark::State& state)
{
    double perWrite = 0;
    for (auto _ : state) {
        initDriver();
        const QString reg = QString::fromLatin1("M_W");
        unsigned char out[4];
        for (int i = 0; i < 512; ++i)
            intf_getData(1, reg, 2 * i, 1, out); /* the units exist beforehand */
        unsigned char v[2] = {7, 8};
        HeapSnapshot h0 = heapNow();
        for (int i = 0; i < 512; ++i)
            intf_setData(1, reg, 2 * i, 1, v, 0);
        HeapSnapshot h1 = heapNow();
        perWrite = static_cast<double>(h1.liveBytes - h0.liveBytes) / 512.0;
    }
    state.counters["bytes_per_queued_write"] = perWrite;
}
BENCHMARK(BM_Memory_PerQueuedWrite)->Name("BM_Memory/per_queued_write")->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
