// XPathExpression: textual variable binding, evaluation through the library's XPath engine, and
// the error texts hosts log.
#include <veskan/Globals.h>
#include <veskan/XPathExpression.h>

#include "xml/GlobalsAccess.h"
#include "xml/xpath/XPathEvaluator.h"
#include "xml/xpath/XPathRuntime.h"

#include <exception>
#include <string>

namespace Veskan {

namespace {

const char16_t* const UnknownError = u"##unknown error##";

std::u16string_view View(const StringBuffer& text) {
  return std::u16string_view(text.getBuffer(), static_cast<std::size_t>(text.length()));
}

// `text` with every "$key" replaced by its value's literal. One pass over the text, so a value
// that itself holds "$name" stays as it is; where several keys match, the first in table order
// wins.
std::u16string Substitute(std::u16string_view text, const XPathVariables& variables) {
  if (variables.Count() == 0) return std::u16string(text);
  std::u16string result;
  result.reserve(text.size());
  std::size_t done = 0;
  for (std::size_t dollar = text.find(u'$'); dollar != std::u16string_view::npos;
       dollar = text.find(u'$', dollar + 1)) {
    const std::u16string_view rest = text.substr(dollar + 1);
    for (int i = 0; i < variables.Count(); ++i) {
      const XPathVariables::Entry& entry = variables(i);
      const std::u16string_view key = View(entry.Key);
      if (key.empty() || rest.substr(0, key.size()) != key) continue;
      result.append(text.substr(done, dollar - done));
      const StringBuffer literal = XPathExpression::Literal(entry.Value);
      result.append(View(literal));
      done = dollar + 1 + key.size();
      dollar = done - 1;
      break;
    }
  }
  result.append(text.substr(done));
  return result;
}

StringBuffer CodeText(short code, const char16_t* kind) {
  return StringBuffer(std::to_string(code).c_str()) + kind;
}

}  // namespace

XPathExpression::XPathExpression(xercesc::DOMNode* node, const char16_t* expression,
                                 const XPathVariables& variables,
                                 const XPathVariables& namespaces) {
  Initialize(node, expression, variables, namespaces);
}

XPathExpression::XPathExpression(const std::shared_ptr<XmlDocument>& document,
                                 const char16_t* expression, const XPathVariables& variables,
                                 const XPathVariables& namespaces) {
  Initialize(document ? document->DocumentNode() : nullptr, expression, variables, namespaces);
}

XPathExpression::XPathExpression(const XPathExpression& other) = default;
XPathExpression& XPathExpression::operator=(const XPathExpression& other) = default;
XPathExpression::~XPathExpression() = default;

xercesc::DOMNode* XPathExpression::operator[](int index) const {
  if (index < 0 || index >= count_) return nullptr;
  return nodes_[static_cast<std::size_t>(index)];
}

XPathExpression::operator xercesc::DOMElement*() const {
  if (count_ == 0 || nodes_[0]->getNodeType() != xercesc::DOMNode::ELEMENT_NODE) return nullptr;
  return static_cast<xercesc::DOMElement*>(nodes_[0]);
}

StringBuffer XPathExpression::Literal(const char16_t* value) {
  const std::u16string_view text = value ? std::u16string_view(value) : std::u16string_view();
  if (text.empty()) return StringBuffer(u"''");
  const bool apostrophe = text.find(u'\'') != std::u16string_view::npos;
  const bool quote = text.find(u'"') != std::u16string_view::npos;
  std::u16string literal;
  if (!apostrophe) {
    literal.append(u"'").append(text).append(u"'");
  } else if (!quote) {
    literal.append(u"\"").append(text).append(u"\"");
  } else {
    literal.append(u"'");
    for (char16_t c : text) {
      if (c == u'\'') {
        literal.append(u"&apos;");
      } else {
        literal.push_back(c);
      }
    }
    literal.append(u"'");
  }
  return StringBuffer(literal.c_str(), static_cast<int>(literal.size()));
}

namespace {

// The prefixes the document element declares, then the table's bindings, which win on equal
// prefixes: prefixes of the document resolve in expressions over it.
XPathVariables InScopeNamespaces(const xercesc::DOMDocument* document,
                                 const XPathVariables& namespaces) {
  XPathVariables declared;
  const xercesc::DOMElement* root = document->getDocumentElement();
  const xercesc::DOMNamedNodeMap* attributes = root ? root->getAttributes() : nullptr;
  for (XMLSize_t i = 0; attributes && i < attributes->getLength(); ++i) {
    const xercesc::DOMNode* attribute = attributes->item(i);
    const char16_t* prefix = attribute->getPrefix();
    if (prefix && std::u16string_view(prefix) == u"xmlns")
      declared.SetValue(attribute->getLocalName(), attribute->getNodeValue());
  }
  return declared.Count() == 0 ? namespaces : declared + namespaces;
}

}  // namespace

void XPathExpression::Initialize(xercesc::DOMNode* node, const char16_t* expression,
                                 const XPathVariables& variables,
                                 const XPathVariables& namespaces) {
  Globals keep;
  count_ = 0;
  nodes_.clear();
  errorCode_ = StringBuffer();
  errorMessage_ = StringBuffer();
  expression_ = StringBuffer(expression ? expression : u"");

  xercesc::DOMDocument* document = nullptr;
  if (node) {
    document = node->getNodeType() == xercesc::DOMNode::DOCUMENT_NODE
                   ? static_cast<xercesc::DOMDocument*>(node)
                   : node->getOwnerDocument();
  }
  if (!document) {
    errorCode_ = UnknownError;
    errorMessage_ = u"Context node provided is null or not owned by a document.";
    return;
  }

  try {
    const std::u16string text = Substitute(View(expression_), variables);
    expression_ = StringBuffer(text.c_str(), static_cast<int>(text.size()));
    const Detail::XPathConfiguration& limits = *Detail::GlobalsAccess::Configuration();
    if (text.size() > static_cast<std::size_t>(limits.MaxExpressionLength())) {
      Detail::XPath::ThrowInvalidExpression(
          u"FOER0000",
          u"The expression is longer than " +
              Detail::XPath::MessageText(std::to_string(limits.MaxExpressionLength())) +
              u" characters.");
    }
    const Detail::XPath::CompiledExpression compiled(text, InScopeNamespaces(document, namespaces),
                                                     limits.MaxNestingDepth());
    for (const Detail::XPath::Item& item : compiled.Evaluate(node)) {
      if (item.IsNode()) nodes_.push_back(item.node);
    }
    count_ = static_cast<int>(nodes_.size());
  } catch (const xercesc::DOMXPathException& error) {
    nodes_.clear();
    errorCode_ = CodeText(error.code, u" (DOMXPathException)");
    errorMessage_ = error.getMessage();
  } catch (const xercesc::DOMException& error) {
    nodes_.clear();
    errorCode_ = CodeText(error.code, u" (DOMException)");
    errorMessage_ = error.getMessage();
  } catch (const std::exception& error) {
    nodes_.clear();
    errorCode_ = UnknownError;
    errorMessage_ = error.what();
  } catch (...) {
    nodes_.clear();
    errorCode_ = UnknownError;
  }
}

}  // namespace Veskan
