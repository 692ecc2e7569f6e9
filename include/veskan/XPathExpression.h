// XPathExpression: one XPath expression evaluated at once against a DOM node or a document, with
// the nodes it selected kept in order. Evaluation errors are recorded, never thrown.
#ifndef VESKAN_XPATHEXPRESSION_H
#define VESKAN_XPATHEXPRESSION_H

#include <veskan/Export.h>
#include <veskan/StringBuffer.h>
#include <veskan/XPathVariables.h>
#include <veskan/XmlSchema.h>

#include <memory>
#include <vector>

namespace Veskan {

// The language is XPath 2.0 over untyped documents: typed atomic values of the XML Schema
// built-in types, sequence types, casts and the whole function library. A node's value is
// xs:untypedAtomic: it reads as a number against a number and as a string otherwise.
//
// Variables are bound by text: every "$key" of the expression, for each entry of `variables` in
// order, is replaced by the value as a string literal ('' for empty, 'v', "v" when v holds an
// apostrophe, 'v' with each apostrophe written "&apos;" when it holds both kinds of quote). So a
// key that begins another variable's name replaces that name's start too: choose keys apart.
// Prefixes resolve through `namespaces` (prefix to URI); "fn" names the function namespace.
//
// When evaluation fails, Count() is 0, ErrorCode() is "<code> (DOMXPathException)" or
// "<code> (DOMException)" (51 for a malformed expression, an unknown function, prefix, type or
// variable; 52 for a type or dynamic error) or "##unknown error##", and ErrorMessage() says what
// went wrong, starting with the standard error code ("XPTY0004: ...").
// Items that are not nodes (a number, a string) are skipped.
//
// Thread safety: one expression and its document on one thread at a time.
class VESKAN_API XPathExpression {
 public:
  XPathExpression(xercesc::DOMNode* node, const char16_t* expression,
                  const XPathVariables& variables = XPathVariables::Empty,
                  const XPathVariables& namespaces = Namespaces::Defaults);
  // From the document node.
  XPathExpression(const std::shared_ptr<XmlDocument>& document, const char16_t* expression,
                  const XPathVariables& variables = XPathVariables::Empty,
                  const XPathVariables& namespaces = Namespaces::Defaults);
  XPathExpression(const XPathExpression& other);
  XPathExpression& operator=(const XPathExpression& other);
  virtual ~XPathExpression();

  int Count() const { return count_; }
  // The node at `index`, or null for an index that is negative or not below Count().
  xercesc::DOMNode* operator[](int index) const;
  // The first node when it is an element, else null.
  operator xercesc::DOMElement*() const;

  // The expression text as evaluated, after variable substitution.
  const StringBuffer& Expression() const { return expression_; }
  const StringBuffer& ErrorCode() const { return errorCode_; }
  const StringBuffer& ErrorMessage() const { return errorMessage_; }

  // `value` as the string literal that variable substitution writes.
  static StringBuffer Literal(const char16_t* value);

 protected:
  void Initialize(xercesc::DOMNode* node, const char16_t* expression,
                  const XPathVariables& variables, const XPathVariables& namespaces);

 private:
  StringBuffer expression_;
  StringBuffer errorCode_;
  StringBuffer errorMessage_;
  std::vector<xercesc::DOMNode*> nodes_;
  int count_ = 0;
};

}  // namespace Veskan

#endif
