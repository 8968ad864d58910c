// A console reporter that, after the usual table, prints each measured
// operation's time over the time of its baseline in the same run.
#ifndef TARN_BENCH_RATIO_REPORTER_H
#define TARN_BENCH_RATIO_REPORTER_H

#include <stdio.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

class RatioReporter : public benchmark::ConsoleReporter {
public:
    // Pairs of (benchmark, its baseline) by benchmark name.
    explicit RatioReporter(std::vector<std::pair<std::string, std::string>> pairs)
        : pairs_(std::move(pairs))
    {
    }
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &r : runs)
            times_[r.benchmark_name()] = r.GetAdjustedCPUTime();
        ConsoleReporter::ReportRuns(runs);
    }
    void Finalize() override
    {
        ConsoleReporter::Finalize();
        for (const auto &[measured, baseline] : pairs_) {
            const auto m = times_.find(measured), b = times_.find(baseline);
            if (m != times_.end() && b != times_.end() && b->second > 0)
                printf("ratio %-26s %8.2f (%.1f ns vs %.1f ns)\n", measured.c_str(),
                       m->second / b->second, m->second, b->second);
        }
    }

private:
    std::vector<std::pair<std::string, std::string>> pairs_;
    std::map<std::string, double> times_;
};

#endif
