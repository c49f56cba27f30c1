#include "bench/Row.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>

namespace palaver::bench {

void print(const std::vector<Row>& rows) {
  std::puts("| what | measured | limit in the same run | ratio | target | met? |");
  std::puts("|---|---|---|---|---|---|");
  for (const auto& row : rows) {
    const bool met = row.target == Target::atLeast ? row.ratio >= row.bound : row.ratio <= row.bound;
    const std::string ratio = row.ratio == 0 ? "" : figure(row.ratio, 3, "");
    const std::string target = row.target == Target::none      ? ""
                               : row.target == Target::atLeast ? figure(row.bound, 2, "or more")
                                                               : figure(row.bound, 2, "or less");
    std::printf("| %s | %s | %s | %s | %s | %s |\n", row.what.c_str(), row.measured.c_str(),
                row.limit.c_str(), ratio.c_str(), target.c_str(),
                row.target == Target::none ? ""
                : met                      ? "yes"
                                           : "no");
  }
  std::fflush(stdout);
}

double quantile(std::vector<double> values, double share) {
  if (values.empty()) throw std::invalid_argument("nothing was measured");
  const auto at = static_cast<std::size_t>(std::floor(share * static_cast<double>(values.size() - 1) + 0.5));
  const auto place = values.begin() + static_cast<std::ptrdiff_t>(at);
  std::nth_element(values.begin(), place, values.end());
  return *place;
}

std::string figure(double value, int decimals, const std::string& unit) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return unit.empty() ? text : text + (" " + unit);
}

}  // namespace palaver::bench
