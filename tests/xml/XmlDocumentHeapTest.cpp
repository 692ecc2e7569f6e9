// A document kept open for a whole lesson is read and edited over and over: its heap must stay the
// size it has once every kind of read and edit has run. Xerces' DOM documents never give memory
// back to the system before they are freed, so every read that allocated in the document's heap
// and every removed node that nobody released would make it grow without end.
#include <veskan/Globals.h>
#include <veskan/XmlSchema.h>

#include "CountingMemoryManager.h"

#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/framework/MemoryManager.hpp>
#include <xercesc/framework/Wrapper4InputSource.hpp>
#include <xercesc/util/PlatformUtils.hpp>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <vector>

namespace Veskan {
namespace {

constexpr char16_t Quiz[] = u"http://www.calvorco.com/2008/veskan/";

using Testing::CountingMemoryManager;

const std::string QuizText =
    "<veskan:quiz xmlns:veskan=\"http://www.calvorco.com/2008/veskan/\" "
    "xmlns:rdf=\"http://www.w3.org/1999/02/22-rdf-syntax-ns#\" "
    "xmlns:xml=\"http://www.w3.org/XML/1998/namespace\" rdf:about=\"quiz.1\">"
    "<veskan:question rdf:about=\"page.1\" xml:id=\"q1\" veskan:points=\"3\">"
    "<veskan:text>Quelle est la capitale de la France ? <b>R\xC3\xA9ponse</b> &amp; "
    "explication<!-- not text --><?pi not text?></veskan:text>"
    "<veskan:answer veskan:correct=\"true\">Paris</veskan:answer>"
    "<veskan:answer>Lyon</veskan:answer><veskan:answer>M\xC3\xBCnchen</veskan:answer>"
    "<veskan:note/></veskan:question>"
    "<veskan:question rdf:about=\"question.2\" xml:id=\"q2\">"
    "<veskan:randomization>http://www.calvorco.com/2008/veskan/randomization#"
    "must-include-group-with-page</veskan:randomization>"
    "<veskan:pageref>1</veskan:pageref><veskan:pageposition>2</veskan:pageposition>"
    "<veskan:text><![CDATA[2 < 3]]></veskan:text>"
    "<veskan:answer>oui</veskan:answer><veskan:answer>non</veskan:answer></veskan:question>"
    "<veskan:question rdf:about=\"question.3\" xml:id=\"q3\">"
    "<veskan:randomization>http://www.calvorco.com/2008/veskan/randomization#may-omit"
    "</veskan:randomization><veskan:text>Trois</veskan:text></veskan:question>"
    "</veskan:quiz>";

// A quiz document parsed as the library parses, with its heap drawn from `memory`.
std::shared_ptr<XmlDocument> ParseWith(xercesc::MemoryManager& memory) {
  Globals globals;
  xercesc::DOMImplementationLS* implementation =
      xercesc::DOMImplementationRegistry::getDOMImplementation(u"LS");
  xercesc::DOMLSParser* parser = implementation->createLSParser(
      xercesc::DOMImplementationLS::MODE_SYNCHRONOUS, nullptr, &memory);
  parser->getDomConfig()->setParameter(u"namespaces", true);
  xercesc::MemBufInputSource source(reinterpret_cast<const XMLByte*>(QuizText.data()),
                                    QuizText.size(), u"quiz");
  xercesc::Wrapper4InputSource input(&source, false);
  xercesc::DOMDocument* document = parser->parse(&input);
  return std::make_shared<XmlDocument>(document, parser, true);
}

struct Lesson {
  std::shared_ptr<XmlDocument> doc;
  xercesc::DOMElement* quiz;
  xercesc::DOMElement* first;
  xercesc::DOMElement* text;
  xercesc::DOMElement* note;
  XmlElementList questions;
  XmlElementList answers;
};

Lesson Open(xercesc::MemoryManager& memory) {
  Lesson lesson;
  lesson.doc = ParseWith(memory);
  lesson.quiz = XmlSchema::DocumentElement(lesson.doc);
  lesson.questions = XmlSchema::GetAllChildElements(lesson.quiz);
  lesson.first = lesson.questions[0];
  lesson.text = XmlSchema::FindElement(lesson.first, u"text", Quiz);
  lesson.note = XmlSchema::FindElement(lesson.first, u"note", Quiz);
  lesson.answers = XmlSchema::GetElementsByTagName(lesson.first, u"answer", Quiz);
  return lesson;
}

struct Operation {
  const char* name;
  std::function<void(Lesson&, int round)> run;
};

// Every reading and editing operation of XmlSchema that a lesson makes, each checking its result.
const std::vector<Operation>& Operations() {
  static const std::vector<Operation> operations{
      {"GetTextContent of mixed content",
       [](Lesson& lesson, int) {
         EXPECT_EQ(XmlSchema::GetTextContent(lesson.text),
                   u"Quelle est la capitale de la France ? R\u00e9ponse & explication");
       }},
      {"GetTextContent of a CDATA element",
       [](Lesson& lesson, int) {
         EXPECT_EQ(
             XmlSchema::GetTextContent(XmlSchema::FindElement(lesson.questions[1], u"text", Quiz)),
             u"2 < 3");
       }},
      {"GetAttribute",
       [](Lesson& lesson, int) {
         EXPECT_EQ(XmlSchema::GetAttribute(lesson.first, u"about", Namespaces::Uri::RDF),
                   u"page.1");
       }},
      {"SortElementsByTextContent",
       [](Lesson& lesson, int) {
         XmlElementList answers = lesson.answers;
         XmlSchema::SortElementsByTextContent(answers, SortMethods::Exact);
         EXPECT_EQ(XmlSchema::GetTextContent(answers[0]), u"Lyon");
       }},
      {"SortElementsByAttributeValue",
       [](Lesson& lesson, int) {
         XmlElementList answers = lesson.answers;
         XmlSchema::SortElementsByAttributeValue(answers, u"correct", Quiz,
                                                 SortMethods::Descending);
         EXPECT_EQ(answers[0], lesson.answers[0]);
       }},
      {"Randomize",
       [](Lesson& lesson, int) {
         EXPECT_GE(XmlSchema::Randomize(lesson.questions, u"lesson-7").Count(), 2);
       }},
      {"GetElementById",
       [](Lesson& lesson, int) {
         EXPECT_EQ(XmlSchema::GetElementById(lesson.doc, u"q2"), lesson.questions[1]);
       }},
      {"FindElementWithAttributeValue",
       [](Lesson& lesson, int) {
         EXPECT_EQ(XmlSchema::FindElementWithAttributeValue(lesson.quiz, u"veskan:question",
                                                            u"rdf:about", u"question.3"),
                   lesson.questions[2]);
       }},
      {"SetAttribute on an existing attribute",
       [](Lesson& lesson, int round) {
         const char16_t* points = round % 2 ? u"3" : u"12";
         ASSERT_TRUE(XmlSchema::SetAttribute(lesson.first, u"veskan:points", points));
         EXPECT_EQ(XmlSchema::GetAttribute(lesson.first, u"points", Quiz), points);
       }},
      {"SetTextContent of an element",
       [](Lesson& lesson, int round) {
         const char16_t* text = round % 2 ? u"Paris" : u"Lyon et Marseille";
         XmlSchema::SetTextContent(lesson.note, text);
         EXPECT_EQ(XmlSchema::GetTextContent(lesson.note), text);
       }},
      {"SetTextContent of an element with several children",
       [](Lesson& lesson, int round) {
         XmlSchema::CreateText(lesson.note, u"+");
         lesson.note->appendChild(lesson.doc->DocumentNode()->createComment(u"remark"));
         XmlSchema::SetCDATA(lesson.note, u"<>");
         XmlSchema::CreateText(lesson.note, u"-");
         const char16_t* text = round % 2 ? u"" : u"Lyon";
         XmlSchema::SetTextContent(lesson.note, text);
         EXPECT_EQ(XmlSchema::GetTextContent(lesson.note), text);
         EXPECT_EQ(XmlSchema::GetAllChildNodes(lesson.note).Count(), 1);
       }},
      {"SetCDATA",
       [](Lesson& lesson, int round) {
         const char16_t* text = round % 2 ? u"<a>" : u"<bb>";
         ASSERT_TRUE(XmlSchema::SetCDATA(lesson.note, text));
         EXPECT_EQ(XmlSchema::GetTextContent(lesson.note), text);
       }},
      {"SetAttribute with a new name, then RemoveAllChildrenAndAttributes",
       [](Lesson& lesson, int) {
         XmlSchema::SetAttribute(lesson.note, u"state", u"open");
         XmlSchema::SetAttribute(lesson.note, u"veskan:kind", u"hint");
         XmlSchema::CreateText(lesson.note, u"text");
         XmlSchema::RemoveAllChildrenAndAttributes(lesson.note);
         EXPECT_FALSE(XmlSchema::HasChildren(lesson.note));
         EXPECT_EQ(XmlSchema::GetAttributes(lesson.note).Count(), 0);
       }},
      {"RemoveChild leaves the node to the caller, who puts it back",
       [](Lesson& lesson, int) {
         xercesc::DOMElement* last = XmlSchema::LastChildElement(lesson.quiz);
         ASSERT_EQ(XmlSchema::RemoveChild(last), last);
         EXPECT_EQ(XmlSchema::GetTextContent(XmlSchema::FindElement(last, u"text", Quiz)),
                   u"Trois");
         ASSERT_EQ(XmlSchema::AppendChild(lesson.quiz, last), last);
       }},
      {"ReplaceChild leaves the old node to the caller, who puts it back",
       [](Lesson& lesson, int) {
         xercesc::DOMElement* old = XmlSchema::FindElement(lesson.first, u"note", Quiz);
         xercesc::DOMElement* replacement =
             XmlSchema::FindElement(lesson.quiz, u"question/text", Quiz);
         XmlSchema::RemoveChild(replacement);
         ASSERT_EQ(XmlSchema::ReplaceChild(old, replacement), replacement);
         EXPECT_EQ(XmlSchema::Parent(old), nullptr);
         ASSERT_EQ(XmlSchema::ReplaceChild(replacement, old), old);
         ASSERT_EQ(XmlSchema::InsertChild(lesson.first, replacement, lesson.first->getFirstChild()),
                   replacement);
       }},
      {"PrintElement",
       [](Lesson& lesson, int) { EXPECT_FALSE(XmlSchema::PrintElement(lesson.first).isEmpty()); }},
  };
  return operations;
}

// Rounds that every operation runs before the heap is measured: the document's recycling lists
// for released nodes and text buffers fill up during the first ones.
constexpr int WarmUpRounds = 20;
constexpr int MeasuredRounds = 2000;

// The number of failures and successes the running test has recorded so far: an operation whose
// own checks fail stops repeating after its first round.
int RecordedResults() {
  return ::testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
}

TEST(XmlDocumentHeapTest, EachReadAndEditLeavesTheDocumentHeapAsItWas) {
  Globals globals;
  for (const Operation& operation : Operations()) {
    SCOPED_TRACE(operation.name);
    CountingMemoryManager memory;
    Lesson lesson = Open(memory);
    ASSERT_TRUE(lesson.doc->DocumentNode());
    for (int round = 0; round < WarmUpRounds; ++round)
      operation.run(lesson, round);
    const std::size_t settled = memory.Outstanding();
    const int recorded = RecordedResults();
    for (int round = 0; round < MeasuredRounds && RecordedResults() == recorded; ++round)
      operation.run(lesson, round);
    EXPECT_EQ(memory.Outstanding(), settled);
  }
}

TEST(XmlDocumentHeapTest, ALessonOfEveryOperationInTurnKeepsTheDocumentHeapSize) {
  Globals globals;
  CountingMemoryManager memory;
  Lesson lesson = Open(memory);
  ASSERT_TRUE(lesson.doc->DocumentNode());
  for (int round = 0; round < WarmUpRounds; ++round)
    for (const Operation& operation : Operations())
      operation.run(lesson, round);
  const std::size_t settled = memory.Outstanding();
  const int recorded = RecordedResults();
  for (int round = 0; round < MeasuredRounds && RecordedResults() == recorded; ++round)
    for (const Operation& operation : Operations())
      operation.run(lesson, round);
  EXPECT_EQ(memory.Outstanding(), settled);
}

}  // namespace
}  // namespace Veskan
