#include "RatioReporter.h"

#include <algorithm>

#include <fmt/format.h>

namespace Bench {

void RatioReporter::ReportRuns(const std::vector<Run> & runs) {
  ConsoleReporter::ReportRuns(runs);
  for (const auto & run : runs) {
    if (run.run_type != Run::RT_Iteration || run.error_occurred) {
      continue;
    }
    const std::string name = run.benchmark_name();
    const auto slash = name.find('/');
    if (slash == std::string::npos) {
      continue;
    }
    const auto ops = run.counters.find("ops");
    const double perIteration = ops != run.counters.end() ? ops->second.value : 1.0;
    std::string caseName = name.substr(slash + 1);
    caseName = caseName.substr(0, std::min(caseName.find("/min_time"), caseName.find("/real_time")));
    ns_[caseName][name.substr(0, slash)] = run.GetAdjustedRealTime() / perIteration;
  }
}

void RatioReporter::Finalize() {
  fmt::print("\n{:<40} {:<16} {:>10} {:>10} {:>8}\n", "case", "group", "ns/op", baseline_, "ratio");
  for (const auto & [name, groups] : ns_) {
    auto baseline = groups.find(baseline_);
    if (baseline == groups.end() || baseline->second <= 0) {
      continue;
    }
    for (const auto & [group, ns] : groups) {
      if (group != baseline_) {
        fmt::print("{:<40} {:<16} {:>10.1f} {:>10.1f} {:>8.2f}\n", name, group, ns, baseline->second,
                   ns / baseline->second);
      }
    }
  }
  ConsoleReporter::Finalize();
}

}  // namespace Bench
