// What every benchmark program does alike. Programs register benchmarks named operation/contender/parameters; the
// driver, scripts/bench, runs them and compares the contenders of an operation.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace bench
{

[[noreturn]] inline void Fail(const std::string& what)
{
    std::fprintf(stderr, "benchmark: %s\n", what.c_str());
    std::exit(1);
}

inline void Check(const char* what, long status)
{
    if (status != 0) {
        char text[32];
        std::snprintf(text, sizeof(text), ": status 0x%08lX", status & 0xFFFFFFFF);
        Fail(what + std::string(text));
    }
}

// A number made from the results of a contender, equal for all that did the same work: a ratio of others is refused.
inline void SetWork(benchmark::State& state, uint64_t work)
{
    constexpr uint64_t kExact = (uint64_t{1} << 40) - 1; // as a double, also as a sum of some threads
    state.counters["work"] = benchmark::Counter(static_cast<double>((work ^ work >> 40) & kExact),
                                                benchmark::Counter::kAvgThreads);
}

// Another step of such a number: FNV-1a over 64-bit words.
inline uint64_t Mix(uint64_t work, uint64_t result)
{
    return (work ^ result) * 0x100000001B3;
}

// Where an iteration is not one operation: how many operations there were in all.
inline void SetOperations(benchmark::State& state, double operations)
{
    state.counters["ns"] =
        benchmark::Counter(operations * 1e-9, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// The result of a measurement that is no time.
inline void SetValue(benchmark::State& state, double value)
{
    state.counters["value"] = value;
}

// Keeps whether a benchmark has failed.
class Reporter : public benchmark::ConsoleReporter
{
  public:
    Reporter() : ConsoleReporter(OO_Tabular) {}
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            failed_ = failed_ || run.error_occurred;
        }
    }
    bool HasFailed() const { return failed_; }

  private:
    bool failed_ = false;
};

// Runs what is registered, as the command line says. The exit code of the program.
inline int Run(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    Reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return reporter.HasFailed() ? 1 : 0;
}

} // namespace bench
