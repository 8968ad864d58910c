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
    // Also prints `measured` over `factor` times `baseline`: for a run over
    // `factor` times as many items, 1.00 means the same time per item.
    void add_per_item(std::string measured, std::string baseline, double factor)
    {
        per_item_.push_back({std::move(measured), std::move(baseline), factor});
    }
    // Compares wall-clock times instead of CPU times: for operations that
    // wait for another process or the kernel, whose work the caller's CPU
    // time leaves out.
    void use_real_time() { real_time_ = true; }
    // Times are kept in nanoseconds whatever unit a benchmark reports in.
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &r : runs)
            if (!r.error_occurred)  // a skipped run has no time to compare
                times_[r.benchmark_name()] =
                    (real_time_ ? r.GetAdjustedRealTime() : r.GetAdjustedCPUTime()) * 1e9 /
                    benchmark::GetTimeUnitMultiplier(r.time_unit);
        ConsoleReporter::ReportRuns(runs);
    }
    void Finalize() override
    {
        ConsoleReporter::Finalize();
        for (const auto &[measured, baseline] : pairs_) {
            const auto m = times_.find(measured), b = times_.find(baseline);
            if (m != times_.end() && b != times_.end() && b->second > 0)
                printf("ratio %-26s %8.2f (%.1f ns vs %.1f ns of %s)\n", measured.c_str(),
                       m->second / b->second, m->second, b->second, baseline.c_str());
        }
        for (const PerItem &p : per_item_) {
            const auto m = times_.find(p.measured), b = times_.find(p.baseline);
            if (m != times_.end() && b != times_.end() && b->second > 0)
                printf("ratio %-26s %8.2f per item (%.1f ns vs %.1f ns of %s)\n",
                       p.measured.c_str(), m->second / (b->second * p.factor),
                       m->second / p.factor, b->second, p.baseline.c_str());
        }
    }

private:
    struct PerItem {
        std::string measured, baseline;
        double factor;
    };
    std::vector<std::pair<std::string, std::string>> pairs_;
    std::vector<PerItem> per_item_;
    std::map<std::string, double> times_;
    bool real_time_ = false;
};

#endif
