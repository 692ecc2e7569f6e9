// Casting between the engine's atomic types: `cast as`, `castable as`, the xs: constructor
// functions, and the conversions of untyped values that comparisons, arithmetic and function
// arguments make.
#ifndef VESKAN_XML_XPATH_XPATHCAST_H
#define VESKAN_XML_XPATH_XPATHCAST_H

#include "xml/xpath/XPathValue.h"

#include <functional>
#include <string>
#include <string_view>

namespace Veskan {
namespace Detail {
namespace XPath {

// The namespace URI a prefix is bound to ("" for the empty prefix without a default), for casts
// to xs:QName; false when the prefix is not bound.
using PrefixResolver = std::function<bool(std::u16string_view prefix, std::u16string& uri)>;

// `value` (an atomic value) cast to the atomic type `target` by the casting table: a string or
// untyped value is read as the target's lexical form (whitespace handled as the target's type
// says); other values convert by value. Throws FORG0001 for a value the target cannot hold
// (out of range, malformed), FOCA0002 for NaN or infinity to xs:decimal or an integer type,
// FODT0001/FODT0002 for calendar overflow, FONS0004 for an unbound QName prefix, and XPTY0004
// for a pair of types the table does not allow. `resolver` serves casts to xs:QName; without
// one such casts are XPTY0004.
Item Cast(const Item& value, Type target, const PrefixResolver* resolver = nullptr);

// Whether Cast would succeed.
bool Castable(const Item& value, Type target, const PrefixResolver* resolver = nullptr);

// Whether the casting table allows casting values of type `from` to type `to` at all (some
// values may still fail).
bool CastAllowed(Type from, Type to);

// An xs:double or xs:float read from its lexical form ("1e3", "-INF", "NaN", " 2.5 "); false for
// anything else.
bool ParseDouble(std::u16string_view text, double& value, bool isFloat = false);

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan

#endif
