// Formats measurements for the report, and computes quantiles of paired rounds.
#pragma once

#include <string>
#include <vector>

namespace palaver::bench {

enum class Target { atLeast, atMost, none };

struct Row {
  std::string what;
  std::string measured;  // with its unit
  std::string limit;     // the limit measured in the same run, with its unit, or empty
  double ratio = 0;      // of the two, or of the measured value and its bound
  Target target = Target::none;
  double bound = 0;
};

// Prints the rows as a Markdown table.
void print(const std::vector<Row>& rows);

// Returns the value below which the given share (0 to 1) of the values lie. Throws std::invalid_argument when
// there are none.
double quantile(std::vector<double> values, double share);

inline double median(std::vector<double> values) {
  return quantile(std::move(values), 0.5);
}

// Formats the number with this many decimals and its unit.
std::string figure(double value, int decimals, const std::string& unit);

}  // namespace palaver::bench
