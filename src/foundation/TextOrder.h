// The orders that the SortMethods flags select over texts, shared by every sorting operation of
// the library (string lists, XML element lists, histograms).
#ifndef VESKAN_FOUNDATION_TEXTORDER_H
#define VESKAN_FOUNDATION_TEXTORDER_H

#include <veskan/StringBuffer.h>

#include <cstddef>
#include <vector>

namespace Veskan {
namespace Detail {

// What decides between keys that the chosen order finds equal.
enum class EqualKeys {
  ByCodeUnits,  // exact code-unit order, so that the order is total
  KeepOrder,    // their order in `keys`
};

// The indexes of `keys` in the order that the SortMethods flags `methods` select: with Numeric by
// the values of ParseDouble (empty texts first, then NaN); with Exact by code units; otherwise
// in the user's locale at secondary strength (case ignored) with symbols and punctuation ignored
// (code units when no collator can be made); Descending reverses it.
std::vector<std::size_t> SortOrder(const std::vector<StringBuffer>& keys, int methods,
                                   EqualKeys equalKeys);

}  // namespace Detail
}  // namespace Veskan

#endif
