// The evaluator of the library's XPath engine: an expression compiled against a namespace table
// and evaluated over a Xerces DOM tree, and the interface of the function library.
#ifndef VESKAN_XML_XPATH_XPATHEVALUATOR_H
#define VESKAN_XML_XPATH_XPATHEVALUATOR_H

#include "xml/xpath/XPathParser.h"
#include "xml/xpath/XPathValue.h"

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

// What a library function sees of the evaluation: the focus (context item, position, size) and
// document order.
class FunctionContext {
 public:
  FunctionContext(const Item* item, std::size_t position, std::size_t size, DocumentOrder& order)
      : item_(item), position_(position), size_(size), order_(order) {}

  // Null when the expression runs without a context item.
  const Item* ContextItem() const { return item_; }
  // The context item as a node; a type error when it is absent or not a node.
  xercesc::DOMNode* ContextNode() const;
  std::size_t Position() const { return position_; }
  std::size_t Size() const { return size_; }
  DocumentOrder& Order() const { return order_; }

 private:
  const Item* item_;
  std::size_t position_;
  std::size_t size_;
  DocumentOrder& order_;
};

// A function's body: the arguments are evaluated (each a sequence, node sequences in document
// order) and may be moved from. Throws XPathError.
using FunctionBody = Sequence (*)(FunctionContext& context, std::vector<Sequence>& arguments);

struct FunctionDefinition {
  std::u16string_view localName;
  int minArguments;
  int maxArguments;  // -1: any number from minArguments on
  FunctionBody body;
};

// The function named `localName` in `namespaceUri`, or null when the library has none.
const FunctionDefinition* FindFunction(std::u16string_view namespaceUri,
                                       std::u16string_view localName);

// An expression parsed, with its prefixes resolved, its calls bound and its variables checked, so
// that evaluation meets no static error.
//
// Thread safety: immutable after construction; Evaluate may run on several threads at once over
// trees no thread changes.
class CompiledExpression {
 public:
  // Prefixes of names and calls resolve through `namespaces` (prefix to URI; "xml" is always
  // bound). An unprefixed element or attribute name is in no namespace, an unprefixed function in
  // FunctionsNamespace. Throws XPathError (INVALID_EXPRESSION_ERR) for a syntax error, an unbound
  // prefix or variable, an unknown function or a wrong number of arguments.
  CompiledExpression(std::u16string_view text, const XPathVariables& namespaces,
                     int maxNestingDepth = 256);
  ~CompiledExpression();
  CompiledExpression(const CompiledExpression&) = delete;
  CompiledExpression& operator=(const CompiledExpression&) = delete;

  // The result with `contextNode` as context item (position and size 1). Node results of a path
  // are in document order. Throws XPathError for type errors and dynamic errors.
  Sequence Evaluate(xercesc::DOMNode* contextNode) const;

 private:
  struct Bound;
  std::unique_ptr<Node> tree_;
  std::unique_ptr<Bound> bound_;
};

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan

#endif
