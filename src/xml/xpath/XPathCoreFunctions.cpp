// The library's core functions: the focus (position, last), effective boolean values, the
// string-value and typed value of items, conversion to a number, and raising errors.
#include "xml/xpath/XPathFunctionSupport.h"

#include <cmath>
#include <limits>
#include <string>
#include <utility>

namespace Veskan {
namespace Detail {
namespace XPath {

namespace {

// The namespace of the library's standard error codes: error() without a code raises FOER0000
// in it.
constexpr std::u16string_view ErrorsNamespace = u"http://www.w3.org/2005/xqt-errors";

// ---- The focus

Sequence FnPosition(FunctionContext& context, Arguments&) {
  context.RequireContextItem();
  return OneInteger(static_cast<std::int64_t>(context.Position()));
}

Sequence FnLast(FunctionContext& context, Arguments&) {
  context.RequireContextItem();
  return OneInteger(static_cast<std::int64_t>(context.Size()));
}

// ---- Booleans

Sequence FnBoolean(FunctionContext&, Arguments& arguments) {
  return OneBoolean(EffectiveBoolean(arguments[0]));
}

Sequence FnNot(FunctionContext&, Arguments& arguments) {
  return OneBoolean(!EffectiveBoolean(arguments[0]));
}

Sequence FnTrue(FunctionContext&, Arguments&) {
  return OneBoolean(true);
}

Sequence FnFalse(FunctionContext&, Arguments&) {
  return OneBoolean(false);
}

// ---- Values

Sequence FnString(FunctionContext& context, Arguments& arguments) {
  if (arguments.empty()) return OneString(ContextString(context));
  return OneString(ToString(arguments[0]));
}

Sequence FnData(FunctionContext&, Arguments& arguments) {
  return Atomize(arguments[0]);
}

// An atomic value as xs:double; NaN for a value that does not cast to one, which is how
// number() tells the caller the value was not a number.
double NumberOf(const Item& value) {
  if (value.type == Type::Double) return value.number;
  if (!CastAllowed(value.type, Type::Double) || !Castable(value, Type::Double))
    return std::numeric_limits<double>::quiet_NaN();
  return Cast(value, Type::Double).number;
}

Sequence FnNumber(FunctionContext& context, Arguments& arguments) {
  if (arguments.empty()) return OneDouble(NumberOf(Atomize(context.RequireContextItem())));
  if (arguments[0].empty()) return OneDouble(std::numeric_limits<double>::quiet_NaN());
  return OneDouble(NumberOf(arguments[0].front()));
}

// ---- Errors and tracing

// Raises the error the arguments name. The message starts with the code's local name, which is
// how a host tells errors apart; the description follows. The error object has no place in the
// engine's error and is left out.
Sequence FnError(FunctionContext&, Arguments& arguments) {
  // Only the forms with a description let the code be left out.
  if (arguments.size() == 1 && arguments[0].empty())
    ThrowTypeError(u"XPTY0004", u"error() with one argument needs an error code.");
  std::u16string code = u"FOER0000";
  std::u16string uri(ErrorsNamespace);
  if (!arguments.empty() && !arguments[0].empty()) {
    const QNameValue& name = arguments[0].front().AsQName();
    code = name.local;
    uri = name.uri;
  }
  std::u16string description;
  if (arguments.size() > 1) description = StringOf(arguments[1]);
  if (description.empty()) {
    description = uri == ErrorsNamespace
                      ? u"error() was called."
                      : u"error() was called with the code {" + uri + u"}" + code + u".";
  }
  ThrowTypeError(code, std::move(description));
}

// Returns its first argument. The engine has no trace output of its own; the label is checked
// by the signature and otherwise unused.
Sequence FnTrace(FunctionContext&, Arguments& arguments) {
  return std::move(arguments[0]);
}

}  // namespace

const FunctionDefinition CoreFunctions[] = {
    {u"position", 0, 0, FnPosition, u""},
    {u"last", 0, 0, FnLast, u""},
    {u"boolean", 1, 1, FnBoolean, u"item()*"},
    {u"not", 1, 1, FnNot, u"item()*"},
    {u"true", 0, 0, FnTrue, u""},
    {u"false", 0, 0, FnFalse, u""},
    {u"string", 0, 1, FnString, u"item()?"},
    {u"data", 1, 1, FnData, u"item()*"},
    {u"number", 0, 1, FnNumber, u"xs:anyAtomicType?"},
    {u"error", 0, 3, FnError, u"xs:QName?, xs:string, item()*"},
    {u"trace", 2, 2, FnTrace, u"item()*, xs:string"},
    {u"", 0, 0, nullptr, u""},
};

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan
