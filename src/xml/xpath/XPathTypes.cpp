// The built-in type hierarchy as one table, in the order of the Type enumeration.
#include "xml/xpath/XPathTypes.h"

#include <cstddef>
#include <iterator>

namespace Veskan {
namespace Detail {
namespace XPath {

namespace {

struct TypeEntry {
  Type type;
  Type base;
  std::u16string_view name;
};

constexpr TypeEntry Types[] = {
    {Type::Node, Type::AnyType, u"node"},
    {Type::AnyType, Type::AnyType, u"anyType"},
    {Type::Untyped, Type::AnyType, u"untyped"},
    {Type::AnySimpleType, Type::AnyType, u"anySimpleType"},
    {Type::AnyAtomicType, Type::AnySimpleType, u"anyAtomicType"},
    {Type::UntypedAtomic, Type::AnyAtomicType, u"untypedAtomic"},
    {Type::String, Type::AnyAtomicType, u"string"},
    {Type::NormalizedString, Type::String, u"normalizedString"},
    {Type::Token, Type::NormalizedString, u"token"},
    {Type::Language, Type::Token, u"language"},
    {Type::NmToken, Type::Token, u"NMTOKEN"},
    {Type::Name, Type::Token, u"Name"},
    {Type::NcName, Type::Name, u"NCName"},
    {Type::Id, Type::NcName, u"ID"},
    {Type::IdRef, Type::NcName, u"IDREF"},
    {Type::Entity, Type::NcName, u"ENTITY"},
    {Type::Boolean, Type::AnyAtomicType, u"boolean"},
    {Type::Decimal, Type::AnyAtomicType, u"decimal"},
    {Type::Integer, Type::Decimal, u"integer"},
    {Type::NonPositiveInteger, Type::Integer, u"nonPositiveInteger"},
    {Type::NegativeInteger, Type::NonPositiveInteger, u"negativeInteger"},
    {Type::Long, Type::Integer, u"long"},
    {Type::Int, Type::Long, u"int"},
    {Type::Short, Type::Int, u"short"},
    {Type::Byte, Type::Short, u"byte"},
    {Type::NonNegativeInteger, Type::Integer, u"nonNegativeInteger"},
    {Type::UnsignedLong, Type::NonNegativeInteger, u"unsignedLong"},
    {Type::UnsignedInt, Type::UnsignedLong, u"unsignedInt"},
    {Type::UnsignedShort, Type::UnsignedInt, u"unsignedShort"},
    {Type::UnsignedByte, Type::UnsignedShort, u"unsignedByte"},
    {Type::PositiveInteger, Type::NonNegativeInteger, u"positiveInteger"},
    {Type::Float, Type::AnyAtomicType, u"float"},
    {Type::Double, Type::AnyAtomicType, u"double"},
    {Type::Duration, Type::AnyAtomicType, u"duration"},
    {Type::YearMonthDuration, Type::Duration, u"yearMonthDuration"},
    {Type::DayTimeDuration, Type::Duration, u"dayTimeDuration"},
    {Type::DateTime, Type::AnyAtomicType, u"dateTime"},
    {Type::Date, Type::AnyAtomicType, u"date"},
    {Type::Time, Type::AnyAtomicType, u"time"},
    {Type::GYearMonth, Type::AnyAtomicType, u"gYearMonth"},
    {Type::GYear, Type::AnyAtomicType, u"gYear"},
    {Type::GMonthDay, Type::AnyAtomicType, u"gMonthDay"},
    {Type::GDay, Type::AnyAtomicType, u"gDay"},
    {Type::GMonth, Type::AnyAtomicType, u"gMonth"},
    {Type::HexBinary, Type::AnyAtomicType, u"hexBinary"},
    {Type::Base64Binary, Type::AnyAtomicType, u"base64Binary"},
    {Type::AnyUri, Type::AnyAtomicType, u"anyURI"},
    {Type::QName, Type::AnyAtomicType, u"QName"},
    {Type::Notation, Type::AnyAtomicType, u"NOTATION"},
};

const TypeEntry& EntryOf(Type type) {
  return Types[static_cast<std::size_t>(type)];
}

}  // namespace

Type BaseOf(Type type) {
  return EntryOf(type).base;
}

bool DerivesFrom(Type type, Type ancestor) {
  for (;;) {
    if (type == ancestor) return true;
    if (type == Type::AnyType) return false;
    type = BaseOf(type);
  }
}

Type PrimitiveOf(Type type) {
  if (IsIntegerType(type)) return Type::Decimal;
  if (IsStringType(type)) return Type::String;
  if (IsDurationType(type)) return Type::Duration;
  return type;
}

std::u16string_view TypeName(Type type) {
  return EntryOf(type).name;
}

std::optional<Type> TypeNamed(std::u16string_view localName) {
  for (const TypeEntry& entry : Types) {
    if (entry.type != Type::Node && entry.name == localName) return entry.type;
  }
  return std::nullopt;
}

static_assert(std::size(Types) == static_cast<std::size_t>(Type::Notation) + 1,
              "one table row per type, in enumeration order");

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan
