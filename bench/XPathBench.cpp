// The XPath engine beside libxml2's XPath on the same generated quiz of 100,000 elements: a
// lookup by xml:id, a descendant path with predicates, and count(//*). Each case compiles and
// evaluates its expression every iteration, on both sides, as a host does. bench/ratios.py turns
// a run into engine/libxml2 ratios.
#include <veskan/Globals.h>
#include <veskan/XPathExpression.h>
#include <veskan/XmlSchema.h>

#include "xml/xpath/XPathEvaluator.h"

#include <benchmark/benchmark.h>

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace {

using Veskan::XmlSchema;

Veskan::Globals globals;

constexpr int Questions = 20000;  // 5 elements each: 100,000 elements and the root
const std::string LastId = "q" + std::to_string(Questions - 1);

const std::string& QuizText() {
  static const std::string text = [] {
    std::string out = "<quiz xmlns:veskan=\"http://www.calvorco.com/2008/veskan/\">\n";
    for (int i = 0; i < Questions; ++i) {
      const std::string n = std::to_string(i);
      out += " <question xml:id=\"q" + n + "\" points=\"" + std::to_string(i % 5) +
             "\">\n  <text>Question " + n +
             "</text>\n  <answer correct=\"true\">A</answer>\n  <answer>B</answer>\n"
             "  <veskan:hint>H</veskan:hint>\n </question>\n";
    }
    return out + "</quiz>\n";
  }();
  return text;
}

const std::shared_ptr<Veskan::XmlDocument>& XercesQuiz() {
  static const auto doc = XmlSchema::NewDoc(
      Veskan::ByteBuffer(reinterpret_cast<const unsigned char*>(QuizText().data()), 0,
                         static_cast<int>(QuizText().size())));
  return doc;
}

xmlDocPtr LibxmlQuiz() {
  static const std::unique_ptr<xmlDoc, void (*)(xmlDocPtr)> doc(
      xmlReadMemory(QuizText().data(), static_cast<int>(QuizText().size()), "quiz.xml", nullptr,
                    XML_PARSE_NONET),
      xmlFreeDoc);
  return doc.get();
}

const xmlChar* Xml(const char* text) {
  return reinterpret_cast<const xmlChar*>(text);
}

// One libxml2 evaluation as a host would make it: a fresh context, the prefixes registered, the
// expression compiled and evaluated. Returns the node count or the number.
double Libxml2Evaluate(const char* expression) {
  std::unique_ptr<xmlXPathContext, void (*)(xmlXPathContextPtr)> context(
      xmlXPathNewContext(LibxmlQuiz()), xmlXPathFreeContext);
  xmlXPathRegisterNs(context.get(), Xml("veskan"), Xml("http://www.calvorco.com/2008/veskan/"));
  std::unique_ptr<xmlXPathObject, void (*)(xmlXPathObjectPtr)> result(
      xmlXPathEvalExpression(Xml(expression), context.get()), xmlXPathFreeObject);
  if (!result) throw std::runtime_error("libxml2 refused the expression");
  if (result->type == XPATH_NUMBER) return result->floatval;
  return result->nodesetval ? result->nodesetval->nodeNr : 0;
}

const char16_t* const PathExpression =
    u"//question[@points > 2]/answer[@correct = 'true'][following-sibling::veskan:hint]";
const char* const PathExpressionUtf8 =
    "//question[@points > 2]/answer[@correct = 'true'][following-sibling::veskan:hint]";

void CheckCount(benchmark::State& state, double count, double expected) {
  if (count != expected) state.SkipWithError("wrong result");
}

void ById_Veskan(benchmark::State& state) {
  const std::u16string id(LastId.begin(), LastId.end());
  const Veskan::XPathVariables variables(u"id", id.c_str(), nullptr);
  for (auto _ : state) {
    Veskan::XPathExpression expression(XercesQuiz(), u"//*[@xml:id = $id]", variables);
    CheckCount(state, expression.Count(), 1);
  }
}

void ById_Libxml2Raw(benchmark::State& state) {
  const std::string expression = "//*[@xml:id = '" + LastId + "']";
  for (auto _ : state)
    CheckCount(state, Libxml2Evaluate(expression.c_str()), 1);
}

void Path_Veskan(benchmark::State& state) {
  for (auto _ : state) {
    Veskan::XPathExpression expression(XercesQuiz(), PathExpression);
    CheckCount(state, expression.Count(), Questions * 2 / 5);
  }
}

void Path_Libxml2Raw(benchmark::State& state) {
  for (auto _ : state)
    CheckCount(state, Libxml2Evaluate(PathExpressionUtf8), Questions * 2 / 5);
}

// A number result: through the engine's own interface, as XPathExpression keeps nodes only.
void Count_Veskan(benchmark::State& state) {
  for (auto _ : state) {
    const Veskan::Detail::XPath::CompiledExpression expression(u"count(//*)",
                                                               Veskan::Namespaces::Defaults);
    const auto result = expression.Evaluate(XercesQuiz()->DocumentNode());
    CheckCount(state, Veskan::Detail::XPath::ToDouble(result.at(0)), Questions * 5 + 1);
  }
}

void Count_Libxml2Raw(benchmark::State& state) {
  for (auto _ : state)
    CheckCount(state, Libxml2Evaluate("count(//*)"), Questions * 5 + 1);
}

BENCHMARK(ById_Veskan)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(ById_Libxml2Raw)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(Path_Veskan)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(Path_Libxml2Raw)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(Count_Veskan)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(Count_Libxml2Raw)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  // Both documents are parsed before any case is timed.
  XercesQuiz();
  LibxmlQuiz();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
