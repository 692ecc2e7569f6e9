// A quiz held as an RDF graph: its questions and choices as read from the quiz file, and the
// answers given in the lesson, recorded in the same graph with the answer vocabulary so that the
// results are one SPARQL query away and a saved graph is the quiz with its answers.
#ifndef VESKAN_CLASSROOM_QUIZ_H
#define VESKAN_CLASSROOM_QUIZ_H

#include <veskan/RDFGraph.h>
#include <veskan/StringBuffer.h>

#include <memory>
#include <string>
#include <vector>

namespace Classroom {

struct Choice {
  Veskan::StringBuffer node;  // URI, or blank node identifier
  Veskan::RDF::Node::Types::Enumeration nodeType = Veskan::RDF::Node::Types::Uri;
  Veskan::StringBuffer text;
  bool correct = false;
};

struct Question {
  Veskan::StringBuffer uri;
  Veskan::StringBuffer text;
  std::vector<Choice> choices;  // in the order of their veskan:position, then of their node
};

// Thread safety: a plain object; the graph's own calls are serialised by the library.
class Quiz {
 public:
  // Limits on what a quiz file may hold; a bigger file is refused rather than served slowly.
  static constexpr int MaxQuestions = 200;
  static constexpr int MaxChoices = 26;

  // Reads the RDF/XML file at `path`. Null, with the reason in `error`, when the file cannot be
  // read, is not RDF/XML, or holds no question with at least two choices. Texts are taken in
  // `language` when the file has them in it, else in any language.
  static std::unique_ptr<Quiz> Load(const std::string& path, const Veskan::StringBuffer& language,
                                    std::string& error);

  const std::string& Path() const { return path_; }
  const Veskan::StringBuffer& Title() const { return title_; }
  const std::vector<Question>& Questions() const { return questions_; }

  // Records that `participant` (known to the lesson by `key`) took choice `choice` of question
  // `question`. False when the indexes are out of range or this key already answered the
  // question: the first answer counts.
  bool RecordAnswer(int question, const std::string& key, const Veskan::StringBuffer& participant,
                    int choice);
  // The choice `key` took on `question`, -1 when none.
  int AnswerOf(int question, const std::string& key);
  // The number of answers each choice of `question` received, in choice order.
  std::vector<int> Tally(int question);
  // Every answer: one line per participant (by name), one column per question holding the text
  // of the choice taken, and the number of correct answers.
  std::string ResultsCsv();
  // Removes every recorded answer; the quiz is as it was loaded.
  int ClearAnswers();
  // The graph with its answers, as RDF/XML.
  Veskan::StringBuffer Serialize();

 private:
  Quiz() = default;
  Veskan::StringBuffer AnswerUri(int question, const std::string& key) const;
  int ChoiceIndex(int question, const Veskan::StringBuffer& node) const;

  std::string path_;
  std::shared_ptr<Veskan::RDF::Graph> graph_;
  Veskan::StringBuffer title_;
  std::vector<Question> questions_;
};

// `text` as one CSV field: quoted when it holds a comma, a quote or a line break.
std::string CsvField(const std::string& text);

}  // namespace Classroom

#endif
