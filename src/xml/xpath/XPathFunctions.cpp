// The function library's frame: the focus functions see, the signatures and the conversion of
// arguments to them, and the lookup of a function by name over the tables of the library's parts.
#include "xml/xpath/XPathFunctionSupport.h"

#include <algorithm>
#include <map>
#include <string>
#include <unordered_map>

namespace Veskan {
namespace Detail {
namespace XPath {

// ---- The focus

const Item& FunctionContext::RequireContextItem() const {
  if (!item_) ThrowTypeError(u"XPDY0002", u"The function needs a context item and there is none.");
  return *item_;
}

xercesc::DOMNode* FunctionContext::ContextNode() const {
  const Item& item = RequireContextItem();
  if (!item.IsNode()) ThrowTypeError(u"XPTY0004", u"The context item is not a node.");
  return item.node;
}

std::u16string ContextString(FunctionContext& context) {
  return ToString(context.RequireContextItem());
}

void CheckCollation(const Sequence& argument) {
  if (!argument.empty() && argument.front().string != CodepointCollation) {
    ThrowTypeError(u"FOCH0002",
                   u"The collation " + argument.front().string + u" is not supported.");
  }
}

// ---- Code points

namespace {

bool IsHighSurrogate(char16_t c) {
  return c >= 0xD800 && c <= 0xDBFF;
}
bool IsLowSurrogate(char16_t c) {
  return c >= 0xDC00 && c <= 0xDFFF;
}

}  // namespace

std::u32string CodePoints(std::u16string_view text) {
  std::u32string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char16_t c = text[i];
    if (IsHighSurrogate(c) && i + 1 < text.size() && IsLowSurrogate(text[i + 1])) {
      out += static_cast<char32_t>(0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00));
      ++i;
    } else {
      out += c;
    }
  }
  return out;
}

void AppendCodePoint(char32_t c, std::u16string& out) {
  if (c >= 0x10000) {
    c -= 0x10000;
    out += static_cast<char16_t>(0xD800 + (c >> 10));
    out += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
  } else {
    out += static_cast<char16_t>(c);
  }
}

std::u16string FromCodePoints(const std::u32string& text) {
  std::u16string out;
  out.reserve(text.size());
  for (const char32_t c : text)
    AppendCodePoint(c, out);
  return out;
}

// ---- Signatures

namespace {

ParameterType ReadParameterType(std::u16string_view text) {
  ParameterType type;
  if (!text.empty()) {
    switch (text.back()) {
      case u'?':
        type.occurrence = Occurrence::ZeroOrOne;
        break;
      case u'*':
        type.occurrence = Occurrence::ZeroOrMore;
        break;
      case u'+':
        type.occurrence = Occurrence::OneOrMore;
        break;
      default:
        break;
    }
    if (type.occurrence != Occurrence::One) text.remove_suffix(1);
  }
  if (text == u"item()") {
    type.kind = ParameterType::Kind::AnyItem;
  } else if (text == u"node()") {
    type.kind = ParameterType::Kind::Node;
  } else if (text == u"numeric") {
    type.kind = ParameterType::Kind::Numeric;
  } else {
    type.kind = ParameterType::Kind::Atomic;
    // The tables are the library's own: a name they misspell is a fault found by any test.
    type.type = TypeNamed(text.substr(3)).value_or(Type::AnyAtomicType);
  }
  return type;
}

std::vector<ParameterType> ReadSignature(std::u16string_view signature) {
  std::vector<ParameterType> types;
  while (!signature.empty()) {
    const std::size_t comma = signature.find(u',');
    types.push_back(ReadParameterType(TrimSpace(signature.substr(0, comma))));
    if (comma == std::u16string_view::npos) break;
    signature.remove_prefix(comma + 1);
  }
  if (types.empty()) types.emplace_back();
  return types;
}

[[noreturn]] void ThrowArgument(std::u16string_view function, std::u16string message) {
  ThrowTypeError(u"XPTY0004",
                 u"The argument of " + std::u16string(function) + u"() " + std::move(message));
}

// An atomic value as the expected type, by promotion or derivation; false when it is neither.
bool ConvertAtomic(Item& item, Type expected) {
  if (DerivesFrom(item.type, expected)) return true;
  if (item.IsNumeric() && (expected == Type::Double || expected == Type::Float)) {
    if (expected == Type::Float && item.type == Type::Double) return false;
    item = Cast(item, expected);
    return true;
  }
  if (item.type == Type::AnyUri && expected == Type::String) {
    item.type = Type::String;
    return true;
  }
  return false;
}

}  // namespace

void ConvertArgument(Sequence& argument, const ParameterType& type, std::u16string_view function) {
  switch (type.occurrence) {
    case Occurrence::One:
      if (argument.size() != 1 && type.kind != ParameterType::Kind::Atomic &&
          type.kind != ParameterType::Kind::Numeric) {
        ThrowArgument(function, u"must be a single item.");
      }
      break;
    case Occurrence::ZeroOrOne:
      if (argument.size() > 1 && type.kind != ParameterType::Kind::Atomic &&
          type.kind != ParameterType::Kind::Numeric) {
        ThrowArgument(function, u"must be at most one item.");
      }
      break;
    case Occurrence::OneOrMore:
      if (argument.empty()) ThrowArgument(function, u"must not be empty.");
      break;
    case Occurrence::ZeroOrMore:
      break;
  }
  switch (type.kind) {
    case ParameterType::Kind::AnyItem:
      return;
    case ParameterType::Kind::Node:
      for (const Item& item : argument) {
        if (!item.IsNode())
          ThrowArgument(function, u"must be a node, not an " + TypeLabel(item) + u".");
      }
      return;
    default:
      break;
  }
  for (Item& item : argument) {
    if (item.IsNode()) item = Atomize(item);
    const bool numeric = type.kind == ParameterType::Kind::Numeric;
    if (item.type == Type::UntypedAtomic) {
      if (numeric) {
        item = Cast(item, Type::Double);
      } else if (type.type != Type::AnyAtomicType) {
        item = Cast(item, type.type);
      }
      continue;
    }
    const bool fits = numeric ? item.IsNumeric() : ConvertAtomic(item, type.type);
    if (!fits) {
      ThrowArgument(function, u"must be " +
                                  (numeric ? std::u16string(u"a number")
                                           : u"an xs:" + std::u16string(TypeName(type.type))) +
                                  u", not an " + TypeLabel(item) + u".");
    }
  }
  // Atomization may have changed the count: a node of a list type is several values.
  if ((type.occurrence == Occurrence::One && argument.size() != 1) ||
      (type.occurrence == Occurrence::ZeroOrOne && argument.size() > 1)) {
    ThrowArgument(function, argument.empty() ? u"must not be empty." : u"must be a single item.");
  }
}

// ---- Lookup

namespace {

// Every function by name, with its signature read: built once, read-only after.
struct Registry {
  std::map<std::u16string_view, const FunctionDefinition*> byName;
  std::unordered_map<const FunctionDefinition*, std::vector<ParameterType>> signatures;

  Registry() {
    for (const FunctionDefinition* part : {CoreFunctions, StringFunctions, NumericFunctions,
                                           SequenceFunctions, NodeFunctions, CalendarFunctions}) {
      for (const FunctionDefinition* definition = part; !definition->localName.empty();
           ++definition) {
        byName.emplace(definition->localName, definition);
        signatures.emplace(definition, ReadSignature(definition->signature));
      }
    }
  }
};

const Registry& TheRegistry() {
  static const Registry registry;
  return registry;
}

}  // namespace

const FunctionDefinition* FindFunction(std::u16string_view namespaceUri,
                                       std::u16string_view localName) {
  if (namespaceUri != FunctionsNamespace) return nullptr;
  const auto& byName = TheRegistry().byName;
  const auto found = byName.find(localName);
  return found == byName.end() ? nullptr : found->second;
}

const std::vector<ParameterType>& ParameterTypes(const FunctionDefinition& function) {
  return TheRegistry().signatures.at(&function);
}

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan
