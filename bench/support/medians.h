// How the benchmarks are run: repetitions whose medians are kept for a summary.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace bench
{

// Prints the table as usual and keeps the medians of one counter.
class Medians : public benchmark::ConsoleReporter
{
  public:
    explicit Medians(std::string counter) : ConsoleReporter(OO_Tabular), counter_(std::move(counter)) {}
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            failed_ = failed_ || run.error_occurred;
            const auto counter = run.counters.find(counter_);
            if (run.aggregate_name == "median" && counter != run.counters.end()) {
                const std::string arguments = run.run_name.args.empty() ? "" : "/" + run.run_name.args;
                medians_[run.run_name.function_name + arguments] = counter->second.value;
            }
        }
    }
    double Of(const std::string& name) const // 0: it has not run
    {
        const auto found = medians_.find(name);
        return found == medians_.end() ? 0 : found->second;
    }
    size_t Count() const { return medians_.size(); }
    bool HasFailed() const { return failed_; }

  private:
    const std::string counter_;
    std::map<std::string, double> medians_;
    bool failed_ = false;
};

// Repetitions in random order, so that a disturbed second falls on all alike; the command line may say otherwise.
// False when it is not understood.
inline bool Initialize(int argc, char** argv, int repetitions)
{
    std::string defaults[] = {"--benchmark_repetitions=" + std::to_string(repetitions),
                              "--benchmark_enable_random_interleaving=true",
                              "--benchmark_report_aggregates_only=true", "--benchmark_min_time=0.05"};
    std::vector<char*> arguments(argv, argv + argc);
    int position = 1;
    for (std::string& argument : defaults) {
        arguments.insert(arguments.begin() + position++, argument.data());
    }
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    return !benchmark::ReportUnrecognizedArguments(count, arguments.data());
}

} // namespace bench
