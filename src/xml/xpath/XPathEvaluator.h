// The evaluator of the library's XPath engine: an expression compiled against a namespace table
// and evaluated over a Xerces DOM tree, and the interface of the function library.
#ifndef VESKAN_XML_XPATH_XPATHEVALUATOR_H
#define VESKAN_XML_XPATH_XPATHEVALUATOR_H

// The parser first: its NodeKind::Sequence would otherwise shadow the Sequence type.
#include "xml/xpath/XPathParser.h"
// clang-format off
#include "xml/xpath/XPathCast.h"
#include "xml/xpath/XPathOperators.h"
#include "xml/xpath/XPathValue.h"
// clang-format on

#include <veskan/XPathVariables.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Veskan {
namespace Detail {
namespace XPath {

// The namespace of the function library; unprefixed function names are in it.
constexpr std::u16string_view FunctionsNamespace = u"http://www.w3.org/2005/xpath-functions";

// Document order over the nodes one evaluation meets. Small sets compare ancestor chains; large
// sets number the nodes of their tree once per evaluation. Attributes follow their element and
// precede its children, in the order of the element's attribute map.
//
// Thread safety: one evaluation, one thread.
class DocumentOrder {
 public:
  // Sorts the nodes of `items` (all nodes) into document order and removes duplicates.
  void Sort(Sequence& items);
  // True when `a` comes before `b` (false for the same node). Nodes of different trees (detached
  // ones) keep an order that is stable within the evaluation but otherwise arbitrary.
  bool Before(const xercesc::DOMNode* a, const xercesc::DOMNode* b);

 private:
  std::uint64_t Ordinal(const xercesc::DOMNode* node);
  void Number(const xercesc::DOMNode* root);

  std::unordered_map<const xercesc::DOMNode*, std::uint64_t> ordinals_;
  std::vector<const xercesc::DOMNode*> numberedRoots_;
};

// What the evaluation of one expression depends on besides its context item: the time zone of
// values without one, and the current date and time, fixed for the whole evaluation.
struct DynamicContext {
  ComparisonContext comparison;
  std::shared_ptr<const void> currentDateTime;  // a Calendar (XPathCalendar.h)
  // The static namespaces, for casts to xs:QName and fn:QName-like conversions.
  const PrefixResolver* resolver = nullptr;
};

// What a library function sees of the evaluation: the focus (context item, position, size),
// document order and the dynamic context.
class FunctionContext {
 public:
  FunctionContext(const Item* item, std::size_t position, std::size_t size, DocumentOrder& order,
                  const DynamicContext& dynamic)
      : item_(item), position_(position), size_(size), order_(order), dynamic_(dynamic) {}

  // Null when the expression runs without a context item.
  const Item* ContextItem() const { return item_; }
  // The context item; XPDY0002 when it is absent.
  const Item& RequireContextItem() const;
  // The context item as a node; XPDY0002 when it is absent, XPTY0004 when it is not a node.
  xercesc::DOMNode* ContextNode() const;
  std::size_t Position() const { return position_; }
  std::size_t Size() const { return size_; }
  DocumentOrder& Order() const { return order_; }
  const DynamicContext& Dynamic() const { return dynamic_; }
  const ComparisonContext& Comparison() const { return dynamic_.comparison; }

 private:
  const Item* item_;
  std::size_t position_;
  std::size_t size_;
  DocumentOrder& order_;
  const DynamicContext& dynamic_;
};

// A function's body: the arguments are evaluated and converted to the types of the function's
// signature (atomized, untyped values cast, numbers promoted, counts checked), and may be moved
// from. Throws XPathError.
using FunctionBody = Sequence (*)(FunctionContext& context, std::vector<Sequence>& arguments);

// The type of one parameter.
struct ParameterType {
  enum class Kind : unsigned char { AnyItem, Node, Atomic, Numeric };
  Kind kind = Kind::AnyItem;
  Type type = Type::AnyAtomicType;  // Kind::Atomic: the expected type
  Occurrence occurrence = Occurrence::One;
};

struct FunctionDefinition {
  std::u16string_view localName;
  int minArguments;
  int maxArguments;  // -1: any number from minArguments on
  FunctionBody body;
  // The parameter types, comma-separated ("xs:string?, xs:double, xs:double"; item(), node(),
  // numeric, xs:<type>, each with an occurrence indicator). A variadic function's last type
  // stands for every further argument.
  std::u16string_view signature;
};

// The function named `localName` in `namespaceUri`, or null when the library has none.
const FunctionDefinition* FindFunction(std::u16string_view namespaceUri,
                                       std::u16string_view localName);

// The parameter types of a definition's signature, one per parameter (read once).
const std::vector<ParameterType>& ParameterTypes(const FunctionDefinition& function);

// Converts `argument` to `type` by the function conversion rules; `function` names the function
// in messages. Throws XPTY0004 for a value that does not convert or a wrong number of items.
void ConvertArgument(Sequence& argument, const ParameterType& type, std::u16string_view function);

// The function tables of the library's parts, each ending with an entry whose name is empty.
extern const FunctionDefinition CoreFunctions[];
extern const FunctionDefinition StringFunctions[];
extern const FunctionDefinition NumericFunctions[];
extern const FunctionDefinition SequenceFunctions[];
extern const FunctionDefinition NodeFunctions[];
extern const FunctionDefinition CalendarFunctions[];

// An expression parsed, with its prefixes resolved, its calls bound and its variables checked, so
// that evaluation meets no static error.
//
// Thread safety: immutable after construction; Evaluate may run on several threads at once over
// trees no thread changes.
class CompiledExpression {
 public:
  // Prefixes of names and calls resolve through `namespaces` (prefix to URI; "xml" is always
  // bound; the empty prefix names the default namespace of element and type names). An
  // unprefixed attribute name is in no namespace, an unprefixed function in FunctionsNamespace.
  // `externals` names the variables the caller binds at each evaluation ("name" or
  // "prefix:name"). Throws XPathError (INVALID_EXPRESSION_ERR) for a syntax error, an unbound
  // prefix or variable, an unknown function or type or a wrong number of arguments.
  CompiledExpression(std::u16string_view text, const XPathVariables& namespaces,
                     int maxNestingDepth = 256, const std::vector<std::u16string>& externals = {});
  ~CompiledExpression();
  CompiledExpression(const CompiledExpression&) = delete;
  CompiledExpression& operator=(const CompiledExpression&) = delete;

  // The result with `contextNode` as context item (position and size 1; none when null) and
  // `externals` as the values of the external variables, in the order they were named. Node
  // results of a path are in document order. Throws XPathError for type errors and dynamic
  // errors.
  Sequence Evaluate(xercesc::DOMNode* contextNode,
                    const std::vector<Sequence>& externals = {}) const;

 private:
  struct Bound;
  std::unique_ptr<Node> tree_;
  std::unique_ptr<Bound> bound_;
};

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan

#endif
