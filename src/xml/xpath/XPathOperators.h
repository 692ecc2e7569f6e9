// The operators on atomic values: arithmetic with numeric type promotion, the value comparisons,
// and the orderings and equalities that the function library builds on.
#ifndef VESKAN_XML_XPATH_XPATHOPERATORS_H
#define VESKAN_XML_XPATH_XPATHOPERATORS_H

#include "xml/xpath/XPathParser.h"
#include "xml/xpath/XPathValue.h"

namespace Veskan {
namespace Detail {
namespace XPath {

// What comparisons of strings and of values without a time zone depend on.
struct ComparisonContext {
  int implicitTimezone = 0;  // minutes east of UTC
};

// `a op b` for atomic `a` and `b` (xs:untypedAtomic already cast to xs:double): numbers promote
// to the wider of their types (integer, decimal, float, double); dates, times and durations
// combine as their types allow. Throws XPTY0004 for types the operator does not take, FOAR0001
// for a decimal or integer division by zero, FOAR0002 for an integer division of NaN or
// infinity or a result out of range, and the calendar codes of XPathCalendar.h.
Item Arithmetic(Operator op, const Item& a, const Item& b, const ComparisonContext& context);

// Whether `a op b` holds, for a value comparison operator (eq ... ge) on atomic values, after
// xs:untypedAtomic became xs:string. Throws XPTY0004 when the types do not compare (or do not
// order, for lt/le/gt/ge).
bool ValueCompare(Operator op, const Item& a, const Item& b, const ComparisonContext& context);

// The same for the general comparison operators (= ... >=): xs:untypedAtomic against a number is
// read as xs:double, against a string or xs:untypedAtomic as xs:string, otherwise as the other
// side's type.
bool GeneralCompareItems(Operator op, const Item& a, const Item& b,
                         const ComparisonContext& context);

// Equality as distinct-values, index-of and deep-equal see it: values of types that do not
// compare are unequal rather than an error; NaN equals NaN.
bool AtomicEqual(const Item& a, const Item& b, const ComparisonContext& context);

// A hash consistent with AtomicEqual.
std::size_t AtomicHash(const Item& a, const ComparisonContext& context);

// -1, 0 or 1 for the order of `a` and `b` (as min, max and sorting need it). Throws XPTY0004 for
// types without an order between them (FORG0006 for the aggregate functions is their caller's).
int AtomicOrder(const Item& a, const Item& b, const ComparisonContext& context);

// Code point order of UTF-16 text: supplementary characters after U+FFFF.
int CompareCodePoints(std::u16string_view a, std::u16string_view b);

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan

#endif
