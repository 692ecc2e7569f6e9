// The orders of the SortMethods flags.
#include "foundation/TextOrder.h"

#include <unicode/coll.h>
#include <unicode/locid.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <numeric>

namespace Veskan {
namespace Detail {

namespace {

// Numeric keys: empty texts first, then NaN, then numbers by value.
struct NumericKey {
  int rank;  // 0 empty, 1 NaN, 2 number
  double value;
};

NumericKey NumericKeyOf(const StringBuffer& text) {
  if (text.isEmpty()) return {0, 0.0};
  const double value = ParseDouble(text.c_str());
  return std::isnan(value) ? NumericKey{1, 0.0} : NumericKey{2, value};
}

// -1, 0 or 1 as `a` orders before, with or after `b`.
using Comparison = std::function<int(std::size_t, std::size_t)>;

}  // namespace

std::vector<std::size_t> SortOrder(const std::vector<StringBuffer>& keys, int methods,
                                   EqualKeys equalKeys) {
  std::vector<std::size_t> order(keys.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  if (keys.size() < 2) return order;

  Comparison compare;
  std::vector<NumericKey> numbers;  // each key parsed once, not at every comparison
  std::unique_ptr<icu::Collator> collator;
  if (methods & SortMethods::Numeric) {
    std::transform(keys.begin(), keys.end(), std::back_inserter(numbers), NumericKeyOf);
    compare = [&numbers](std::size_t a, std::size_t b) {
      if (numbers[a].rank != numbers[b].rank) return numbers[a].rank < numbers[b].rank ? -1 : 1;
      if (numbers[a].value != numbers[b].value) return numbers[a].value < numbers[b].value ? -1 : 1;
      return 0;
    };
  } else if (!(methods & SortMethods::Exact)) {
    UErrorCode status = U_ZERO_ERROR;
    collator.reset(icu::Collator::createInstance(icu::Locale::getDefault(), status));
    if (U_SUCCESS(status)) {
      collator->setStrength(icu::Collator::SECONDARY);
      collator->setAttribute(UCOL_ALTERNATE_HANDLING, UCOL_SHIFTED, status);
    }
    if (U_SUCCESS(status)) {
      compare = [&keys, &collator](std::size_t a, std::size_t b) {
        UErrorCode compareStatus = U_ZERO_ERROR;
        const UCollationResult result = collator->compare(keys[a], keys[b], compareStatus);
        return U_FAILURE(compareStatus) ? 0 : static_cast<int>(result);
      };
    }
  }
  const bool byCodeUnits = !compare || equalKeys == EqualKeys::ByCodeUnits;
  const bool descending = (methods & SortMethods::Descending) != 0;
  auto less = [&](std::size_t a, std::size_t b) {
    if (descending) std::swap(a, b);
    const int result = compare ? compare(a, b) : 0;
    if (result != 0 || !byCodeUnits) return result < 0;
    return keys[a].compare(keys[b]) < 0;
  };
  std::stable_sort(order.begin(), order.end(), less);
  return order;
}

}  // namespace Detail
}  // namespace Veskan
