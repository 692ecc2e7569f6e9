// The library's numeric functions (abs, ceiling, floor, round, round-half-to-even) and the
// aggregates (count, sum, avg, min, max).
//
// Rounding keeps the argument's type: integers and decimals are rounded exactly, floats and
// doubles by IEEE rules (NaN, the infinities and both zeros stay as they are). Integer subtypes
// give xs:integer, the type their values share.
#include "xml/xpath/XPathFunctionSupport.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>

namespace Veskan {
namespace Detail {
namespace XPath {

namespace {

bool IsFloating(Type type) {
  return type == Type::Float || type == Type::Double;
}

// The numeric type a result of a rounding function has: the argument's, with integer subtypes
// widened to xs:integer.
Type BaseNumeric(Type type) {
  return IsIntegerType(type) ? Type::Integer : type;
}

Item FloatingItem(Type type, double value) {
  return type == Type::Float ? Item::OfFloat(value) : Item::OfDouble(value);
}

// Applies `exact` to an integer or decimal argument and `floating` to a float or double one; the
// empty sequence gives the empty sequence.
template <typename Exact, typename Floating>
Sequence RoundWith(Arguments& arguments, Exact exact, Floating floating) {
  if (arguments[0].empty()) return {};
  const Item& value = arguments[0].front();
  const Type type = BaseNumeric(value.type);
  if (IsFloating(type)) return One(FloatingItem(type, floating(value.number)));
  Decimal result = exact(value.decimal);
  return One(Item::OfDecimal(std::move(result), type));
}

// Halves toward positive infinity; -0 for arguments in [-0.5, 0), since the result keeps the
// sign of the argument.
double RoundHalfUp(double value) {
  if (!std::isfinite(value) || value == 0) return value;
  double result = std::floor(value);
  // value - floor(value) is exact for every double, so no tie is lost to rounding.
  if (value - result >= 0.5) result += 1;
  if (result == 0 && value < 0) return -0.0;
  return result;
}

Sequence FnAbs(FunctionContext&, Arguments& arguments) {
  return RoundWith(
      arguments, [](const Decimal& d) { return d.Abs(); }, [](double x) { return std::fabs(x); });
}

Sequence FnCeiling(FunctionContext&, Arguments& arguments) {
  return RoundWith(
      arguments, [](const Decimal& d) { return d.Ceiling(); },
      [](double x) { return std::ceil(x); });
}

Sequence FnFloor(FunctionContext&, Arguments& arguments) {
  return RoundWith(
      arguments, [](const Decimal& d) { return d.Floor(); },
      [](double x) { return std::floor(x); });
}

Sequence FnRound(FunctionContext&, Arguments& arguments) {
  return RoundWith(
      arguments, [](const Decimal& d) { return d.Round(0); }, RoundHalfUp);
}

// The number of digits before the decimal point of |value| (1 for values below 1).
std::size_t IntegerDigits(const Decimal& value) {
  return value.Abs().Truncate().ToAscii().size();
}

// Rounds to a multiple of 10^-precision, halves to even. A precision beyond the value's digits
// changes nothing, and one far below them gives zero without building a huge power of ten.
Decimal RoundDecimalHalfToEven(const Decimal& value, const Decimal& precision) {
  if (precision.Sign() >= 0 &&
      (!precision.FitsInt64() || precision.ToInt64() >= static_cast<std::int64_t>(value.Scale())))
    return value;
  const std::int64_t digits = static_cast<std::int64_t>(IntegerDigits(value));
  if (!precision.FitsInt64() || precision.ToInt64() < -(digits + 1)) return Decimal();
  return value.RoundHalfToEven(static_cast<int>(precision.ToInt64()));
}

// A double is rounded as the decimal number its shortest form shows, so that 2.5 and 3567.812
// round as a reader expects, not as their binary approximations would. A float is rounded as the
// double it equals, whose digits show the float's own binary error: xs:float('0.05') is
// 0.05000000074505806, so it rounds to 0.1 at one digit.
double RoundFloatingHalfToEven(double value, bool isFloat, const Decimal& precision) {
  if (!std::isfinite(value) || value == 0) return value;
  const Decimal exact = Decimal::FromDouble(value);
  const Decimal rounded = RoundDecimalHalfToEven(exact, precision);
  if (rounded == exact) return value;
  const double result = isFloat ? static_cast<double>(rounded.ToFloat()) : rounded.ToDouble();
  // Rounding the largest values to a power of ten above them leaves the type's range.
  if (std::isinf(result)) {
    ThrowTypeError(u"FOCA0001", u"round-half-to-even() of " + DoubleToString(value, isFloat) +
                                    u" exceeds the range of its type.");
  }
  return result == 0 ? std::copysign(0.0, value) : result;
}

Sequence FnRoundHalfToEven(FunctionContext&, Arguments& arguments) {
  if (arguments[0].empty()) return {};
  const Decimal precision = arguments.size() > 1 ? arguments[1].front().decimal : Decimal();
  const Item& value = arguments[0].front();
  const Type type = BaseNumeric(value.type);
  if (IsFloating(type)) {
    return One(
        FloatingItem(type, RoundFloatingHalfToEven(value.number, type == Type::Float, precision)));
  }
  return One(Item::OfDecimal(RoundDecimalHalfToEven(value.decimal, precision), type));
}

// ---- Aggregates

// What values an aggregate may combine: only values of one class go together.
enum class ValueClass {
  Numeric,
  String,  // the string types and xs:anyURI
  Boolean,
  YearMonthDuration,
  DayTimeDuration,
  DateTime,
  Date,
  Time,
  Other,  // values no aggregate takes: xs:duration, g* types, QNames, binaries
};

ValueClass ClassOf(Type type) {
  if (IsNumeric(type)) return ValueClass::Numeric;
  if (IsStringType(type) || type == Type::AnyUri) return ValueClass::String;
  switch (type) {
    case Type::Boolean:
      return ValueClass::Boolean;
    case Type::YearMonthDuration:
      return ValueClass::YearMonthDuration;
    case Type::DayTimeDuration:
      return ValueClass::DayTimeDuration;
    case Type::DateTime:
      return ValueClass::DateTime;
    case Type::Date:
      return ValueClass::Date;
    case Type::Time:
      return ValueClass::Time;
    default:
      return ValueClass::Other;
  }
}

[[noreturn]] void ThrowMixed(std::u16string_view function, const Item& value) {
  ThrowTypeError(u"FORG0006", std::u16string(function) + u"() cannot combine a value of type " +
                                  TypeLabel(value) + u" with the others.");
}

// Untyped values read as xs:double, as the aggregates take them.
void CastUntyped(Sequence& values) {
  for (Item& value : values) {
    if (value.type == Type::UntypedAtomic) value = Cast(value, Type::Double);
  }
}

// The class all `values` share (non-empty); FORG0006 when they do not share one, or share one
// `allowed` rejects.
template <typename Allowed>
ValueClass CommonClass(const Sequence& values, std::u16string_view function, Allowed allowed) {
  const ValueClass common = ClassOf(values.front().type);
  if (!allowed(common)) ThrowMixed(function, values.front());
  for (const Item& value : values) {
    if (ClassOf(value.type) != common) ThrowMixed(function, value);
  }
  return common;
}

bool Summable(ValueClass kind) {
  return kind == ValueClass::Numeric || kind == ValueClass::YearMonthDuration ||
         kind == ValueClass::DayTimeDuration;
}

// The sum of non-empty, summable values of one class, added from the left so that numbers
// promote as ordinary addition does.
Item Total(const Sequence& values, const ComparisonContext& comparison) {
  Item total = values.front();
  for (std::size_t i = 1; i < values.size(); ++i)
    total = Arithmetic(Operator::Add, total, values[i], comparison);
  return total;
}

Sequence FnCount(FunctionContext&, Arguments& arguments) {
  return OneInteger(static_cast<std::int64_t>(arguments[0].size()));
}

Sequence FnSum(FunctionContext& context, Arguments& arguments) {
  Sequence& values = arguments[0];
  if (values.empty()) {
    if (arguments.size() > 1) return std::move(arguments[1]);
    return OneInteger(0);
  }
  CastUntyped(values);
  CommonClass(values, u"sum", Summable);
  return One(Total(values, context.Comparison()));
}

Sequence FnAvg(FunctionContext& context, Arguments& arguments) {
  Sequence& values = arguments[0];
  if (values.empty()) return {};
  CastUntyped(values);
  CommonClass(values, u"avg", Summable);
  const Item count = Item::OfInteger(static_cast<std::int64_t>(values.size()));
  return One(Arithmetic(Operator::Divide, Total(values, context.Comparison()), count,
                        context.Comparison()));
}

bool Ordered(ValueClass kind) {
  return kind != ValueClass::Other;
}

// The numeric type values of several numeric types promote to.
Type PromotedNumeric(const Sequence& values) {
  Type common = Type::Integer;
  for (const Item& value : values) {
    if (value.type == Type::Double) return Type::Double;
    if (value.type == Type::Float) {
      common = Type::Float;
    } else if (value.type == Type::Decimal && common == Type::Integer) {
      common = Type::Decimal;
    }
  }
  return common;
}

// min() (`wanted` -1) and max() (1): the first of the values that no other exceeds in that
// direction, converted to the type the values promote to.
Sequence Extreme(FunctionContext& context, Arguments& arguments, int wanted,
                 std::u16string_view function) {
  if (arguments.size() > 1) CheckCollation(arguments[1]);
  Sequence& values = arguments[0];
  if (values.empty()) return {};
  CastUntyped(values);
  const ValueClass kind = CommonClass(values, function, Ordered);
  if (kind == ValueClass::Numeric) {
    const Type common = PromotedNumeric(values);
    std::size_t best = 0;
    for (std::size_t i = 0; i < values.size(); ++i) {
      const Item& value = values[i];
      // NaN is the result as soon as it appears: it has no place in the order.
      if (IsFloating(value.type) && std::isnan(value.number)) {
        return One(FloatingItem(common, value.number));
      }
      if (i > 0 && AtomicOrder(value, values[best], context.Comparison()) == wanted) best = i;
    }
    Item result = std::move(values[best]);
    if (IsFloating(common)) {
      if (result.type != common) result = FloatingItem(common, ToDouble(result));
    } else if (common == Type::Decimal) {
      result.type = Type::Decimal;
    }
    return One(std::move(result));
  }
  std::size_t best = 0;
  bool sawString = false;
  for (std::size_t i = 0; i < values.size(); ++i) {
    sawString |= values[i].type != Type::AnyUri;
    if (i > 0 && AtomicOrder(values[i], values[best], context.Comparison()) == wanted) best = i;
  }
  Item result = std::move(values[best]);
  // A mixture of xs:anyURI and strings compares, and answers, as strings.
  if (kind == ValueClass::String && sawString && result.type == Type::AnyUri)
    result.type = Type::String;
  return One(std::move(result));
}

Sequence FnMin(FunctionContext& context, Arguments& arguments) {
  return Extreme(context, arguments, -1, u"min");
}

Sequence FnMax(FunctionContext& context, Arguments& arguments) {
  return Extreme(context, arguments, 1, u"max");
}

}  // namespace

const FunctionDefinition NumericFunctions[] = {
    {u"abs", 1, 1, FnAbs, u"numeric?"},
    {u"ceiling", 1, 1, FnCeiling, u"numeric?"},
    {u"floor", 1, 1, FnFloor, u"numeric?"},
    {u"round", 1, 1, FnRound, u"numeric?"},
    {u"round-half-to-even", 1, 2, FnRoundHalfToEven, u"numeric?, xs:integer"},
    {u"count", 1, 1, FnCount, u"item()*"},
    {u"sum", 1, 2, FnSum, u"xs:anyAtomicType*, xs:anyAtomicType?"},
    {u"avg", 1, 1, FnAvg, u"xs:anyAtomicType*"},
    {u"min", 1, 2, FnMin, u"xs:anyAtomicType*, xs:string"},
    {u"max", 1, 2, FnMax, u"xs:anyAtomicType*, xs:string"},
    {u"", 0, 0, nullptr, u""},
};

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan
