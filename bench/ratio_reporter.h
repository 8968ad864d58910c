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
    // Prints `limit` beside the ratio of `measured` to `baseline` (a pair
    // or a per-item line), and whether the figure is within it.
    void add_goal(const std::string &measured, const std::string &baseline, double limit)
    {
        goals_[{measured, baseline}] = limit;
    }
    // Compares wall-clock times instead of CPU times: for operations that
    // wait for another process or the kernel, whose work the caller's CPU
    // time leaves out.
    void use_real_time() { real_time_ = true; }
    // Times are kept in nanoseconds whatever unit a benchmark reports in.
    // With --benchmark_repetitions, each benchmark's fastest repetition is
    // kept: on a shared machine the others carry other processes' load.
    // A benchmark that reports a `median_ns` counter (the median of its own
    // samples) is compared by that instead of its mean, and one that also
    // reports `baseline_median_ns` (a baseline it measured interleaved with
    // itself) gives that as the time of "<name>/baseline".
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &r : runs) {
            if (r.error_occurred || r.run_type == Run::RT_Aggregate)
                continue;  // a skipped run has no time to compare
            const auto median = r.counters.find("median_ns");
            const double t = median != r.counters.end()
                                 ? static_cast<double>(median->second)
                                 : (real_time_ ? r.GetAdjustedRealTime() : r.GetAdjustedCPUTime()) *
                                       1e9 / benchmark::GetTimeUnitMultiplier(r.time_unit);
            keep_fastest(r.benchmark_name(), t);
            // A benchmark that measures its baseline itself, interleaved.
            const auto base = r.counters.find("baseline_median_ns");
            if (base != r.counters.end())
                keep_fastest(r.benchmark_name() + "/baseline", static_cast<double>(base->second));
        }
        ConsoleReporter::ReportRuns(runs);
    }
    void Finalize() override
    {
        ConsoleReporter::Finalize();
        for (const auto &[measured, baseline] : pairs_) {
            const auto m = times_.find(measured), b = times_.find(baseline);
            if (m != times_.end() && b != times_.end() && b->second > 0)
                printf("ratio %-26s %8.2f (%.1f ns vs %.1f ns of %s)%s\n", measured.c_str(),
                       m->second / b->second, m->second, b->second, baseline.c_str(),
                       goal_text(measured, baseline, m->second / b->second).c_str());
        }
        for (const PerItem &p : per_item_) {
            const auto m = times_.find(p.measured), b = times_.find(p.baseline);
            if (m != times_.end() && b != times_.end() && b->second > 0)
                printf("ratio %-26s %8.2f per item (%.1f ns vs %.1f ns of %s)%s\n",
                       p.measured.c_str(), m->second / (b->second * p.factor),
                       m->second / p.factor, b->second, p.baseline.c_str(),
                       goal_text(p.measured, p.baseline, m->second / (b->second * p.factor))
                           .c_str());
        }
    }

private:
    void keep_fastest(const std::string &name, double t)
    {
        const auto it = times_.find(name);
        if (it == times_.end() || t < it->second)
            times_[name] = t;
    }
    std::string goal_text(const std::string &measured, const std::string &baseline,
                          double ratio) const
    {
        const auto g = goals_.find({measured, baseline});
        if (g == goals_.end())
            return "";
        char text[64];
        snprintf(text, sizeof text, "  goal <= %.2f: %s", g->second,
                 ratio <= g->second ? "met" : "MISSED");
        return text;
    }
    struct PerItem {
        std::string measured, baseline;
        double factor;
    };
    std::vector<std::pair<std::string, std::string>> pairs_;
    std::vector<PerItem> per_item_;
    std::map<std::string, double> times_;
    std::map<std::pair<std::string, std::string>, double> goals_;
    bool real_time_ = false;
};

#endif
