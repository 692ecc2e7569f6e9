// Fuzzes the XPath evaluator over a few fixed documents: any expression either fails with the
// engine's own error or evaluates, with node results of paths and set operators in document order
// without duplicates, the same result on a second evaluation (unless it reads the clock), and the
// same nodes through the public XPathExpression, which never throws.
#include "xml/xpath/XPathEvaluator.h"

#include "FuzzInput.h"

#include <veskan/Globals.h>
#include <veskan/XPathExpression.h>
#include <veskan/XPathVariables.h>
#include <veskan/XmlSchema.h>

#include <xercesc/dom/DOMDocument.hpp>
#include <xercesc/dom/DOMElement.hpp>
#include <xercesc/dom/DOMNamedNodeMap.hpp>

#include <cstdio>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <vector>

using namespace Veskan;
using namespace Veskan::Detail::XPath;

namespace {

// Longer expressions only repeat what shorter ones reach, at a cost that hides the rest.
constexpr std::size_t MaxUnits = 2000;

// Namespaces in and out of scope, the default namespace, xml:id and xml:lang at two levels, text
// split by CDATA, comments and processing instructions, and numbers in several spellings.
constexpr char16_t QuizText[] =
    u"<?xml version=\"1.0\"?>"
    u"<!--head--><?top first?>"
    u"<root xmlns:p=\"urn:p\" xml:lang=\"en\" id=\"r\">"
    u"<item xml:id=\"i1\" n=\"3\" p:k=\"a\">one<b>bold</b> tail</item>\n"
    u"<item xml:id=\"i2\" n=\"-1.5\" xml:lang=\"de-CH\"><![CDATA[<raw> & data]]>"
    u"<!--note--><?pi x y?>after</item>"
    u"<p:item p:n=\"7\">12<p:sub/><p:sub n=\"0\"/></p:item>"
    u"<group xmlns=\"urn:default\"><inner n=\"NaN\">  4  </inner><inner n=\"1e3\"/></group>"
    u"<nums><v>1</v><v>2.5</v><v>10</v><v>-0</v><v>abc</v><v/><v> 7 </v></nums>"
    u"</root>";

// Depth, repeated names at every level and whitespace-only text between elements.
constexpr char16_t TreeText[] =
    u"<a x=\"1\">\n"
    u"  <a x=\"2\"><a x=\"3\"><b>t1</b><b>t2</b><a x=\"4\"><b/></a></a></a>\n"
    u"  <b x=\"5\" y=\"b\">  <c>1</c><c>2</c><c>3</c>  </b>\n"
    u"  <c xmlns:q=\"urn:p\"><q:d q:x=\"6\"/><d xmlns=\"urn:p\"/></c>\n"
    u"</a>";

constexpr char16_t TinyText[] = u"<p:e xmlns:p=\"urn:p\" p:a=\"\"/>";

struct Fixture {
  Globals globals;
  // xs: reaches the constructor functions, casts and sequence types of the typed values.
  XPathVariables namespaces{u"p",   u"urn:p",
                            u"fn",  FunctionsNamespace.data(),
                            u"xs",  u"http://www.w3.org/2001/XMLSchema",
                            nullptr};
  std::shared_ptr<XmlDocument> quiz = XmlSchema::NewDoc(QuizText);
  std::shared_ptr<XmlDocument> tree = XmlSchema::NewDoc(TreeText);
  std::shared_ptr<XmlDocument> tiny = XmlSchema::NewDoc(TinyText);
  // Each document node, an element deep in its tree and attribute nodes (xml:id among them).
  std::vector<xercesc::DOMNode*> contexts;

  Fixture() {
    Fuzzing::Require(quiz && quiz->DocumentNode() && tree && tree->DocumentNode() && tiny &&
                     tiny->DocumentNode());
    contexts.push_back(quiz->DocumentNode());
    xercesc::DOMElement* item = quiz->DocumentNode()->getDocumentElement()->getFirstElementChild();
    Fuzzing::Require(item != nullptr);
    contexts.push_back(item->getNextElementSibling());
    xercesc::DOMNode* id = item->getAttributes()->getNamedItem(u"xml:id");
    Fuzzing::Require(id != nullptr);
    contexts.push_back(id);
    contexts.push_back(tree->DocumentNode());
    xercesc::DOMElement* deep = tree->DocumentNode()->getDocumentElement()->getFirstElementChild();
    Fuzzing::Require(deep != nullptr && deep->getFirstElementChild() != nullptr);
    contexts.push_back(deep->getFirstElementChild());
    contexts.push_back(tiny->DocumentNode());
    xercesc::DOMNode* empty =
        tiny->DocumentNode()->getDocumentElement()->getAttributes()->getNamedItem(u"p:a");
    Fuzzing::Require(empty != nullptr);
    contexts.push_back(empty);
  }
};

Fixture& Documents() {
  static Fixture fixture;
  return fixture;
}

// Nodes by identity, atomic values by type and text: equal renderings mean equal results.
std::u16string Render(const Sequence& sequence) {
  std::u16string out;
  for (const Item& item : sequence) {
    if (item.IsNode()) {
      out += u'N';
      out += MessageText(std::to_string(reinterpret_cast<std::uintptr_t>(item.node)));
    } else {
      out += TypeLabel(item);
      out += u':';
      out += ToString(item);
    }
    out += u';';
  }
  return out;
}

// Paths and the set operators return their nodes sorted, each once.
bool ReturnsNodeSet(const Node& tree) {
  if (tree.kind == NodeKind::Path) return true;
  return tree.kind == NodeKind::Binary &&
         (tree.op == Operator::Union || tree.op == Operator::Intersect ||
          tree.op == Operator::Except);
}

// Whether the expression reads the clock: current-dateTime() and its kin are fixed within one
// evaluation only, so two evaluations may differ.
bool ReadsClock(const Node& tree) {
  if (tree.kind == NodeKind::Call && tree.name.local.compare(0, 8, u"current-") == 0) return true;
  for (const auto& child : tree.children) {
    if (ReadsClock(*child)) return true;
  }
  for (const auto& predicate : tree.predicates) {
    if (ReadsClock(*predicate)) return true;
  }
  return false;
}

void CheckDocumentOrder(const Sequence& result) {
  DocumentOrder order;
  const xercesc::DOMNode* previous = nullptr;
  for (const Item& item : result) {
    if (!item.IsNode()) continue;
    Fuzzing::Require(item.node != nullptr);
    if (previous) Fuzzing::Require(order.Before(previous, item.node));
    previous = item.node;
  }
}

// The nodes of `result` in their order.
std::vector<xercesc::DOMNode*> NodesOf(const Sequence& result) {
  std::vector<xercesc::DOMNode*> nodes;
  for (const Item& item : result) {
    if (item.IsNode()) nodes.push_back(item.node);
  }
  return nodes;
}

void Fuzz(std::u16string_view text) {
  Fixture& documents = Documents();
  std::unique_ptr<CompiledExpression> compiled;
  try {
    compiled = std::make_unique<CompiledExpression>(text, documents.namespaces);
  } catch (const XPathError&) {
    return;
  }
  // What compiled must parse on its own.
  const std::unique_ptr<Node> tree = Parse(text);
  const bool nodeSet = ReturnsNodeSet(*tree);
  const bool stable = !ReadsClock(*tree);

  bool documentResult = false;
  std::vector<xercesc::DOMNode*> documentNodes;
  for (xercesc::DOMNode* context : documents.contexts) {
    Sequence first;
    try {
      first = compiled->Evaluate(context);
    } catch (const XPathError&) {
      continue;
    }
    if (nodeSet) CheckDocumentOrder(first);
    Sequence second;
    try {
      second = compiled->Evaluate(context);
    } catch (const XPathError&) {
      std::abort();  // the first evaluation succeeded
    }
    if (stable) Fuzzing::Require(Render(first) == Render(second));
    if (context == documents.quiz->DocumentNode()) {
      documentResult = true;
      documentNodes = NodesOf(first);
    }
  }

  // The public interface sees the text up to its first NUL and substitutes no variables here.
  const std::u16string terminated(text);
  const XPathExpression expression(documents.quiz, terminated.c_str(), XPathVariables::Empty,
                                   documents.namespaces);
  Fuzzing::Require(expression.Count() >= 0);
  for (int i = 0; i < expression.Count(); ++i)
    Fuzzing::Require(expression[i] != nullptr);
  Fuzzing::Require(expression[expression.Count()] == nullptr);
  const bool whole = terminated.find(u'\0') == std::u16string::npos;
  if (whole && documentResult && expression.ErrorCode().length() == 0) {
    for (int i = 0; i < expression.Count(); ++i) {
      Fuzzing::Require(static_cast<std::size_t>(i) < documentNodes.size() &&
                       expression[i] == documentNodes[static_cast<std::size_t>(i)]);
    }
    Fuzzing::Require(static_cast<std::size_t>(expression.Count()) == documentNodes.size());
  }
  if (whole && !documentResult) Fuzzing::Require(expression.Count() == 0);

  // Variables are bound by text; a value holding both quotes takes the escaped form.
  static const XPathVariables variables(u"v", u"it's \"quoted\"", u"n", u"3", nullptr);
  const XPathExpression substituted(documents.quiz, terminated.c_str(), variables,
                                    documents.namespaces);
  for (int i = 0; i < substituted.Count(); ++i)
    Fuzzing::Require(substituted[i] != nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const StringBuffer text = Fuzzing::Utf16(data, size & ~static_cast<std::size_t>(1));
  const std::size_t length = static_cast<std::size_t>(text.length());
  if (length > MaxUnits) return 0;
  try {
    Fuzz(std::u16string_view(text.getBuffer(), length));
  } catch (const std::bad_alloc&) {
    // A result too large to build is the input's cost, not a fault.
  } catch (const std::exception& error) {
    std::fprintf(stderr, "escaped: %s\n", error.what());
    std::abort();
  }
  return 0;
}
