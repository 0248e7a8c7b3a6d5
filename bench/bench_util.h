// Small timing helpers shared by the benchmark programs: best of N runs,
// printed beside the bare machine's figure for the same work.
#pragma once

#include <chrono>
#include <cstdio>
#include <functional>

namespace bench {

// Seconds of the fastest of nRuns runs.
inline double BestSeconds(int nRuns, const std::function<void()>& work)
{
    double dBest = 1e30;
    for (int i = 0; i < nRuns; ++i) {
        auto start = std::chrono::steady_clock::now();
        work();
        std::chrono::duration<double> d = std::chrono::steady_clock::now() - start;
        if (d.count() < dBest) dBest = d.count();
    }
    return dBest;
}

// One line: what, our figure, the bare machine's figure, and our share of it.
inline void Report(const char* szWhat, const char* szUnit, double dOurs, const char* szBare, double dBare)
{
    printf("%-44s %10.1f %-8s | %-28s %10.1f %-8s | ratio %.2f\n", szWhat, dOurs, szUnit, szBare, dBare, szUnit,
           dBare > 0 ? dOurs / dBare : 0.0);
}

} // namespace bench
