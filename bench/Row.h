// One measurement as the report shows it, and the arithmetic of paired rounds.
#pragma once

#include <string>
#include <vector>

namespace palaver::bench {

enum class Target { atLeast, atMost, none };

struct Row {
  std::string what;
  std::string measured;  // with its unit
  std::string limit;     // the same in the limit of the same run, or empty
  double ratio = 0;      // of the two, or of the measured value and its bound
  Target target = Target::none;
  double bound = 0;
};

// Prints the rows as a Markdown table.
void print(const std::vector<Row>& rows);

// The value below which the given share (0 to 1) of the values lie. Throws std::invalid_argument when there
// are none.
double quantile(std::vector<double> values, double share);

inline double median(std::vector<double> values) {
  return quantile(std::move(values), 0.5);
}

// The number with this many decimals, and its unit.
std::string figure(double value, int decimals, const std::string& unit);

}  // namespace palaver::bench
