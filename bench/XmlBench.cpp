// XML documents through XmlSchema::NewDoc and XmlSchema::PrintDoc, each beside the raw Xerces-C
// calls it wraps, on generated quiz documents of 1 MiB and 20 MiB. bench/ratios.py turns a run
// into wrapper/raw ratios. LongLivedDocument_Veskan reads and edits one quiz document a million
// times and reports the document's heap before and after as counters.
#include <veskan/ByteBuffer.h>
#include <veskan/Globals.h>
#include <veskan/XmlSchema.h>

#include "CountingMemoryManager.h"

#include <benchmark/benchmark.h>

#include <xercesc/dom/DOM.hpp>
#include <xercesc/framework/MemBufFormatTarget.hpp>
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/framework/MemoryManager.hpp>
#include <xercesc/framework/Wrapper4InputSource.hpp>

#include <unicode/ustring.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

using Veskan::ByteBuffer;
using Veskan::XmlDocument;
using Veskan::XmlSchema;

// Keeps the libraries up for the whole run, as a host does.
Veskan::Globals globals;

// A quiz as the system stores it, at least `bytes` long: questions with a text, answers and
// attributes in the product namespace, mostly ASCII with some accented letters.
const std::string& QuizDocument(std::size_t bytes) {
  static std::map<std::size_t, std::string> documents;
  std::string& text = documents[bytes];
  if (!text.empty()) return text;
  text =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<veskan:quiz xmlns:veskan=\"http://www.calvorco.com/2008/veskan/\" "
      "xmlns:rdf=\"http://www.w3.org/1999/02/22-rdf-syntax-ns#\" rdf:about=\"quiz.1\">\n";
  for (int question = 0; text.size() < bytes; ++question) {
    const std::string number = std::to_string(question);
    text += "  <veskan:question rdf:about=\"question." + number +
            "\" veskan:points=\"3\">\n"
            "    <veskan:text>Quelle est la capitale de la France ? R\xC3\xA9ponse &amp; "
            "explication n\xC2\xB0" +
            number +
            "</veskan:text>\n"
            "    <veskan:answer veskan:correct=\"true\">Paris</veskan:answer>\n"
            "    <veskan:answer>Lyon</veskan:answer>\n"
            "    <veskan:answer>M\xC3\xBCnchen</veskan:answer>\n"
            "  </veskan:question>\n";
  }
  text += "</veskan:quiz>\n";
  return text;
}

ByteBuffer ToBuffer(const std::string& data) {
  return ByteBuffer(reinterpret_cast<const unsigned char*>(data.data()), 0,
                    static_cast<int>(data.size()));
}

xercesc::DOMImplementationLS* RawImplementation() {
  return xercesc::DOMImplementationRegistry::getDOMImplementation(u"LS");
}

void SetBytes(benchmark::State& state, std::size_t bytes) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

// Bytes to a document.
void NewDoc_Veskan(benchmark::State& state) {
  const ByteBuffer bytes = ToBuffer(QuizDocument(static_cast<std::size_t>(state.range(0))));
  for (auto _ : state) {
    std::shared_ptr<XmlDocument> doc = XmlSchema::NewDoc(bytes);
    benchmark::DoNotOptimize(doc->DocumentNode());
  }
  SetBytes(state, static_cast<std::size_t>(bytes.Size()));
}

void NewDoc_XercesRaw(benchmark::State& state) {
  const std::string& bytes = QuizDocument(static_cast<std::size_t>(state.range(0)));
  xercesc::DOMImplementationLS* implementation = RawImplementation();
  for (auto _ : state) {
    xercesc::DOMLSParser* parser =
        implementation->createLSParser(xercesc::DOMImplementationLS::MODE_SYNCHRONOUS, nullptr);
    parser->getDomConfig()->setParameter(u"namespaces", true);
    xercesc::MemBufInputSource source(reinterpret_cast<const XMLByte*>(bytes.data()), bytes.size(),
                                      u"raw");
    xercesc::Wrapper4InputSource input(&source, false);
    benchmark::DoNotOptimize(parser->parse(&input));
    parser->release();
  }
  SetBytes(state, bytes.size());
}

// The raw Xerces calls that printing makes: a pretty-printing serialiser without byte-order mark
// writing UTF-8 into a memory target.
void RawSerialise(xercesc::DOMImplementationLS* implementation, xercesc::DOMNode* node,
                  xercesc::MemBufFormatTarget& target) {
  xercesc::DOMLSSerializer* serialiser = implementation->createLSSerializer();
  serialiser->getDomConfig()->setParameter(u"format-pretty-print", true);
  serialiser->getDomConfig()->setParameter(u"http://apache.org/xml/features/dom/byte-order-mark",
                                           false);
  xercesc::DOMLSOutput* output = implementation->createLSOutput();
  output->setEncoding(u"UTF-8");
  output->setByteStream(&target);
  serialiser->write(node, output);
  output->release();
  serialiser->release();
}

// A document to UTF-16 text: the serialiser's UTF-8, then ICU's conversion.
void PrintDoc_Veskan(benchmark::State& state) {
  const auto doc =
      XmlSchema::NewDoc(ToBuffer(QuizDocument(static_cast<std::size_t>(state.range(0)))));
  std::size_t length = 0;
  for (auto _ : state) {
    Veskan::StringBuffer text = XmlSchema::PrintDoc(doc);
    length = static_cast<std::size_t>(text.length());
    benchmark::DoNotOptimize(text);
  }
  SetBytes(state, length);
}

// The same two raw calls: serialise into a memory target, convert with ICU.
void PrintDoc_XercesIcuRaw(benchmark::State& state) {
  const auto doc =
      XmlSchema::NewDoc(ToBuffer(QuizDocument(static_cast<std::size_t>(state.range(0)))));
  xercesc::DOMImplementationLS* implementation = RawImplementation();
  std::size_t length = 0;
  for (auto _ : state) {
    xercesc::MemBufFormatTarget target(1023);
    RawSerialise(implementation, doc->DocumentNode(), target);
    std::u16string text(target.getLen(), u'\0');
    int32_t written = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strFromUTF8(text.data(), static_cast<int32_t>(text.size()), &written,
                  reinterpret_cast<const char*>(target.getRawBuffer()),
                  static_cast<int32_t>(target.getLen()), &status);
    text.resize(static_cast<std::size_t>(written));
    length = text.size();
    benchmark::DoNotOptimize(text);
  }
  SetBytes(state, length);
}

// A document to UTF-8 bytes.
void PrintDocUTF8_Veskan(benchmark::State& state) {
  const auto doc =
      XmlSchema::NewDoc(ToBuffer(QuizDocument(static_cast<std::size_t>(state.range(0)))));
  std::size_t length = 0;
  for (auto _ : state) {
    ByteBuffer bytes = XmlSchema::PrintDocUTF8(doc);
    length = static_cast<std::size_t>(bytes.Size());
    benchmark::DoNotOptimize(bytes);
  }
  SetBytes(state, length);
}

void PrintDocUTF8_XercesRaw(benchmark::State& state) {
  const auto doc =
      XmlSchema::NewDoc(ToBuffer(QuizDocument(static_cast<std::size_t>(state.range(0)))));
  xercesc::DOMImplementationLS* implementation = RawImplementation();
  std::size_t length = 0;
  for (auto _ : state) {
    xercesc::MemBufFormatTarget target(1023);
    RawSerialise(implementation, doc->DocumentNode(), target);
    length = target.getLen();
    benchmark::DoNotOptimize(target.getRawBuffer());
  }
  SetBytes(state, length);
}

using Veskan::Testing::CountingMemoryManager;

// `bytes` parsed as the library parses, its heap drawn from `memory`, in an owning XmlDocument.
std::shared_ptr<XmlDocument> ParseWith(const std::string& bytes, xercesc::MemoryManager& memory) {
  xercesc::DOMLSParser* parser = RawImplementation()->createLSParser(
      xercesc::DOMImplementationLS::MODE_SYNCHRONOUS, nullptr, &memory);
  parser->getDomConfig()->setParameter(u"namespaces", true);
  xercesc::MemBufInputSource source(reinterpret_cast<const XMLByte*>(bytes.data()), bytes.size(),
                                    u"long-lived");
  xercesc::Wrapper4InputSource input(&source, false);
  xercesc::DOMDocument* document = parser->parse(&input);
  return std::make_shared<XmlDocument>(document, parser, true);
}

// A quiz kept open for a lesson: every iteration is one read or one edit through XmlSchema,
// cycling through the operations that a lesson makes on its document (values change, nodes move;
// no element is added for good).
void LongLivedDocument_Veskan(benchmark::State& state) {
  constexpr const char16_t* Quiz = u"http://www.calvorco.com/2008/veskan/";
  CountingMemoryManager memory;
  const auto doc = ParseWith(QuizDocument(4096), memory);
  const Veskan::XmlElementList questions =
      XmlSchema::GetElementsByTagName(XmlSchema::DocumentElement(doc), u"question", Quiz);
  for (xercesc::DOMElement* question : questions)
    XmlSchema::GetElement(question, u"veskan:note", Veskan::Namespaces::Defaults);
  const std::size_t before = memory.Outstanding();

  const char16_t* const texts[] = {u"Paris", u"Lyon et Marseille", u"M\u00fcnchen"};
  std::size_t step = 0;
  for (auto _ : state) {
    xercesc::DOMElement* question = questions[static_cast<int>(step / 13 % questions.Count())];
    xercesc::DOMElement* answer = XmlSchema::FindElement(question, u"answer", Quiz);
    xercesc::DOMElement* note = XmlSchema::FindElement(question, u"note", Quiz);
    const char16_t* text = texts[step % 3];
    switch (step % 13) {
      case 0:
        benchmark::DoNotOptimize(XmlSchema::GetTextContent(answer));
        break;
      case 1:
        benchmark::DoNotOptimize(
            XmlSchema::GetAttribute(question, u"about", Veskan::Namespaces::Uri::RDF));
        break;
      case 2:
        XmlSchema::SetAttribute(question, u"veskan:points", step % 2 ? u"3" : u"4");
        break;
      case 3:
        XmlSchema::SetTextContent(note, text);
        break;
      case 4: {
        Veskan::XmlElementList answers = XmlSchema::GetElementsByTagName(question, u"answer", Quiz);
        XmlSchema::SortElementsByTextContent(answers);
        break;
      }
      case 5:
        benchmark::DoNotOptimize(XmlSchema::Randomize(questions, u"lesson-7"));
        break;
      case 6:
        XmlSchema::SetCDATA(note, text);
        break;
      case 7:
        XmlSchema::SetAttribute(note, u"state", text);
        XmlSchema::CreateText(note, text);
        XmlSchema::RemoveAllChildrenAndAttributes(note);
        break;
      case 8: {
        // RemoveChild hands the node to the caller, who puts it back.
        xercesc::DOMElement* last = XmlSchema::LastChildElement(question);
        XmlSchema::AppendChild(question, XmlSchema::RemoveChild(last));
        break;
      }
      case 9: {
        // ReplaceChild swaps two answers; the replaced one goes back where the other was.
        xercesc::DOMElement* second = XmlSchema::NextElement(answer);
        xercesc::DOMNode* after = XmlSchema::NextSibling(second);
        XmlSchema::RemoveChild(second);
        XmlSchema::ReplaceChild(answer, second);
        XmlSchema::InsertChild(question, answer, after);
        break;
      }
      case 10: {
        Veskan::XmlElementList answers = XmlSchema::GetElementsByTagName(question, u"answer", Quiz);
        XmlSchema::SortElementsByAttributeValue(answers, u"correct", Quiz);
        break;
      }
      case 11:
        benchmark::DoNotOptimize(XmlSchema::GetTextContent(question));
        break;
      default:
        benchmark::DoNotOptimize(XmlSchema::FindElementWithAttributeValue(
            question, u"veskan:answer", u"veskan:correct", u"true"));
        break;
    }
    ++step;
  }
  state.counters["DocumentBytesBefore"] = static_cast<double>(before);
  state.counters["DocumentBytesAfter"] = static_cast<double>(memory.Outstanding());
}

constexpr int64_t OneMiB = 1 << 20;
constexpr int64_t TwentyMiB = 20 << 20;

BENCHMARK(NewDoc_Veskan)->Arg(OneMiB)->Arg(TwentyMiB)->Unit(benchmark::kMillisecond);
BENCHMARK(NewDoc_XercesRaw)->Arg(OneMiB)->Arg(TwentyMiB)->Unit(benchmark::kMillisecond);
BENCHMARK(PrintDoc_Veskan)->Arg(OneMiB)->Arg(TwentyMiB)->Unit(benchmark::kMillisecond);
BENCHMARK(PrintDoc_XercesIcuRaw)->Arg(OneMiB)->Arg(TwentyMiB)->Unit(benchmark::kMillisecond);
BENCHMARK(PrintDocUTF8_Veskan)->Arg(OneMiB)->Arg(TwentyMiB)->Unit(benchmark::kMillisecond);
BENCHMARK(PrintDocUTF8_XercesRaw)->Arg(OneMiB)->Arg(TwentyMiB)->Unit(benchmark::kMillisecond);
BENCHMARK(LongLivedDocument_Veskan)->Iterations(1000000)->Unit(benchmark::kNanosecond);

}  // namespace

BENCHMARK_MAIN();
