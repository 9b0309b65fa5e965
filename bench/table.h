// The one table that all benchmarks print: a line of Markdown for each figure.
#pragma once

#include <optional>
#include <string>

namespace nimbus::bench {

/// What a figure of the service is held against, in the same unit.
struct Comparison {
  const char* with;
  double figure;
  double ratio;  ///< the service's figure to this one
  std::optional<double> limit = {};
  std::optional<double> spread = {};  ///< of the ratio
};

/// Has a limit of its own or one of its comparison's ratio, or none.
struct Row {
  std::string what;
  double figure;  ///< the service's
  const char* unit;
  std::optional<double> limit = {};
  std::optional<Comparison> comparison = {};
};

/// Prints rows, the first of them below the header, and remembers whether a limit was missed.
class Table {
 public:
  /// Without a header, the rows go on with a table that another program has begun.
  explicit Table(bool with_header) : header_is_due_(with_header) {}

  void add(const Row& row);

  [[nodiscard]] bool all_hold() const noexcept { return all_hold_; }

 private:
  bool header_is_due_;
  bool all_hold_ = true;
};

}  // namespace nimbus::bench
