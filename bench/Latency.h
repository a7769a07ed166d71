#ifndef BENCH_LATENCY_H
#define BENCH_LATENCY_H

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <vector>

/// Measures the time of one call of `work` as the run's time. Use it with MeasureEachCall.
template <typename Work>
void MeasureCall(benchmark::State& state, Work work) {
    for ([[maybe_unused]] auto iteration : state) {
        const auto begin = std::chrono::steady_clock::now();
        work();
        const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
        state.SetIterationTime(time.count());
    }
}

/// Makes every call a repetition, so the statistics describe single calls. Adds the 99th percentile and the
/// maximum to them.
inline void MeasureEachCall(benchmark::internal::Benchmark* benchmark, int calls) {
    const auto percentile99 = [](const std::vector<double>& times) {
        std::vector<double> sorted(times);
        std::sort(sorted.begin(), sorted.end());
        return sorted[(sorted.size() - 1) * 99 / 100];
    };
    const auto maximum = [](const std::vector<double>& times) {
        return *std::max_element(times.begin(), times.end());
    };
    benchmark->UseManualTime()
        ->Iterations(1)
        ->Repetitions(calls)
        ->ReportAggregatesOnly()
        ->Unit(benchmark::kMicrosecond)
        ->ComputeStatistics("p99", percentile99)
        ->ComputeStatistics("max", maximum);
}

#endif
