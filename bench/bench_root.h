// Benchmark support: a private host root for one run, and the clock.
#ifndef TARN_BENCH_BENCH_ROOT_H
#define TARN_BENCH_BENCH_ROOT_H

#include <stdint.h>
#include <stdlib.h>
#include <time.h>

#include <filesystem>
#include <string>

#include "host/tarnhost.h"

namespace tarnbench {

// A fresh device under /tmp, made the root in force; removed at the end.
struct BenchRoot {
    std::string root;
    BenchRoot()
    {
        char tmpl[] = "/tmp/tarnbench.XXXXXX";
        root = mkdtemp(tmpl);
        setenv("TARNHOST_ROOT", root.c_str(), 1);
        tarnhost_root_prepare();
    }
    ~BenchRoot()
    {
        std::error_code ec;
        std::filesystem::remove_all(root, ec);
    }
};

inline uint64_t now_ns()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000u +
           static_cast<uint64_t>(ts.tv_nsec);
}

}  // namespace tarnbench

#endif
