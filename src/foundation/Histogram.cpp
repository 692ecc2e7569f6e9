// Histogram: counts by label.
#include <veskan/Statistics.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <utility>

namespace Veskan {

Histogram::Histogram() = default;

int Histogram::IndexOf(const char16_t* label) const {
  // Histograms hold a handful of labels (answer choices), so a scan beats a map.
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    if (entries_[i].first == label) return static_cast<int>(i);
  }
  return -1;
}

void Histogram::Increment(const char16_t* label, double amount) {
  const int index = IndexOf(label);
  if (index < 0) {
    entries_.emplace_back(StringBuffer(label), amount);
  } else {
    entries_[static_cast<std::size_t>(index)].second += amount;
  }
}

Histogram& Histogram::operator+=(const char16_t* label) {
  Increment(label, 1);
  return *this;
}

double Histogram::operator[](const char16_t* label) const {
  const int index = IndexOf(label);
  return index < 0 ? 0 : entries_[static_cast<std::size_t>(index)].second;
}

double Histogram::operator[](const StringBuffer& label) const {
  return (*this)[label.c_str()];
}

const Histogram::Entry& Histogram::operator[](int index) const {
  static const Entry Missing(StringBuffer(), 0);
  if (index < 0 || index >= Count()) return Missing;
  return entries_[static_cast<std::size_t>(index)];
}

void Histogram::Sort(int methods) {
  const bool descending = (methods & SortMethods::Descending) != 0;
  if (methods & SortMethods::Numeric) {
    // NaN counts (from a NaN amount) go first, so the order stays a strict weak one.
    auto less = [](const Entry& a, const Entry& b) {
      const bool aIsNaN = std::isnan(a.second);
      const bool bIsNaN = std::isnan(b.second);
      if (aIsNaN || bIsNaN) return aIsNaN && !bIsNaN;
      return a.second < b.second;
    };
    std::stable_sort(entries_.begin(), entries_.end(), [&](const Entry& a, const Entry& b) {
      return descending ? less(b, a) : less(a, b);
    });
    return;
  }
  // Labels are unique, so StringList's ordering of them fixes the order of the entries.
  StringList labels;
  for (const Entry& entry : entries_)
    labels.Add(entry.first);
  labels.Sort(methods);
  std::map<icu::UnicodeString, std::size_t> position;
  for (const StringBuffer& label : labels)
    position.emplace(label, position.size());
  std::vector<Entry> sorted(entries_.size());
  for (Entry& entry : entries_)
    sorted[position[entry.first]] = std::move(entry);
  entries_ = std::move(sorted);
}

}  // namespace Veskan
