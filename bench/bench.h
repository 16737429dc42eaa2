// What every benchmark shares: timing, and a report as a ratio to a reference of the same run.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <limits>
#include <thread>
#include <vector>

namespace zel::bench {

// Seconds of the fastest of `rounds` runs of `work`.
template <class Work>
double BestSeconds(int rounds, Work work) {
  double best = std::numeric_limits<double>::max();
  for (int round = 0; round < rounds; ++round) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
    best = std::min(best, taken.count());
  }
  return best;
}

// Runs work(thread number) on `threads` threads and waits for all.
template <class Work>
void OnThreads(int threads, Work work) {
  std::vector<std::jthread> running;
  for (int number = 0; number < threads; ++number) running.emplace_back(work, number);
}

enum class Bound { kAtMost, kAtLeast };

// Prints one line and returns whether `measured / reference` keeps to `limit`.
inline bool Report(const char* name, double measured, double reference, const char* unit,
                   Bound bound, double limit) {
  const double ratio = measured / reference;
  const bool kept = bound == Bound::kAtMost ? ratio <= limit : ratio >= limit;
  std::printf("%-44s %12.2f %-8s reference %12.2f  ratio %6.2f (%s %.2f) %s\n", name, measured,
              unit, reference, ratio, bound == Bound::kAtMost ? "at most" : "at least", limit,
              kept ? "ok" : "MISSED");
  return kept;
}

}  // namespace zel::bench
