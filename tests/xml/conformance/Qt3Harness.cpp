// Runs the W3C QT3 tests that apply to an XPath 2.0 processor against the library's engine and
// prints pass, fail and not-applicable counts per test set.
//
//   veskan_qt3 QT3_FOLDER [--set NAME] [--failures] [--minimum PASSES]
//
// A test applies when its own and its test set's spec dependencies (when present) name XP20 or
// XP20+, and it needs none of schema awareness, static typing, schema import or validation, the
// XPath 1.0 compatibility mode, other collations than the codepoint one, collections, or another
// Unicode version or normalization form than the engine's. Each test set runs in a child
// process, each test under a time limit: a test that crashes or hangs fails, and the next one
// goes on in a new child. A test that expects an error passes only when the error's code appears
// in the engine's message. A test whose environment the harness cannot give the engine (a
// collection, a resource, a collation) fails. With --failures, each failing test is printed.
// With --minimum, the exit status is 1 when fewer tests pass.
#include <veskan/ByteBuffer.h>
#include <veskan/Globals.h>
#include <veskan/XmlSchema.h>

#include "xml/xpath/XPathEvaluator.h"
#include "xml/xpath/XPathNodes.h"
#include "xml/xpath/XPathValue.h"

#include <unicode/uchar.h>
#include <xercesc/dom/DOMError.hpp>
#include <xercesc/dom/DOMErrorHandler.hpp>
#include <xercesc/dom/DOMException.hpp>
#include <xercesc/dom/DOMImplementationRegistry.hpp>
#include <xercesc/dom/DOMLSParser.hpp>
#include <xercesc/dom/DOMNamedNodeMap.hpp>
#include <xercesc/util/XMLException.hpp>
#include <xercesc/util/XMLUni.hpp>

#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace Veskan {
namespace {

using xercesc::DOMElement;
using xercesc::DOMNode;
namespace XP = Detail::XPath;

constexpr unsigned TestSeconds = 10;

std::string Utf8(const std::u16string& text) {
  return StringBuffer(text.c_str(), static_cast<int>(text.size())).ToUTF8();
}
std::u16string Text(const StringBuffer& text) {
  return std::u16string(text.getBuffer(), static_cast<std::size_t>(text.length()));
}
std::u16string Attribute(const DOMElement* element, const char16_t* name) {
  const char16_t* value = element->getAttribute(name);
  return value ? value : u"";
}
std::u16string Local(const DOMNode* node) {
  return node->getLocalName() ? node->getLocalName() : u"";
}
std::vector<DOMElement*> Children(const DOMNode* node, const char16_t* name = nullptr) {
  std::vector<DOMElement*> children;
  for (DOMNode* child = node->getFirstChild(); child; child = child->getNextSibling())
    if (child->getNodeType() == DOMNode::ELEMENT_NODE && (!name || Local(child) == name))
      children.push_back(static_cast<DOMElement*>(child));
  return children;
}
std::string Folder(const std::string& file) {
  const std::size_t slash = file.rfind('/');
  return slash == std::string::npos ? "." : file.substr(0, slash);
}

// Stops a parse at its first error.
class StopOnError : public xercesc::DOMErrorHandler {
 public:
  bool handleError(const xercesc::DOMError& error) override {
    failed |= error.getSeverity() != xercesc::DOMError::DOM_SEVERITY_WARNING;
    return !failed;
  }
  bool failed = false;
};

// The document at `path`, or null when it does not parse. The library's parser refuses every
// DTD, as it must for documents from outside; the suite's documents are trusted, so this parser
// reads an internal DTD subset (its ID and IDREF attribute types, its entities and defaults) but
// still never loads an external entity. The document URI is the file's URI.
std::shared_ptr<XmlDocument> Load(const std::string& path) {
  xercesc::DOMImplementation* implementation =
      xercesc::DOMImplementationRegistry::getDOMImplementation(u"LS");
  xercesc::DOMLSParser* parser =
      implementation->createLSParser(xercesc::DOMImplementationLS::MODE_SYNCHRONOUS, nullptr);
  xercesc::DOMConfiguration* configuration = parser->getDomConfig();
  StopOnError errors;
  configuration->setParameter(xercesc::XMLUni::fgDOMErrorHandler,
                              static_cast<xercesc::DOMErrorHandler*>(&errors));
  configuration->setParameter(xercesc::XMLUni::fgDOMNamespaces, true);
  configuration->setParameter(xercesc::XMLUni::fgDOMEntities, false);  // expanded in place
  configuration->setParameter(xercesc::XMLUni::fgXercesLoadExternalDTD, false);
  configuration->setParameter(xercesc::XMLUni::fgXercesDisableDefaultEntityResolution, true);
  configuration->setParameter(xercesc::XMLUni::fgXercesDOMHasPSVIInfo, true);  // attribute types
  xercesc::DOMDocument* document = nullptr;
  try {
    document = parser->parseURI(StringBuffer(path.c_str()).c_str());
  } catch (const std::exception&) {
  } catch (const xercesc::XMLException&) {
  } catch (const xercesc::DOMException&) {
  }
  configuration->setParameter(xercesc::XMLUni::fgDOMErrorHandler,
                              static_cast<const void*>(nullptr));
  if (!document || errors.failed) {  // a partial tree is no document
    parser->release();
    return nullptr;
  }
  char absolute[PATH_MAX];
  if (realpath(path.c_str(), absolute)) {
    document->setDocumentURI(StringBuffer((std::string("file://") + absolute).c_str()).c_str());
  }
  return std::make_shared<XmlDocument>(document, parser, true);
}

std::vector<std::u16string> Tokens(const std::u16string& text) {
  std::vector<std::u16string> tokens;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find(u' ', start);
    if (end == std::u16string::npos) end = text.size();
    if (end > start) tokens.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return tokens;
}

// Whether the dependencies of a test set or test case let it apply. A dependency with
// satisfied="false" asks for a processor that lacks what it names.
bool Applies(const DOMElement* owner) {
  // Optional features the engine lacks: schema awareness, static typing, the XPath 1.0 mode,
  // collations other than the codepoint one, and collections (it knows none).
  static const std::set<std::u16string> unsupported = {u"schemaImport",
                                                       u"schemaValidation",
                                                       u"schemaAware",
                                                       u"staticTyping",
                                                       u"typedData",
                                                       u"xpath-1.0-compatibility",
                                                       u"non_unicode_codepoint_collation",
                                                       u"non_empty_sequence_collection",
                                                       u"directory-as-collection-uri"};
  static const std::set<std::u16string> normalizationForms = {u"NFC", u"NFD", u"NFKC", u"NFKD"};
  for (const DOMElement* dependency : Children(owner, u"dependency")) {
    const std::u16string type = Attribute(dependency, u"type");
    const std::u16string value = Attribute(dependency, u"value");
    const bool satisfied = Attribute(dependency, u"satisfied") != u"false";
    if (type == u"spec") {
      bool named = false;
      for (const std::u16string& token : Tokens(value))
        named |= token == u"XP20" || token == u"XP20+";
      if (!named) return false;
    } else if (type == u"feature" && satisfied) {
      for (const std::u16string& token : Tokens(value))
        if (unsupported.count(token)) return false;
    } else if ((type == u"xsd-version" || type == u"xml-version") && satisfied) {
      // XML Schema 1.0 and XML 1.0 rules hold.
      if (value.find(u"1.1") != std::u16string::npos) return false;
    } else if (type == u"unicode-normalization-form") {
      if ((normalizationForms.count(value) != 0) != satisfied) return false;
    } else if (type == u"unicode-version") {
      // Character properties and case mappings are ICU's, of its Unicode version.
      if ((Utf8(value) == U_UNICODE_VERSION) != satisfied) return false;
    }
  }
  return true;
}

// What a test runs against: the context document, the prefixes, and the variables (parameters
// and documents bound to names); `missing` names what the environment needs that the harness
// cannot give the engine (collations, resources, a context item of another kind), if anything.
struct Environment {
  std::shared_ptr<XmlDocument> context;
  std::vector<std::pair<std::u16string, std::u16string>> namespaces;
  std::vector<std::pair<std::u16string, std::shared_ptr<XmlDocument>>> documents;
  std::vector<std::pair<std::u16string, std::u16string>> parameters;  // name, select expression
  std::string missing;
  bool needsSchema = false;  // validated sources: only a schema-aware processor runs the test
};

Environment Read(const DOMElement* definition, const std::string& folder) {
  Environment environment;
  for (const DOMElement* part : Children(definition)) {
    const std::u16string kind = Local(part);
    if (kind == u"source") {
      const std::u16string role = Attribute(part, u"role");
      auto document = Load(folder + "/" + Utf8(Attribute(part, u"file")));
      // A source without a role is only there for doc(), which may be tested on a bad one.
      if (!document && !role.empty()) {
        environment.missing = "source " + Utf8(Attribute(part, u"file"));
      }
      if (role == u".") {
        environment.context = document;
      } else if (!role.empty() && role[0] == u'$') {
        environment.documents.emplace_back(role.substr(1), document);
      }
      if (Attribute(part, u"validation") == u"strict") environment.needsSchema = true;
    } else if (kind == u"namespace") {
      environment.namespaces.emplace_back(Attribute(part, u"prefix"), Attribute(part, u"uri"));
    } else if (kind == u"param") {
      const std::u16string select = Attribute(part, u"select");
      if (select.empty()) environment.missing = "param without select";
      environment.parameters.emplace_back(Attribute(part, u"name"), select);
    } else if (kind != u"description" && kind != u"created" && kind != u"modified" &&
               kind != u"schema" && kind != u"static-base-uri") {
      environment.missing = Utf8(kind);  // collations, resources, decimal formats, ...
    }
  }
  return environment;
}

struct Outcome {
  XP::Sequence result;
  std::u16string error;  // the engine's message when it failed
  bool failed = false;
};

XPathVariables Prefixes(const Environment& environment) {
  XPathVariables table = Namespaces::Defaults;
  table.SetValue(u"xs", u"http://www.w3.org/2001/XMLSchema");
  table.SetValue(u"err", u"http://www.w3.org/2005/xqt-errors");
  for (const auto& [prefix, uri] : environment.namespaces)
    table.SetValue(prefix.c_str(), uri.c_str());
  return table;
}

// Evaluates `expression` in `environment`, with `extra` variables beside the environment's.
Outcome Evaluate(const std::u16string& expression, const Environment& environment,
                 DOMNode* fallbackContext,
                 const std::vector<std::pair<std::u16string, XP::Sequence>>& extra = {}) {
  Outcome outcome;
  try {
    const XPathVariables prefixes = Prefixes(environment);
    std::vector<std::u16string> names;
    std::vector<XP::Sequence> values;
    for (const auto& [name, select] : environment.parameters) {
      names.push_back(name);
      values.push_back(XP::CompiledExpression(select, prefixes).Evaluate(nullptr));
    }
    for (const auto& [name, document] : environment.documents) {
      names.push_back(name);
      values.push_back({XP::Item::OfNode(document->DocumentNode())});
    }
    for (const auto& [name, value] : extra) {
      names.push_back(name);
      values.push_back(value);
    }
    const XP::CompiledExpression compiled(expression, prefixes, 256, names);
    outcome.result = compiled.Evaluate(
        environment.context ? environment.context->DocumentNode() : fallbackContext, values);
  } catch (const xercesc::DOMXPathException& error) {
    outcome.failed = true;
    outcome.error = error.getMessage() ? error.getMessage() : u"";
  } catch (const std::exception& error) {
    outcome.failed = true;
    outcome.error = Text(StringBuffer(error.what()));
  }
  return outcome;
}

std::u16string StringValue(const XP::Sequence& sequence) {
  std::u16string text;
  for (std::size_t i = 0; i < sequence.size(); ++i) {
    if (i) text += u' ';
    text += XP::ToString(sequence[i]);
  }
  return text;
}

std::u16string Normalized(const std::u16string& text) {
  std::u16string out;
  bool space = false;
  for (const char16_t c : text) {
    if (c == u' ' || c == u'\t' || c == u'\n' || c == u'\r') {
      space = !out.empty();
      continue;
    }
    if (space) out += u' ';
    space = false;
    out += c;
  }
  return out;
}

// eq between the items of two results (NaN equal to NaN), or the same node.
bool SameItem(const XP::Item& a, const XP::Item& b) {
  if (a.IsNode() || b.IsNode()) return a.IsNode() && b.IsNode() && a.node == b.node;
  if (a.IsNumeric() && b.IsNumeric() && std::isnan(XP::ToDouble(a)) && std::isnan(XP::ToDouble(b)))
    return true;
  try {
    return XP::ValueCompare(XP::Operator::ValueEqual, a, b, XP::ComparisonContext{});
  } catch (const xercesc::DOMXPathException&) {
    return false;
  }
}

// Nodes compared by their XML: names, attributes in any order, children with adjacent text
// joined and whitespace-only text between elements ignored.
bool SameXml(const DOMNode* a, const DOMNode* b);

std::vector<const DOMNode*> Content(const DOMNode* node) {
  std::vector<const DOMNode*> children;
  for (const DOMNode* child = node->getFirstChild(); child; child = child->getNextSibling()) {
    const auto type = child->getNodeType();
    if (type == DOMNode::TEXT_NODE || type == DOMNode::CDATA_SECTION_NODE) {
      if (XP::TrimSpace(child->getNodeValue()).empty()) continue;
    }
    children.push_back(child);
  }
  return children;
}

bool SameXml(const DOMNode* a, const DOMNode* b) {
  if (a->getNodeType() != b->getNodeType()) {
    const auto text = [](const DOMNode* n) {
      return n->getNodeType() == DOMNode::TEXT_NODE ||
             n->getNodeType() == DOMNode::CDATA_SECTION_NODE;
    };
    if (!(text(a) && text(b))) return false;
  }
  if (XP::View(a->getLocalName()) != XP::View(b->getLocalName()) ||
      XP::View(a->getNamespaceURI()) != XP::View(b->getNamespaceURI())) {
    return false;
  }
  if (a->getNodeType() != DOMNode::ELEMENT_NODE && a->getNodeType() != DOMNode::DOCUMENT_NODE &&
      a->getNodeType() != DOMNode::DOCUMENT_FRAGMENT_NODE) {
    return XP::View(a->getNodeValue()) == XP::View(b->getNodeValue()) &&
           XP::View(a->getNodeName()) == XP::View(b->getNodeName());
  }
  if (a->getNodeType() == DOMNode::ELEMENT_NODE) {
    auto attributes = [](const DOMNode* element) {
      std::map<std::pair<std::u16string, std::u16string>, std::u16string> map;
      const xercesc::DOMNamedNodeMap* list = element->getAttributes();
      for (XMLSize_t i = 0; i < list->getLength(); ++i) {
        const DOMNode* attribute = list->item(i);
        if (XP::IsNamespaceDeclaration(attribute)) continue;
        map[{std::u16string(XP::View(attribute->getNamespaceURI())),
             std::u16string(XP::View(attribute->getLocalName()))}] =
            std::u16string(XP::View(attribute->getNodeValue()));
      }
      return map;
    };
    if (attributes(a) != attributes(b)) return false;
  }
  const auto left = Content(a);
  const auto right = Content(b);
  if (left.size() != right.size()) return false;
  for (std::size_t i = 0; i < left.size(); ++i)
    if (!SameXml(left[i], right[i])) return false;
  return true;
}

// The result as XML text: nodes serialized, runs of atomic values joined by spaces.
std::u16string ResultXml(const XP::Sequence& result) {
  std::u16string text;
  bool previousAtomic = false;
  for (const XP::Item& item : result) {
    if (item.IsNode()) {
      const auto type = item.node->getNodeType();
      if (type == DOMNode::ATTRIBUTE_NODE) return u"\x01";  // attributes have no XML form
      if (type == DOMNode::DOCUMENT_NODE) {
        for (DOMNode* child = item.node->getFirstChild(); child; child = child->getNextSibling())
          text += Text(XmlSchema::PrintElement(child));
      } else {
        text += Text(XmlSchema::PrintElement(item.node));
      }
      previousAtomic = false;
    } else {
      if (previousAtomic) text += u' ';
      text += Text(SafeForXml(XP::ToString(item).c_str()));
      previousAtomic = true;
    }
  }
  return text;
}

bool SameXmlText(const std::u16string& actual, const std::u16string& expected) {
  const auto a = XmlSchema::NewDoc((u"<w>" + actual + u"</w>").c_str());
  const auto b = XmlSchema::NewDoc((u"<w>" + expected + u"</w>").c_str());
  return a && b && a->DocumentNode() && b->DocumentNode() &&
         SameXml(a->DocumentNode()->getDocumentElement(), b->DocumentNode()->getDocumentElement());
}

// Judges one assertion of a result (see the suite's guide/running.html).
class Judge {
 public:
  Judge(const Outcome& outcome, DOMNode* empty, std::string folder)
      : outcome_(outcome), empty_(empty), folder_(std::move(folder)) {}

  bool operator()(const DOMElement* assertion) const {
    const std::u16string kind = Local(assertion);
    const std::u16string text = Text(XmlSchema::GetTextContent(assertion));
    if (kind == u"any-of") {
      for (const DOMElement* part : Children(assertion))
        if ((*this)(part)) return true;
      return false;
    }
    if (kind == u"all-of") {
      for (const DOMElement* part : Children(assertion))
        if (!(*this)(part)) return false;
      return true;
    }
    if (kind == u"not") return !(*this)(Children(assertion).at(0));
    if (kind == u"error") {
      const std::u16string code = Attribute(assertion, u"code");
      return outcome_.failed && (code == u"*" || outcome_.error.find(code) != std::u16string::npos);
    }
    if (outcome_.failed) return false;
    const XP::Sequence& result = outcome_.result;
    if (kind == u"assert-true" || kind == u"assert-false") {
      return result.size() == 1 && result[0].type == XP::Type::Boolean &&
             result[0].boolean == (kind == u"assert-true");
    }
    if (kind == u"assert-empty") return result.empty();
    if (kind == u"assert-count") return result.size() == std::stoul(Utf8(text));
    if (kind == u"assert-string-value") {
      const bool normalize = Attribute(assertion, u"normalize-space") == u"true";
      return normalize ? Normalized(StringValue(result)) == Normalized(text)
                       : StringValue(result) == text;
    }
    if (kind == u"assert-type" || kind == u"assert") {
      const std::u16string test = kind == u"assert" ? text : u"$result instance of " + text;
      const Outcome check = Evaluate(test, Environment{}, empty_, {{u"result", result}});
      try {
        return !check.failed && XP::EffectiveBoolean(check.result);
      } catch (const xercesc::DOMXPathException&) {
        return false;
      }
    }
    if (kind == u"assert-xml") {
      std::u16string expected = text;
      if (const std::u16string file = Attribute(assertion, u"file"); !file.empty()) {
        expected = Text(
            UTF8to16(BytesFromFile(StringBuffer((folder_ + "/" + Utf8(file)).c_str()).c_str())));
      }
      return SameXmlText(ResultXml(result), expected);
    }
    if (kind == u"assert-eq" || kind == u"assert-deep-eq" || kind == u"assert-permutation") {
      const Outcome expected = Evaluate(text, Environment{}, empty_);
      if (expected.failed) return false;
      if (kind == u"assert-eq") {
        // eq compares the typed value of a node.
        return result.size() == 1 && expected.result.size() == 1 &&
               SameItem(XP::Atomize(result[0]), expected.result[0]);
      }
      if (result.size() != expected.result.size()) return false;
      if (kind == u"assert-deep-eq") {
        for (std::size_t i = 0; i < result.size(); ++i)
          if (!SameItem(result[i], expected.result[i])) return false;
        return true;
      }
      std::vector<bool> used(expected.result.size(), false);
      for (const XP::Item& item : result) {
        bool matched = false;
        for (std::size_t j = 0; j < used.size() && !matched; ++j)
          if (!used[j] && SameItem(item, expected.result[j])) used[j] = matched = true;
        if (!matched) return false;
      }
      return true;
    }
    return false;  // assert-serialization-error and others: not judged, so not passed
  }

 private:
  const Outcome& outcome_;
  DOMNode* empty_;
  std::string folder_;
};

enum class Verdict : char { Pass = 'P', Fail = 'F', NotApplicable = 'N' };

// One test case of a set.
struct Case {
  const DOMElement* element;
  std::string name;
};

// Runs the cases from `first` on, writing "<P|F|N> name" lines to `out`; "S name" before each.
void RunCases(const std::vector<Case>& cases, std::size_t first, const DOMElement* set,
              const std::map<std::u16string, Environment>& environments, const std::string& folder,
              bool details, FILE* out) {
  const auto empty = XmlSchema::NewDoc(u"<empty/>");
  for (std::size_t i = first; i < cases.size(); ++i) {
    const DOMElement* testCase = cases[i].element;
    std::fprintf(out, "S %s\n", cases[i].name.c_str());
    std::fflush(out);
    alarm(TestSeconds);
    Verdict verdict = Verdict::Fail;
    if (!Applies(set) || !Applies(testCase)) {
      verdict = Verdict::NotApplicable;
    } else {
      Environment environment;
      for (const DOMElement* reference : Children(testCase, u"environment")) {
        const std::u16string ref = Attribute(reference, u"ref");
        if (ref.empty()) {
          environment = Read(reference, folder);
        } else if (const auto found = environments.find(ref); found != environments.end()) {
          environment = found->second;
        } else {
          environment.missing = "environment " + Utf8(ref);
        }
      }
      const auto tests = Children(testCase, u"test");
      const auto results = Children(testCase, u"result");
      if (environment.needsSchema) {
        verdict = Verdict::NotApplicable;
      } else if (!environment.missing.empty() || tests.size() != 1 || results.size() != 1) {
        if (details) {
          std::printf("  %s\n    not run: %s\n", cases[i].name.c_str(),
                      environment.missing.empty() ? "not one test and one result"
                                                  : environment.missing.c_str());
          std::fflush(stdout);
        }
      } else {
        std::u16string expression = Text(XmlSchema::GetTextContent(tests[0]));
        if (const std::u16string file = Attribute(tests[0], u"file"); !file.empty()) {
          const ByteBuffer bytes =
              BytesFromFile(StringBuffer((folder + "/" + Utf8(file)).c_str()).c_str());
          expression = Text(UTF8to16(bytes));
        }
        const Outcome outcome = Evaluate(expression, environment, nullptr);
        const auto assertions = Children(results[0]);
        if (!assertions.empty() && Judge(outcome, empty->DocumentNode(), folder)(assertions[0]))
          verdict = Verdict::Pass;
        if (verdict == Verdict::Fail && details) {
          std::string got;
          if (outcome.failed) {
            got = "error " + Utf8(outcome.error);
          } else {
            for (const XP::Item& item : outcome.result)
              got += (got.empty() ? "" : ", ") + Utf8(XP::TypeLabel(item)) + " " +
                     Utf8(XP::ToString(item)).substr(0, 200);
            got = "(" + got + ")";
          }
          std::printf(
              "  %s\n    expression: %s\n    expected: %s\n    got: %s\n", cases[i].name.c_str(),
              Utf8(expression).substr(0, 400).c_str(),
              assertions.empty()
                  ? ""
                  : Utf8(Text(XmlSchema::PrintElement(assertions[0]))).substr(0, 400).c_str(),
              got.c_str());
          std::fflush(stdout);
        }
      }
    }
    alarm(0);
    std::fprintf(out, "%c %s\n", static_cast<char>(verdict), cases[i].name.c_str());
    std::fflush(out);
  }
}

struct Counts {
  int pass = 0, fail = 0, notApplicable = 0;
};

// Runs a test set in child processes; a child that dies fails the test it was on.
Counts RunSet(const std::string& file, const std::map<std::u16string, Environment>& shared,
              bool showFailures) {
  Counts counts;
  const auto document = Load(file);
  if (!document) return counts;
  const DOMElement* set = document->DocumentNode()->getDocumentElement();
  const std::string folder = Folder(file);
  std::map<std::u16string, Environment> environments = shared;
  for (const DOMElement* environment : Children(set, u"environment"))
    environments[Attribute(environment, u"name")] = Read(environment, folder);
  std::vector<Case> cases;
  for (const DOMElement* testCase : Children(set, u"test-case"))
    cases.push_back({testCase, Utf8(Attribute(testCase, u"name"))});

  std::size_t next = 0;
  while (next < cases.size()) {
    int channel[2];
    if (pipe(channel) != 0) break;
    // The child inherits unwritten output: write it first, so that it is not written twice.
    std::cout.flush();
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
      close(channel[0]);
      FILE* out = fdopen(channel[1], "w");
      RunCases(cases, next, set, environments, folder, showFailures, out);
      std::fclose(out);
      _exit(0);
    }
    close(channel[1]);
    FILE* in = fdopen(channel[0], "r");
    std::string started;
    char line[4096];
    while (std::fgets(line, sizeof line, in)) {
      std::string text(line);
      if (!text.empty() && text.back() == '\n') text.pop_back();
      if (text.size() < 2) continue;
      const std::string name = text.substr(2);
      if (text[0] == 'S') {
        started = name;
        continue;
      }
      started.clear();
      ++next;
      if (text[0] == 'P') ++counts.pass;
      if (text[0] == 'N') ++counts.notApplicable;
      if (text[0] == 'F') {
        ++counts.fail;
      }
    }
    std::fclose(in);
    int status = 0;
    waitpid(child, &status, 0);
    if (!started.empty()) {
      // The child died on this test (a crash, or the time limit): it fails, the rest go on.
      ++counts.fail;
      ++next;
      if (showFailures) std::cout << "  fail " << started << " (crashed or timed out)\n";
    } else if (!(WIFEXITED(status) && WEXITSTATUS(status) == 0)) {
      break;
    }
  }
  return counts;
}

}  // namespace
}  // namespace Veskan

int main(int argc, char** argv) {
  using namespace Veskan;
  if (argc < 2) {
    std::cerr << "usage: veskan_qt3 QT3_FOLDER [--set NAME] [--failures] [--minimum PASSES]\n";
    return 2;
  }
  const std::string root = argv[1];
  std::string only;
  bool failures = false;
  long minimum = -1;
  for (int i = 2; i < argc; ++i) {
    const std::string option = argv[i];
    if (option == "--set" && i + 1 < argc)
      only = argv[++i];
    else if (option == "--failures")
      failures = true;
    else if (option == "--minimum" && i + 1 < argc)
      minimum = std::atol(argv[++i]);
  }
  Globals globals;
  const auto catalog = Load(root + "/catalog.xml");
  if (!catalog) {
    std::cerr << "veskan_qt3: cannot read " << root << "/catalog.xml\n";
    return 2;
  }
  std::map<std::u16string, Environment> environments;
  for (const DOMElement* environment :
       Children(catalog->DocumentNode()->getDocumentElement(), u"environment"))
    environments[Attribute(environment, u"name")] = Read(environment, root);
  Counts total;
  for (const DOMElement* set :
       Children(catalog->DocumentNode()->getDocumentElement(), u"test-set")) {
    const std::string name = Utf8(Attribute(set, u"name"));
    if (!only.empty() && name != only) continue;
    const Counts counts =
        RunSet(root + "/" + Utf8(Attribute(set, u"file")), environments, failures);
    total.pass += counts.pass;
    total.fail += counts.fail;
    total.notApplicable += counts.notApplicable;
    std::cout << name << " pass " << counts.pass << " fail " << counts.fail << " n/a "
              << counts.notApplicable << "\n";
  }
  const int applicable = total.pass + total.fail;
  std::cout << "total pass " << total.pass << " fail " << total.fail << " n/a "
            << total.notApplicable << " (" << (applicable ? 100.0 * total.pass / applicable : 0)
            << "% of " << applicable << " applicable)\n";
  return minimum >= 0 && total.pass < minimum ? 1 : 0;
}
