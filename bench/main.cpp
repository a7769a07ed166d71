// The main() of all benchmarks.
#include <benchmark/benchmark.h>
#include <sched.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <vector>

#include "host/KyHostLog.h"

namespace {

// Makes the figures of machines with more processors comparable with those of small ones.
constexpr int kProcessors = 2;

void LimitProcessors() {
    cpu_set_t processors;
    if (sched_getaffinity(0, sizeof processors, &processors) != 0) return;
    int used = 0;
    for (std::size_t i = 0; i < CPU_SETSIZE; ++i) {
        if (CPU_ISSET(i, &processors) && ++used > kProcessors) CPU_CLR(i, &processors);
    }
    sched_setaffinity(0, sizeof processors, &processors);
}

// The repetitions of all benchmarks take turns, so other load on the machine hits all of them.
std::vector<char*> WithInterleaving([[maybe_unused]] std::vector<char*> arguments) {
#ifdef KY_BENCH_INTERLEAVED
    static char s_option[] = "--benchmark_enable_random_interleaving=true";
    arguments.insert(arguments.begin() + 1, s_option);
#endif
    return arguments;
}

}  // namespace

int main(int argc, char** argv) {
    if (std::getenv("KY_SANDBOX") == nullptr) {
        std::fputs(
            "The benchmarks need a sandbox, because some write to /var/local and /var/tmp: ./dev bench\n",
            stderr);
        return 1;
    }
    std::vector<char*> arguments = WithInterleaving({argv, argv + argc});
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 1;
    LimitProcessors();
    ky_host::SetLogLevel(-1);
    try {
        benchmark::RunSpecifiedBenchmarks();
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s: %s\n", argv[0], failure.what());
        return 1;
    }
    benchmark::Shutdown();
    return 0;
}
