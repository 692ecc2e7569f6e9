// The XPath engine against libxml2: every expression of tests/data/xpath/cases.txt, evaluated
// over the documents beside it, must give the result libxml2's xmllint gave
// (tools/xpath-corpus/generate.py writes the corpus and documents its format), unless
// tests/data/xpath/xpath2.txt lists it among the expressions XPath 2.0 answers differently.
//
// Nodes are identified by the path libxml2's xmlGetNodePath writes for them:
//   "/" for the document; "/name", "/prefix:name", or "*" for an element in a default namespace;
//   "text()" for text and CDATA nodes alike, "comment()", "processing-instruction('target')";
//   "/@name" or "/@prefix:name" for an attribute. A step gets "[n]" (n from 1) only when its
//   parent has several children it could mean: elements of the same local name that are both in
//   no namespace or both prefixed with the same prefix (every element, for "*"), text and CDATA
//   nodes, comments, processing instructions of the same target.
// The order of the attributes of one element is not defined, so within a result a run of
// attributes of the same element compares as a set.
#include "xml/xpath/XPathEvaluator.h"

#include <veskan/ByteBuffer.h>
#include <veskan/Globals.h>
#include <veskan/StringBuffer.h>
#include <veskan/XPathVariables.h>
#include <veskan/XmlSchema.h>

#include <gtest/gtest.h>
#include <xercesc/dom/DOM.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace Veskan {
namespace Detail {
namespace XPath {
namespace {

const Globals globals;

constexpr char CorpusDirectory[] = VESKAN_XPATH_CORPUS;
constexpr std::size_t MinimumCases = 300;
constexpr int PrintedFailures = 50;

// ---- Text

std::u16string Utf16(const std::string& utf8) {
  const StringBuffer text = UTF8to16(utf8.c_str(), 0, static_cast<int>(utf8.size()));
  return std::u16string(text.getBuffer(), static_cast<std::size_t>(text.length()));
}

std::string Utf8(const char16_t* text, std::size_t length) {
  return StringBuffer(text, static_cast<int>(length)).ToUTF8();
}

std::string Utf8(const std::u16string& text) {
  return Utf8(text.data(), text.size());
}

std::string Utf8(const XMLCh* text) {
  return text ? Utf8(text, std::char_traits<char16_t>::length(text)) : std::string();
}

// The corpus' escapes: backslash, n, r, t.
bool Unescape(const std::string& text, std::string& out) {
  out.clear();
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      out += text[i];
      continue;
    }
    if (++i == text.size()) return false;
    switch (text[i]) {
      case '\\':
        out += '\\';
        break;
      case 'n':
        out += '\n';
        break;
      case 'r':
        out += '\r';
        break;
      case 't':
        out += '\t';
        break;
      default:
        return false;
    }
  }
  return true;
}

// A string for a message: quoted, with control characters escaped.
std::string Quoted(const std::string& utf8) {
  std::string out = "\"";
  for (const char c : utf8) {
    switch (c) {
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      default:
        out += c;
    }
  }
  return out + "\"";
}

// ---- The corpus

enum class Kind { Nodes, Number, String, Boolean };

struct Case {
  std::string document;
  int line = 0;
  std::string expression;  // UTF-8, unescaped
  Kind kind = Kind::Nodes;
  std::string value;               // number, string (unescaped) or boolean text
  std::vector<std::string> nodes;  // node paths, for Kind::Nodes
};

std::string ReadFile(const std::string& path, bool& ok) {
  std::ifstream stream(path, std::ios::binary);
  ok = static_cast<bool>(stream);
  return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

// Parses cases.txt; a malformed line ends the parse with a message in `error`.
std::vector<Case> ParseCases(const std::string& text, std::string& error) {
  std::vector<Case> cases;
  std::istringstream stream(text);
  std::string line;
  int number = 0;
  bool inCase = false;
  std::size_t pendingNodes = 0;
  const auto fail = [&](const std::string& why) {
    error = "cases.txt line " + std::to_string(number) + ": " + why + ": " + line;
  };
  bool haveResult = false;
  const auto complete = [&]() {
    return !cases.back().expression.empty() && haveResult && pendingNodes == 0;
  };
  while (std::getline(stream, line)) {
    ++number;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!line.empty() && line[0] == '#') continue;
    if (line.empty()) {
      if (inCase && !complete()) {
        fail("incomplete case");
        return {};
      }
      inCase = false;
      continue;
    }
    const std::size_t space = line.find(' ');
    const std::string key = line.substr(0, space);
    const std::string rest = space == std::string::npos ? std::string() : line.substr(space + 1);
    if (key == "case") {
      if (inCase) {
        fail("case without an empty line before it");
        return {};
      }
      cases.emplace_back();
      cases.back().document = rest;
      cases.back().line = number;
      inCase = true;
      haveResult = false;
      continue;
    }
    if (!inCase) {
      fail("line outside a case");
      return {};
    }
    Case& current = cases.back();
    if (key == "expr" && current.expression.empty() && !haveResult) {
      if (!Unescape(rest, current.expression) || current.expression.empty()) {
        fail("bad expression");
        return {};
      }
    } else if (key == "node" && haveResult && current.kind == Kind::Nodes && pendingNodes > 0) {
      current.nodes.push_back(rest);
      --pendingNodes;
    } else if (!haveResult && !current.expression.empty() &&
               (key == "nodes" || key == "number" || key == "string" || key == "boolean")) {
      haveResult = true;
      if (key == "nodes") {
        current.kind = Kind::Nodes;
        char* end = nullptr;
        const unsigned long count = std::strtoul(rest.c_str(), &end, 10);
        if (rest.empty() || *end != '\0') {
          fail("bad node count");
          return {};
        }
        pendingNodes = count;
      } else if (key == "number") {
        current.kind = Kind::Number;
        current.value = rest;
      } else if (key == "boolean") {
        current.kind = Kind::Boolean;
        current.value = rest;
        if (rest != "true" && rest != "false") {
          fail("bad boolean");
          return {};
        }
      } else {
        current.kind = Kind::String;
        if (!Unescape(rest, current.value)) {
          fail("bad string");
          return {};
        }
      }
    } else {
      fail("unexpected line");
      return {};
    }
  }
  if (inCase && !complete()) {
    fail("incomplete last case");
    return {};
  }
  return cases;
}

bool ParseNumber(const std::string& text, double& value) {
  if (text == "NaN") {
    value = std::nan("");
    return true;
  }
  if (text == "Infinity" || text == "-Infinity") {
    value = text[0] == '-' ? -HUGE_VAL : HUGE_VAL;
    return true;
  }
  char* end = nullptr;
  value = std::strtod(text.c_str(), &end);
  return !text.empty() && *end == '\0' && std::isfinite(value);
}

bool SameNumber(double expected, double actual) {
  if (std::isnan(expected) || std::isnan(actual)) return std::isnan(expected) == std::isnan(actual);
  if (std::isinf(expected) || std::isinf(actual)) return expected == actual;
  return std::fabs(expected - actual) <= 1e-12 * std::max(std::fabs(expected), std::fabs(actual));
}

// ---- Node paths (libxml2's xmlGetNodePath)

constexpr char16_t XmlnsUri[] = u"http://www.w3.org/2000/xmlns/";

bool Same(const XMLCh* a, const XMLCh* b) {
  if (!a || !b) return a == b;
  return std::char_traits<char16_t>::compare(a, b, std::char_traits<char16_t>::length(a) + 1) == 0;
}

bool HasNamespace(const xercesc::DOMNode* node) {
  const XMLCh* uri = node->getNamespaceURI();
  return uri && *uri;
}

const XMLCh* LocalName(const xercesc::DOMNode* node) {
  return node->getLocalName() ? node->getLocalName() : node->getNodeName();
}

bool IsText(const xercesc::DOMNode* node) {
  return node->getNodeType() == xercesc::DOMNode::TEXT_NODE ||
         node->getNodeType() == xercesc::DOMNode::CDATA_SECTION_NODE;
}

// Whether `other` is a sibling the step of `node` could mean too.
bool Rivals(const xercesc::DOMNode* node, const xercesc::DOMNode* other) {
  switch (node->getNodeType()) {
    case xercesc::DOMNode::ELEMENT_NODE:
      if (other->getNodeType() != xercesc::DOMNode::ELEMENT_NODE) return false;
      if (HasNamespace(node) && !node->getPrefix()) return true;  // written "*"
      if (!Same(LocalName(node), LocalName(other))) return false;
      if (!HasNamespace(node)) return !HasNamespace(other);
      return HasNamespace(other) && other->getPrefix() &&
             Same(node->getPrefix(), other->getPrefix());
    case xercesc::DOMNode::TEXT_NODE:
    case xercesc::DOMNode::CDATA_SECTION_NODE:
      return IsText(other);
    case xercesc::DOMNode::COMMENT_NODE:
      return other->getNodeType() == xercesc::DOMNode::COMMENT_NODE;
    case xercesc::DOMNode::PROCESSING_INSTRUCTION_NODE:
      return other->getNodeType() == xercesc::DOMNode::PROCESSING_INSTRUCTION_NODE &&
             Same(node->getNodeName(), other->getNodeName());
    default:
      return false;
  }
}

std::string QualifiedName(const xercesc::DOMNode* node) {
  if (HasNamespace(node) && node->getPrefix())
    return Utf8(node->getPrefix()) + ":" + Utf8(LocalName(node));
  return Utf8(LocalName(node));
}

std::string NodePath(const xercesc::DOMNode* node) {
  if (!node) return "(null)";
  switch (node->getNodeType()) {
    case xercesc::DOMNode::DOCUMENT_NODE:
      return "/";
    case xercesc::DOMNode::ATTRIBUTE_NODE: {
      const auto* owner = static_cast<const xercesc::DOMAttr*>(node)->getOwnerElement();
      return (owner ? NodePath(owner) : std::string("(detached)")) + "/@" + QualifiedName(node);
    }
    default:
      break;
  }
  std::string step;
  switch (node->getNodeType()) {
    case xercesc::DOMNode::ELEMENT_NODE:
      step = HasNamespace(node) && !node->getPrefix() ? "*" : QualifiedName(node);
      break;
    case xercesc::DOMNode::TEXT_NODE:
    case xercesc::DOMNode::CDATA_SECTION_NODE:
      step = "text()";
      break;
    case xercesc::DOMNode::COMMENT_NODE:
      step = "comment()";
      break;
    case xercesc::DOMNode::PROCESSING_INSTRUCTION_NODE:
      step = "processing-instruction('" + Utf8(node->getNodeName()) + "')";
      break;
    default:
      step = "(node type " + std::to_string(node->getNodeType()) + ")";
  }
  int before = 0;
  for (const xercesc::DOMNode* sibling = node->getPreviousSibling(); sibling;
       sibling = sibling->getPreviousSibling())
    before += Rivals(node, sibling) ? 1 : 0;
  bool after = false;
  for (const xercesc::DOMNode* sibling = node->getNextSibling(); sibling && !after;
       sibling = sibling->getNextSibling())
    after = Rivals(node, sibling);
  if (before > 0 || after) step += "[" + std::to_string(before + 1) + "]";
  const xercesc::DOMNode* parent = node->getParentNode();
  if (!parent) return "(detached)/" + step;
  const std::string prefix = NodePath(parent);
  return (prefix == "/" ? std::string() : prefix) + "/" + step;
}

// Every node of the tree under `node` (attributes after their element, xmlns ones left out).
void CollectNodes(xercesc::DOMNode* node, std::vector<xercesc::DOMNode*>& out) {
  out.push_back(node);
  if (const xercesc::DOMNamedNodeMap* attributes = node->getAttributes()) {
    for (XMLSize_t i = 0; i < attributes->getLength(); ++i) {
      xercesc::DOMNode* attribute = attributes->item(i);
      if (!Same(attribute->getNamespaceURI(), XmlnsUri)) out.push_back(attribute);
    }
  }
  for (xercesc::DOMNode* child = node->getFirstChild(); child; child = child->getNextSibling())
    CollectNodes(child, out);
}

// Sorts each run of attributes of one element, whose order is not defined.
void SortAttributeRuns(std::vector<std::string>& paths) {
  const auto owner = [](const std::string& path) {
    const std::size_t at = path.rfind("/@");
    return at == std::string::npos ? std::string() : path.substr(0, at + 1);
  };
  for (std::size_t start = 0; start < paths.size();) {
    std::size_t end = start + 1;
    const std::string first = owner(paths[start]);
    while (!first.empty() && end < paths.size() && owner(paths[end]) == first)
      ++end;
    std::sort(paths.begin() + static_cast<std::ptrdiff_t>(start),
              paths.begin() + static_cast<std::ptrdiff_t>(end));
    start = end;
  }
}

// ---- The test

class XPathDifferentialTest : public ::testing::Test {
 protected:
  void SetUp() override {
    bool ok = false;
    const std::string text = ReadFile(Directory() + "/cases.txt", ok);
    ASSERT_TRUE(ok) << "cannot read " << Directory() << "/cases.txt";
    std::string error;
    cases_ = ParseCases(text, error);
    ASSERT_TRUE(error.empty()) << error;
    ASSERT_GE(cases_.size(), MinimumCases) << "the corpus is too small";
    for (const Case& c : cases_) {
      if (documents_.count(c.document)) continue;
      const std::string bytes = ReadFile(Directory() + "/" + c.document, ok);
      ASSERT_TRUE(ok) << "cannot read " << c.document << " (cases.txt line " << c.line << ")";
      ASSERT_FALSE(bytes.empty()) << c.document;
      auto document = XmlSchema::NewDoc(ByteBuffer(
          reinterpret_cast<const unsigned char*>(bytes.data()), 0, static_cast<int>(bytes.size())));
      ASSERT_TRUE(document && document->DocumentNode()) << c.document << " does not parse";
      documents_[c.document] = document;
    }
  }

  static std::string Directory() { return CorpusDirectory; }

  xercesc::DOMDocument* Document(const Case& c) {
    return documents_.at(c.document)->DocumentNode();
  }

  std::vector<Case> cases_;
  std::map<std::string, std::shared_ptr<XmlDocument>> documents_;
};

std::string Describe(const Case& c) {
  std::ostringstream out;
  switch (c.kind) {
    case Kind::Nodes:
      out << "nodes " << c.nodes.size() << ":";
      for (const std::string& path : c.nodes)
        out << " " << path;
      break;
    case Kind::Number:
      out << "number " << c.value;
      break;
    case Kind::String:
      out << "string " << Quoted(c.value);
      break;
    case Kind::Boolean:
      out << "boolean " << c.value;
      break;
  }
  return out.str();
}

std::string Describe(const Sequence& result) {
  std::ostringstream out;
  const bool allNodes =
      std::all_of(result.begin(), result.end(), [](const Item& item) { return item.IsNode(); });
  if (allNodes) {
    out << "nodes " << result.size() << ":";
    for (const Item& item : result)
      out << " " << NodePath(item.node);
    return out.str();
  }
  out << "sequence of " << result.size() << ":";
  for (const Item& item : result) {
    if (item.IsNode()) {
      out << " node " << NodePath(item.node);
    } else {
      out << " " << Utf8(TypeLabel(item)) << " " << Quoted(Utf8(ToString(item)));
    }
  }
  return out.str();
}

// Whether `result` is what `c` expects.
bool Matches(const Case& c, const Sequence& result) {
  if (c.kind == Kind::Nodes) {
    std::vector<std::string> actual;
    for (const Item& item : result) {
      if (!item.IsNode()) return false;
      actual.push_back(NodePath(item.node));
    }
    std::vector<std::string> expected = c.nodes;
    SortAttributeRuns(expected);
    SortAttributeRuns(actual);
    return actual == expected;
  }
  if (result.size() != 1) return false;
  const Item& item = result[0];
  switch (c.kind) {
    case Kind::Number: {
      double expected = 0;
      return item.IsNumeric() && ParseNumber(c.value, expected) &&
             SameNumber(expected, ToDouble(item));
    }
    case Kind::String:
      return (IsStringType(item.type) || item.type == Type::AnyUri ||
              item.type == Type::UntypedAtomic) &&
             item.string == Utf16(c.value);
    case Kind::Boolean:
      return item.type == Type::Boolean && item.boolean == (c.value == "true");
    default:
      return false;
  }
}

// The paths the corpus names are those this test computes: each names exactly one node of its
// document, so a difference in a node-set result is the engine's.
TEST_F(XPathDifferentialTest, CorpusPathsNameOneNodeEach) {
  std::map<std::string, std::map<std::string, int>> pathsByDocument;
  for (const auto& entry : documents_) {
    std::vector<xercesc::DOMNode*> nodes;
    CollectNodes(entry.second->DocumentNode(), nodes);
    std::map<std::string, int>& paths = pathsByDocument[entry.first];
    for (const xercesc::DOMNode* node : nodes)
      ++paths[NodePath(node)];
    for (const auto& path : paths)
      EXPECT_EQ(path.second, 1) << entry.first << ": several nodes with the path " << path.first;
  }
  std::size_t checked = 0;
  for (const Case& c : cases_) {
    for (const std::string& path : c.nodes) {
      ++checked;
      EXPECT_EQ(pathsByDocument[c.document].count(path), 1u)
          << c.document << " has no node " << path << " (cases.txt line " << c.line << ")";
    }
  }
  EXPECT_GT(checked, MinimumCases);
}

// Where XPath 2.0 answers differently from XPath 1.0: "document<TAB>expression" to the outcome
// (see xpath2.txt).
std::map<std::string, std::string> ReadDifferences() {
  bool ok = false;
  const std::string text = ReadFile(std::string(CorpusDirectory) + "/xpath2.txt", ok);
  EXPECT_TRUE(ok) << "cannot read " << CorpusDirectory << "/xpath2.txt";
  std::map<std::string, std::string> differences;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.empty() || line[0] == '#') continue;
    const std::size_t outcome = line.rfind('\t');
    differences[line.substr(0, outcome)] = line.substr(outcome + 1);
  }
  return differences;
}

// The outcome as xpath2.txt writes it: "error CODE" or the result described.
std::string Outcome(const XPathError& error) {
  const std::string message = Utf8(error.getMessage());
  return "error " + message.substr(0, message.find(':'));
}

TEST_F(XPathDifferentialTest, ResultsAgreeWithLibxml2) {
  const XPathVariables namespaces(u"p", u"urn:p", u"q", u"urn:q", u"d", u"urn:d", nullptr);
  const std::map<std::string, std::string> differences = ReadDifferences();
  std::map<Kind, std::size_t> kinds;
  std::size_t differing = 0;
  int failures = 0;
  for (const Case& c : cases_) {
    ++kinds[c.kind];
    const auto difference = differences.find(c.document + "\t" + c.expression);
    std::string actual;
    bool ok = false;
    try {
      const CompiledExpression expression(Utf16(c.expression), namespaces);
      const Sequence result = expression.Evaluate(Document(c));
      actual = Describe(result);
      ok = difference == differences.end() ? Matches(c, result) : actual == difference->second;
    } catch (const XPathError& e) {
      actual = Outcome(e);
      ok = difference != differences.end() && actual == difference->second;
    } catch (const std::exception& e) {
      actual = std::string("exception: ") + e.what();
    }
    differing += difference != differences.end();
    if (ok) continue;
    if (++failures <= PrintedFailures) {
      ADD_FAILURE() << c.document << " (cases.txt line " << c.line << "): " << c.expression
                    << "\n  expected: "
                    << (difference == differences.end() ? Describe(c) : difference->second)
                    << "\n  actual:   " << actual;
    }
  }
  EXPECT_EQ(failures, 0) << failures << " of " << cases_.size() << " cases differ from libxml2"
                         << (failures > PrintedFailures
                                 ? " (the first " + std::to_string(PrintedFailures) + " are shown)"
                                 : std::string());
  // Every listed difference is a case of the corpus: a stale entry would check nothing.
  EXPECT_EQ(differing, differences.size());
  // Every kind of result is in the corpus, so a reader that lost one would show here.
  for (const Kind kind : {Kind::Nodes, Kind::Number, Kind::String, Kind::Boolean})
    EXPECT_GE(kinds[kind], 50u) << "few cases of result kind " << static_cast<int>(kind);
}

}  // namespace
}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan
