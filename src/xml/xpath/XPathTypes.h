// The XML Schema built-in types the engine's atomic values carry, and how they derive from one
// another: what `instance of`, function signatures and the casting rules ask of a type.
#ifndef VESKAN_XML_XPATH_XPATHTYPES_H
#define VESKAN_XML_XPATH_XPATHTYPES_H

#include <optional>
#include <string_view>

namespace Veskan {
namespace Detail {
namespace XPath {

constexpr std::u16string_view SchemaNamespace = u"http://www.w3.org/2001/XMLSchema";

// The abstract types (AnyType to AnyAtomicType) name sets of values in sequence types; no item
// has them. Node marks an item that is a node rather than an atomic value.
enum class Type : unsigned char {
  Node,
  AnyType,
  Untyped,
  AnySimpleType,
  AnyAtomicType,
  UntypedAtomic,
  String,
  NormalizedString,
  Token,
  Language,
  NmToken,
  Name,
  NcName,
  Id,
  IdRef,
  Entity,
  Boolean,
  Decimal,
  Integer,
  NonPositiveInteger,
  NegativeInteger,
  Long,
  Int,
  Short,
  Byte,
  NonNegativeInteger,
  UnsignedLong,
  UnsignedInt,
  UnsignedShort,
  UnsignedByte,
  PositiveInteger,
  Float,
  Double,
  Duration,
  YearMonthDuration,
  DayTimeDuration,
  DateTime,
  Date,
  Time,
  GYearMonth,
  GYear,
  GMonthDay,
  GDay,
  GMonth,
  HexBinary,
  Base64Binary,
  AnyUri,
  QName,
  Notation,
};

// The type this one restricts; AnyType for AnyType itself and for Node.
Type BaseOf(Type type);

// Whether `type` is `ancestor` or derives from it.
bool DerivesFrom(Type type, Type ancestor);

// The primitive type an atomic type derives from (Decimal for the integers, String for the
// string-derived types, Duration for both duration subtypes); the type itself for primitives
// and for UntypedAtomic.
Type PrimitiveOf(Type type);

// The local name in the schema namespace ("integer", "untypedAtomic", "anyType").
std::u16string_view TypeName(Type type);

// The type a schema-namespace local name names, or nothing. The list types (NMTOKENS, IDREFS,
// ENTITIES) are not among them: no atomic value has them.
std::optional<Type> TypeNamed(std::u16string_view localName);

inline bool IsAtomic(Type type) {
  return type >= Type::UntypedAtomic;
}
inline bool IsNumeric(Type type) {
  return type >= Type::Decimal && type <= Type::Double;
}
inline bool IsIntegerType(Type type) {
  return type >= Type::Integer && type <= Type::PositiveInteger;
}
inline bool IsStringType(Type type) {
  return type >= Type::String && type <= Type::Entity;
}
inline bool IsCalendarType(Type type) {
  return type >= Type::DateTime && type <= Type::GMonth;
}
inline bool IsDurationType(Type type) {
  return type >= Type::Duration && type <= Type::DayTimeDuration;
}
inline bool IsBinaryType(Type type) {
  return type == Type::HexBinary || type == Type::Base64Binary;
}

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan

#endif
