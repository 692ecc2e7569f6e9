// NumericStats: running figures of a series of values.
#include <veskan/Statistics.h>

#include <cmath>
#include <limits>

namespace Veskan {

NumericStats::NumericStats()
    : minimum_(std::numeric_limits<double>::infinity()),
      maximum_(-std::numeric_limits<double>::infinity()) {}

NumericStats& NumericStats::operator+=(double value) {
  values_.push_back(value);
  if (std::isnan(value)) return *this;
  sum_ += value;
  count_ += 1;
  if (value < minimum_) minimum_ = value;
  if (value > maximum_) maximum_ = value;
  return *this;
}

void NumericStats::finish() {
  if (count_ > 0) mean_ = sum_ / count_;
  double squares = 0;
  for (double value : values_)
    squares += (value - mean_) * (value - mean_);
  // A NaN in the series makes the total NaN, which leaves the spread as it was.
  if (squares != 0 && !std::isnan(squares)) spread_ = std::sqrt(squares);
  values_ = std::vector<double>();  // gives the memory of a long series back
}

}  // namespace Veskan
