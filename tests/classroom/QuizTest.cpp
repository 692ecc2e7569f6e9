// The classroom's quiz graph: what it reads from a quiz file, the answers it records with the
// answer vocabulary, and the results it computes from them with SPARQL.
#include "Quiz.h"

#include <veskan/ByteBuffer.h>
#include <veskan/Globals.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace {

using Classroom::Quiz;
using Veskan::StringBuffer;

// Two questions given in the wrong order, texts in two languages, one choice a blank node, one
// choice without a position, and a question with a single choice (not one to pose).
const char* TwoQuestions = R"(<?xml version="1.0"?>
<rdf:RDF xmlns:rdf="http://www.w3.org/1999/02/22-rdf-syntax-ns#"
         xmlns:dc="http://purl.org/dc/elements/1.1/"
         xmlns:veskan="http://www.calvorco.com/2008/veskan/">
  <veskan:Quiz rdf:about="quiz/t">
    <dc:title xml:lang="de">Probe</dc:title>
    <dc:title xml:lang="en">Trial</dc:title>
  </veskan:Quiz>
  <veskan:Question rdf:about="quiz/t/q2">
    <veskan:text xml:lang="de">Zweite?</veskan:text>
    <veskan:text xml:lang="en">Second?</veskan:text>
    <veskan:position>2</veskan:position>
    <veskan:choice><veskan:Choice rdf:about="quiz/t/q2/b"><veskan:text>b, "quoted"</veskan:text>
      <veskan:position>2</veskan:position></veskan:Choice></veskan:choice>
    <veskan:choice><rdf:Description rdf:nodeID="blank"><veskan:text>a</veskan:text>
      <veskan:position>1</veskan:position><veskan:correct>true</veskan:correct>
    </rdf:Description></veskan:choice>
  </veskan:Question>
  <veskan:Question rdf:about="quiz/t/q1">
    <veskan:text>First?</veskan:text>
    <veskan:position>1</veskan:position>
    <veskan:choice><veskan:Choice rdf:about="quiz/t/q1/z"><veskan:text>z</veskan:text>
      </veskan:Choice></veskan:choice>
    <veskan:choice><veskan:Choice rdf:about="quiz/t/q1/y"><veskan:text>=1+1</veskan:text>
      <veskan:position>1</veskan:position><veskan:correct>true</veskan:correct>
    </veskan:Choice></veskan:choice>
  </veskan:Question>
  <veskan:Question rdf:about="quiz/t/lonely">
    <veskan:text>Only one way?</veskan:text>
    <veskan:choice><veskan:Choice rdf:about="quiz/t/lonely/a"><veskan:text>yes</veskan:text>
    </veskan:Choice></veskan:choice>
  </veskan:Question>
</rdf:RDF>)";

class QuizTest : public ::testing::Test {
 protected:
  std::string Write(const std::string& name, const std::string& text) {
    std::string path = (folder_ / name).string();
    std::ofstream(path, std::ios::binary) << text;
    return path;
  }
  void SetUp() override { std::filesystem::create_directories(folder_); }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  Veskan::Globals globals_;
  std::filesystem::path folder_ =
      std::filesystem::temp_directory_path() / ("veskan-quiz-test-" + std::to_string(::getpid()));
};

TEST_F(QuizTest, ReadsQuestionsInOrderWithTheirChoicesInTheWantedLanguage) {
  std::string error;
  auto quiz = Quiz::Load(Write("quiz.rdf", TwoQuestions), u"en", error);
  ASSERT_TRUE(quiz) << error;
  EXPECT_EQ(StringBuffer(u"Trial"), quiz->Title());
  ASSERT_EQ(2u, quiz->Questions().size());  // the one-choice question is left out
  const auto& first = quiz->Questions()[0];
  EXPECT_EQ(StringBuffer(u"First?"), first.text);
  ASSERT_EQ(2u, first.choices.size());
  EXPECT_EQ(StringBuffer(u"=1+1"), first.choices[0].text);  // numbered before unnumbered
  EXPECT_TRUE(first.choices[0].correct);
  EXPECT_FALSE(first.choices[1].correct);
  const auto& second = quiz->Questions()[1];
  EXPECT_EQ(StringBuffer(u"Second?"), second.text);
  EXPECT_EQ(Veskan::RDF::Node::Types::Blank, second.choices[0].nodeType);

  auto german = Quiz::Load(Write("quiz.rdf", TwoQuestions), u"de", error);
  ASSERT_TRUE(german);
  EXPECT_EQ(StringBuffer(u"Probe"), german->Title());
  EXPECT_EQ(StringBuffer(u"Zweite?"), german->Questions()[1].text);
  EXPECT_EQ(StringBuffer(u"First?"), german->Questions()[0].text);  // the only text there is
}

TEST_F(QuizTest, RefusesFilesThatHoldNoQuiz) {
  std::string error;
  EXPECT_FALSE(Quiz::Load((folder_ / "missing.rdf").string(), u"en", error));
  EXPECT_NE(std::string::npos, error.find("cannot read")) << error;
  EXPECT_FALSE(Quiz::Load(Write("broken.rdf", "<rdf:RDF"), u"en", error));
  EXPECT_FALSE(Quiz::Load(Write("empty.rdf", R"(<rdf:RDF
      xmlns:rdf="http://www.w3.org/1999/02/22-rdf-syntax-ns#"/>)"),
                          u"en", error));
  EXPECT_NE(std::string::npos, error.find("no question")) << error;
}

TEST_F(QuizTest, RecordsOneAnswerPerParticipantAndQuestionAndCountsThem) {
  std::string error;
  auto quiz = Quiz::Load(Write("quiz.rdf", TwoQuestions), u"en", error);
  ASSERT_TRUE(quiz) << error;
  EXPECT_TRUE(quiz->RecordAnswer(0, "K1", u"Ann, the first", 0));
  EXPECT_FALSE(quiz->RecordAnswer(0, "K1", u"Ann, the first", 1));  // the first one counts
  EXPECT_TRUE(quiz->RecordAnswer(0, "K2", u"-Bob", 1));
  EXPECT_TRUE(quiz->RecordAnswer(0, "K3", u"Cy", 0));
  EXPECT_TRUE(quiz->RecordAnswer(1, "K1", u"Ann, the first", 0));  // a blank-node choice
  EXPECT_FALSE(quiz->RecordAnswer(1, "K2", u"-Bob", 2));           // no such choice
  EXPECT_FALSE(quiz->RecordAnswer(2, "K2", u"-Bob", 0));           // no such question

  EXPECT_EQ((std::vector<int>{2, 1}), quiz->Tally(0));
  EXPECT_EQ((std::vector<int>{1, 0}), quiz->Tally(1));
  EXPECT_EQ(0, quiz->AnswerOf(0, "K1"));
  EXPECT_EQ(1, quiz->AnswerOf(0, "K2"));
  EXPECT_EQ(-1, quiz->AnswerOf(1, "K2"));

  // Fields with commas and quotes are quoted, a leading sign cannot start a formula; each
  // participant's correct answers are counted.
  EXPECT_EQ(
      "Participant,First?,Second?,Correct\r\n"
      "'-Bob,z,,0\r\n"
      "\"Ann, the first\",'=1+1,a,2\r\n"
      "Cy,'=1+1,,1\r\n",
      quiz->ResultsCsv());

  // The answers are in the saved graph, and gone after a clear, which leaves the quiz whole.
  std::string saved = quiz->Serialize().ToUTF8();
  EXPECT_NE(std::string::npos, saved.find("Ann, the first"));
  EXPECT_EQ(4 * 6, quiz->ClearAnswers());
  EXPECT_EQ((std::vector<int>{0, 0}), quiz->Tally(0));
  EXPECT_EQ("Participant,First?,Second?,Correct\r\n", quiz->ResultsCsv());
  EXPECT_EQ(std::string::npos, quiz->Serialize().ToUTF8().find("Ann"));
  EXPECT_TRUE(quiz->RecordAnswer(0, "K1", u"Ann, the first", 1));  // a rerun starts afresh
}

}  // namespace
