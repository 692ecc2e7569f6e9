// Arithmetic and comparison of atomic values.
#include "xml/xpath/XPathOperators.h"

#include "xml/xpath/XPathCalendar.h"
#include "xml/xpath/XPathCast.h"

#include <cmath>
#include <functional>
#include <limits>
#include <optional>
#include <string>

namespace Veskan {
namespace Detail {
namespace XPath {

namespace {

[[noreturn]] void ThrowOperandTypes(std::u16string_view what, const Item& a, const Item& b) {
  ThrowTypeError(u"XPTY0004", std::u16string(what) + u" is not defined for " + TypeLabel(a) +
                                  u" and " + TypeLabel(b) + u".");
}

bool IsDoubleLike(Type type) {
  return type == Type::Float || type == Type::Double;
}

// The type both numeric operands promote to: Double, Float, Decimal or Integer.
Type Promoted(Type a, Type b) {
  if (a == Type::Double || b == Type::Double) return Type::Double;
  if (a == Type::Float || b == Type::Float) return Type::Float;
  if (IsIntegerType(a) && IsIntegerType(b)) return Type::Integer;
  return Type::Decimal;
}

Item FloatingResult(Type type, double value) {
  return type == Type::Float ? Item::OfFloat(value) : Item::OfDouble(value);
}

Item DoubleArithmetic(Operator op, Type type, double a, double b) {
  // A float operation rounds its result to float; the operands already are floats.
  switch (op) {
    case Operator::Add:
      return FloatingResult(type, a + b);
    case Operator::Subtract:
      return FloatingResult(type, a - b);
    case Operator::Multiply:
      return FloatingResult(type, a * b);
    case Operator::Divide:
      return FloatingResult(type, a / b);
    case Operator::Modulo:
      return FloatingResult(type, std::fmod(a, b));
    default:
      break;
  }
  // Integer division.
  if (b == 0) ThrowTypeError(u"FOAR0001", u"Integer division by zero.");
  if (std::isnan(a) || std::isnan(b) || std::isinf(a)) {
    ThrowTypeError(u"FOAR0002", u"Integer division of " + DoubleToString(a) + u" by " +
                                    DoubleToString(b) + u" has no integer result.");
  }
  const double quotient = std::trunc(a / b);
  if (std::isinf(quotient)) ThrowTypeError(u"FOAR0002", u"The integer quotient is too large.");
  return Item::OfDecimal(Decimal::FromDouble(quotient), Type::Integer);
}

Item DecimalArithmetic(Operator op, Type type, const Decimal& a, const Decimal& b) {
  switch (op) {
    case Operator::Add:
      return Item::OfDecimal(Decimal::Add(a, b), type);
    case Operator::Subtract:
      return Item::OfDecimal(Decimal::Subtract(a, b), type);
    case Operator::Multiply:
      // Squaring again and again doubles the digits each time: past what one value may hold, the
      // product overflows rather than exhaust memory.
      if (a.HeapDigits() + b.HeapDigits() > MaxTextLength) {
        ThrowTypeError(u"FOAR0002", u"The product has more than " +
                                        MessageText(std::to_string(MaxTextLength)) + u" digits.");
      }
      return Item::OfDecimal(Decimal::Multiply(a, b), type);
    default:
      break;
  }
  if (b.Sign() == 0) {
    ThrowTypeError(u"FOAR0001", u"Division of " + a.ToString() + u" by zero.");
  }
  switch (op) {
    case Operator::Divide:
      return Item::OfDecimal(*Decimal::Divide(a, b));
    case Operator::IntegerDivide:
      return Item::OfDecimal(*Decimal::IntegerDivide(a, b), Type::Integer);
    default:
      return Item::OfDecimal(*Decimal::Modulo(a, b), type);
  }
}

bool Relate(Operator op, int order) {
  switch (op) {
    case Operator::ValueEqual:
    case Operator::GeneralEqual:
      return order == 0;
    case Operator::ValueNotEqual:
    case Operator::GeneralNotEqual:
      return order != 0;
    case Operator::ValueLess:
    case Operator::GeneralLess:
      return order < 0;
    case Operator::ValueLessEqual:
    case Operator::GeneralLessEqual:
      return order <= 0;
    case Operator::ValueGreater:
    case Operator::GeneralGreater:
      return order > 0;
    default:
      return order >= 0;
  }
}

bool IsEqualityOperator(Operator op) {
  return op == Operator::ValueEqual || op == Operator::ValueNotEqual ||
         op == Operator::GeneralEqual || op == Operator::GeneralNotEqual;
}

bool IsStringLike(Type type) {
  return IsStringType(type) || type == Type::AnyUri || type == Type::UntypedAtomic;
}

// The comparable kind of a type: values compare only within one kind.
Type ComparisonKind(Type type) {
  if (IsStringLike(type)) return Type::String;
  if (XPath::IsNumeric(type)) return Type::Double;
  return PrimitiveOf(type);
}

// -1, 0, 1; or 2 when unordered (a NaN involved).
int NumericOrder(const Item& a, const Item& b) {
  if (!IsDoubleLike(a.type) && !IsDoubleLike(b.type)) return a.decimal.Compare(b.decimal);
  double x = ToDouble(a);
  double y = ToDouble(b);
  // A decimal against a float promotes to float, not double: xs:float(3.1) eq 3.1.
  if (a.type != Type::Double && b.type != Type::Double) {
    x = static_cast<float>(x);
    y = static_cast<float>(y);
  }
  if (std::isnan(x) || std::isnan(y)) return 2;
  return x < y ? -1 : (x > y ? 1 : 0);
}

// The order of two values of one comparable kind; 2 when they are unordered or only equality
// is defined and they differ (`orderable` says which). Throws for kinds that do not compare.
int Order(const Item& a, const Item& b, const ComparisonContext& context, bool& orderable) {
  orderable = true;
  const Type kind = ComparisonKind(a.type);
  if (kind != ComparisonKind(b.type)) {
    // The two duration subtypes compare for equality with each other and with xs:duration.
    if (!(IsDurationType(a.type) && IsDurationType(b.type))) {
      ThrowOperandTypes(u"Comparison", a, b);
    }
  }
  switch (kind) {
    case Type::String:
      return CompareCodePoints(a.string, b.string);
    case Type::Double:
      return NumericOrder(a, b);
    case Type::Boolean:
      return a.boolean == b.boolean ? 0 : (a.boolean ? 1 : -1);
    case Type::QName:
      orderable = false;
      return a.AsQName().uri == b.AsQName().uri && a.AsQName().local == b.AsQName().local ? 0 : 2;
    case Type::HexBinary:
    case Type::Base64Binary:
      orderable = false;
      if (a.type != b.type) ThrowOperandTypes(u"Comparison", a, b);
      return a.AsOctets() == b.AsOctets() ? 0 : 2;
    case Type::Duration:
      orderable = a.type == b.type && a.type != Type::Duration;
      if (orderable) return Compare(a.AsDuration(), b.AsDuration());
      return Equal(a.AsDuration(), b.AsDuration()) ? 0 : 2;
    default:
      break;
  }
  if (IsCalendarType(kind)) {
    if (a.type != b.type) ThrowOperandTypes(u"Comparison", a, b);
    orderable = a.type == Type::DateTime || a.type == Type::Date || a.type == Type::Time;
    const int order = Compare(a.AsCalendar(), b.AsCalendar(), context.implicitTimezone);
    return orderable || order == 0 ? order : 2;
  }
  ThrowOperandTypes(u"Comparison", a, b);
}

bool IsDurationSubtype(Type type) {
  return type == Type::YearMonthDuration || type == Type::DayTimeDuration;
}

// Arithmetic on dates, times and durations; nothing when the operand types do not combine.
std::optional<Item> CalendarArithmetic(Operator op, const Item& a, const Item& b,
                                       int implicitTimezone) {
  const bool additive = op == Operator::Add || op == Operator::Subtract;
  // A point in time and a duration: times take only day-time durations.
  auto shifts = [](Type point, Type duration) {
    if (point == Type::Time) return duration == Type::DayTimeDuration;
    return (point == Type::DateTime || point == Type::Date) && IsDurationSubtype(duration);
  };
  if (additive && IsCalendarType(a.type) && shifts(a.type, b.type)) {
    return Item::OfCalendar(a.type, op == Operator::Add ? Add(a.AsCalendar(), b.AsDuration())
                                                        : Subtract(a.AsCalendar(), b.AsDuration()));
  }
  if (op == Operator::Add && IsCalendarType(b.type) && shifts(b.type, a.type)) {
    return Item::OfCalendar(b.type, Add(b.AsCalendar(), a.AsDuration()));
  }
  if (op == Operator::Subtract && a.type == b.type &&
      (a.type == Type::DateTime || a.type == Type::Date || a.type == Type::Time)) {
    return Item::OfDuration(Type::DayTimeDuration,
                            Subtract(a.AsCalendar(), b.AsCalendar(), implicitTimezone));
  }
  if (!IsDurationSubtype(a.type) && !IsDurationSubtype(b.type)) return std::nullopt;
  if (additive && a.type == b.type) {
    return Item::OfDuration(a.type, op == Operator::Add ? Add(a.AsDuration(), b.AsDuration())
                                                        : Subtract(a.AsDuration(), b.AsDuration()));
  }
  if (op == Operator::Divide && a.type == b.type) {
    const Ratio ratio = Divide(a.AsDuration(), b.AsDuration());
    return Item::OfDecimal(*Decimal::Divide(Decimal::FromInt64(ratio.numerator),
                                            Decimal::FromInt64(ratio.denominator)));
  }
  if ((op == Operator::Multiply || op == Operator::Divide) && IsDurationSubtype(a.type) &&
      b.IsNumeric()) {
    return Item::OfDuration(a.type, op == Operator::Multiply ? Multiply(a.AsDuration(), ToDouble(b))
                                                             : Divide(a.AsDuration(), ToDouble(b)));
  }
  if (op == Operator::Multiply && a.IsNumeric() && IsDurationSubtype(b.type)) {
    return Item::OfDuration(b.type, Multiply(b.AsDuration(), ToDouble(a)));
  }
  return std::nullopt;
}

}  // namespace

int CompareCodePoints(std::u16string_view a, std::u16string_view b) {
  const std::size_t n = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < n; ++i) {
    if (a[i] == b[i]) continue;
    auto key = [](char16_t c) -> int {
      if (c < 0xD800) return c;
      return c >= 0xE000 ? c - 0x800 : c + 0x2000;
    };
    return key(a[i]) < key(b[i]) ? -1 : 1;
  }
  if (a.size() == b.size()) return 0;
  return a.size() < b.size() ? -1 : 1;
}

Item Arithmetic(Operator op, const Item& a, const Item& b, const ComparisonContext& context) {
  if (a.IsNumeric() && b.IsNumeric()) {
    const Type type = Promoted(a.type, b.type);
    if (type == Type::Double || type == Type::Float) {
      return DoubleArithmetic(op, type, ToDouble(a), ToDouble(b));
    }
    return DecimalArithmetic(op, type, a.decimal, b.decimal);
  }
  if (auto result = CalendarArithmetic(op, a, b, context.implicitTimezone)) return *result;
  ThrowOperandTypes(u"Arithmetic", a, b);
}

bool ValueCompare(Operator op, const Item& a, const Item& b, const ComparisonContext& context) {
  bool orderable = true;
  const int order = Order(a, b, context, orderable);
  if (!orderable && !IsEqualityOperator(op)) ThrowOperandTypes(u"Ordering", a, b);
  if (order == 2) return op == Operator::ValueNotEqual || op == Operator::GeneralNotEqual;
  return Relate(op, order);
}

bool GeneralCompareItems(Operator op, const Item& a, const Item& b,
                         const ComparisonContext& context) {
  const bool untypedA = a.type == Type::UntypedAtomic;
  const bool untypedB = b.type == Type::UntypedAtomic;
  if (untypedA == untypedB) return ValueCompare(op, a, b, context);
  const Item& typed = untypedA ? b : a;
  const Item& untyped = untypedA ? a : b;
  Item converted;
  if (typed.IsNumeric()) {
    converted = Cast(untyped, Type::Double);
  } else if (IsStringLike(typed.type)) {
    converted = untyped;
  } else {
    converted = Cast(
        untyped, PrimitiveOf(typed.type) == Type::Duration ? typed.type : PrimitiveOf(typed.type));
  }
  return untypedA ? ValueCompare(op, converted, b, context)
                  : ValueCompare(op, a, converted, context);
}

bool AtomicEqual(const Item& a, const Item& b, const ComparisonContext& context) {
  if (ComparisonKind(a.type) != ComparisonKind(b.type) &&
      !(IsDurationType(a.type) && IsDurationType(b.type))) {
    return false;
  }
  if (IsCalendarType(a.type) && a.type != b.type) return false;
  if (IsBinaryType(a.type) && a.type != b.type) return false;
  if (a.IsNumeric() && IsDoubleLike(a.type) && IsDoubleLike(b.type) && std::isnan(a.number) &&
      std::isnan(b.number)) {
    return true;
  }
  if (a.IsNumeric() && (std::isnan(ToDouble(a)) || std::isnan(ToDouble(b)))) return false;
  bool orderable = true;
  return Order(a, b, context, orderable) == 0;
}

std::size_t AtomicHash(const Item& a, const ComparisonContext& context) {
  const Type kind = ComparisonKind(a.type);
  switch (kind) {
    case Type::String:
      return std::hash<std::u16string>()(a.string);
    case Type::Double: {
      // Equal numbers of different types must hash alike, whichever type they promote to:
      // hash the float nearest the value (equal values have equal nearest floats).
      const double value = ToDouble(a);
      if (std::isnan(value)) return 0;
      const float nearest = static_cast<float>(value);
      return std::hash<float>()(nearest == 0 ? 0.0f : nearest);
    }
    case Type::Boolean:
      return a.boolean ? 1 : 2;
    case Type::QName:
      return std::hash<std::u16string>()(a.AsQName().local);
    default:
      break;
  }
  if (IsCalendarType(kind)) return Hash(a.AsCalendar(), context.implicitTimezone);
  if (IsDurationType(kind)) return Hash(a.AsDuration());
  if (IsBinaryType(kind)) return std::hash<std::string>()(a.AsOctets());
  return 3;
}

int AtomicOrder(const Item& a, const Item& b, const ComparisonContext& context) {
  bool orderable = true;
  const int order = Order(a, b, context, orderable);
  if (!orderable) ThrowOperandTypes(u"Ordering", a, b);
  return order == 2 ? 0 : order;
}

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan
