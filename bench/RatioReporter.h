#pragma once
// A console reporter that, besides the usual table, prints each benchmark's
// time per operation as a ratio to its baseline measured in the same run.
// Benchmarks are named "<group>/<case>"; every group's case is compared with
// the baseline group's case of the same name (the case without the
// "/min_time:..." and "/real_time" that the library appends). A benchmark that does several
// operations per iteration reports their number as the counter "ops".

#include <map>
#include <string>

#include <benchmark/benchmark.h>

namespace Bench {

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  explicit RatioReporter(std::string baseline) : baseline_(std::move(baseline)) {}

  // case -> group -> nanoseconds per operation
  using Table = std::map<std::string, std::map<std::string, double>>;

  void ReportRuns(const std::vector<Run> & runs) override;
  void Finalize() override;

  const Table & nsPerOperation() const { return ns_; }

 private:
  std::string baseline_;
  Table ns_;
};

}  // namespace Bench
