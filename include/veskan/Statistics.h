// Small statistics values: RandomSequence, a reproducible generator seeded from a text;
// NumericStats, running figures of a series; Histogram, counts by label.
#ifndef VESKAN_STATISTICS_H
#define VESKAN_STATISTICS_H

#include <veskan/Export.h>
#include <veskan/StringBuffer.h>

#include <cstdint>
#include <utility>
#include <vector>

namespace Veskan {

// A pseudo-random sequence that depends on nothing but its seed text, so that the same text (a
// question's identifier, say) gives the same numbers, and the same shuffle, on every machine and
// in every version. The arithmetic below is therefore part of the contract:
//   hash:    h = 0; for each UTF-16 unit c: h = h * 31 + c (mod 2^32); seed = state = h
//   advance: state = state * 65539 + (state == seed ? 0 : seed) (mod 2^32)
// It is not meant for anything secret.
//
// Thread safety: a plain value; guard a shared sequence yourself.
class VESKAN_API RandomSequence {
 public:
  // Seeded from the hash of `seedText` (null: the empty text, whose hash is 0).
  explicit RandomSequence(const char16_t* seedText);

  // The hash of `text`, read as a signed 32-bit value.
  static std::int32_t GenerateHashCode(const char16_t* text);

  // Advances, then gives (state mod 2147483647) / 2147483647.0, in [0, 1).
  double NextDouble();
  // For a bound of at least 2: advances, then gives state mod bound, in [0, bound). A smaller
  // bound gives 0 without advancing.
  int NextInteger(int bound);
  // A permutation of 0 .. count-1 (empty for a count below 1): starting from the identity, for
  // each position i from count-1 down to 1 the entries at i and at NextInteger(i + 1) are
  // swapped. Draws count-1 numbers.
  std::vector<int> GetRandomSequence(int count);

 private:
  void Advance();

  std::uint32_t seed_;
  std::uint32_t state_;
};

// Running minimum, maximum, sum, count, mean and spread of a series of values.
//
// The spread is the square root of the summed squared deviations from the mean, not divided by
// the count: divide its square by the count (or count - 1) for the variance. NaN values are kept
// for `finish` but not counted, so one NaN leaves the spread unchanged at the next `finish`.
//
// Thread safety: a plain value; guard a shared object yourself.
class VESKAN_API NumericStats {
 public:
  NumericStats();

  // Adds `value` to the series.
  NumericStats& operator+=(double value);
  // Computes the mean over every value counted so far and, over the values added since the last
  // call, the spread; then forgets those values (the totals stay, so more can follow).
  void finish();

  // +infinity until a value is counted.
  double Minimum() const { return minimum_; }
  // -infinity until a value is counted.
  double Maximum() const { return maximum_; }
  double Sum() const { return sum_; }
  double Count() const { return count_; }
  // 0 until `finish` sees a count above 0.
  double Mean() const { return mean_; }
  // 0 until `finish` computes one.
  double Spread() const { return spread_; }

 private:
  double minimum_;
  double maximum_;
  double sum_ = 0;
  double mean_ = 0;
  double spread_ = 0;
  double count_ = 0;
  std::vector<double> values_;  // added since the last `finish`
};

// Counts by label, in the order the labels first appeared until Sort. Labels compare as exact
// UTF-16 code units; null is the empty label.
//
// Each entry keeps its own copy of the label rather than the caller's pointer, so an entry never
// outlives the text it shows.
//
// Thread safety: a plain value; guard a shared histogram yourself.
class VESKAN_API Histogram {
 public:
  using Entry = std::pair<StringBuffer, double>;

  Histogram();

  // Adds `amount` to the count of `label`, appending the label with that count when it is new.
  void Increment(const char16_t* label, double amount);
  // Adds 1 to the count of `label`.
  Histogram& operator+=(const char16_t* label);

  // The count of `label`, 0 when absent.
  double operator[](const char16_t* label) const;
  double operator[](const StringBuffer& label) const;
  // The label and count at `index`; an empty label with count 0 for a bad index.
  const Entry& operator[](int index) const;
  int Count() const { return static_cast<int>(entries_.size()); }

  // Orders the entries by the SortMethods flags: with Numeric by count, ties keeping their order;
  // otherwise by label like StringList::Sort (locale-aware and case-insensitive, or code units
  // with Exact). Descending reverses the order.
  void Sort(int methods = SortMethods::Ascending);

 private:
  // The index of the entry of `label`, or -1.
  int IndexOf(const char16_t* label) const;

  std::vector<Entry> entries_;
};

}  // namespace Veskan

#endif
