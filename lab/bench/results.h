/// What a load of clients measured, in the form that `vxlab bench` reads.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace bench
{

/// Latencies in microseconds of the operations that were answered, and the number of the others.
struct results {
  std::vector<int64_t> latencies_us;
  uint64_t failed = 0;
  double seconds = 0;

  int64_t percentile(size_t percent)
  {
    if (latencies_us.empty()) {
      return 0;
    }
    std::sort(latencies_us.begin(), latencies_us.end());
    return latencies_us[std::min(latencies_us.size() - 1, latencies_us.size() * percent / 100)];
  }

  /// One line of JSON, with its end.
  std::string text()
  {
    char line[256];
    snprintf(
        line, sizeof line,
        "{\"done\": %zu, \"failed\": %llu, \"seconds\": %.3f, \"per_s\": %.1f, \"p50_us\": %lld, \"p99_us\": %lld}\n",
        latencies_us.size(), static_cast<unsigned long long>(failed), seconds,
        static_cast<double>(latencies_us.size()) / seconds, static_cast<long long>(percentile(50)),
        static_cast<long long>(percentile(99)));
    return line;
  }
  void print() { fputs(text().c_str(), stdout); }
};

}  // namespace bench
