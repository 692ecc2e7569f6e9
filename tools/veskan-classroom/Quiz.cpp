#include "Quiz.h"

#include <veskan/ByteBuffer.h>
#include <veskan/RDFQuery.h>
#include <veskan/Timepoint.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <map>

namespace Classroom {

using namespace Veskan;

namespace {

const std::u16string Prefixes =
    u"PREFIX veskan: <http://www.calvorco.com/2008/veskan/> "
    u"PREFIX dc: <http://purl.org/dc/elements/1.1/> ";

// Rows of the SELECT `where` (a text with "?text" among its variables), first of the texts in
// `language` or without one, then of those in any other language; `key` names the variable
// that says what a text belongs to, and only its first row is kept.
std::vector<RDF::Result> TextsPreferring(const std::shared_ptr<RDF::Graph>& graph,
                                         const std::u16string& select, const std::u16string& where,
                                         const char16_t* key, const StringBuffer& language) {
  std::vector<RDF::Result> rows;
  std::map<std::u16string, bool> seen;
  std::u16string filter = u" FILTER (lang(?text) = \"\" || langMatches(lang(?text), \"" +
                          std::u16string(language.getBuffer(), language.length()) + u"\")) ";
  for (const std::u16string& extra : {filter, std::u16string()}) {
    RDF::Query query((Prefixes + select + u" WHERE { " + where + extra + u" }").c_str());
    std::shared_ptr<RDF::Results> results = query.Execute(graph);
    for (int i = 0; results && i < results->length(); ++i) {
      RDF::Result& row = (*results)[i];
      const StringBuffer& owner = row[key]->Value();
      if (seen.emplace(std::u16string(owner.getBuffer(), owner.length()), true).second)
        rows.push_back(row);
    }
  }
  return rows;
}

int PositionOf(RDF::Result& row) {
  if (!row.Contains(u"position")) return INT_MAX;  // unnumbered ones come last
  return ParseInteger(StringBuffer(row[u"position"]->Value()).getTerminatedBuffer());
}

}  // namespace

std::unique_ptr<Quiz> Quiz::Load(const std::string& path, const StringBuffer& language,
                                 std::string& error) {
  StringBuffer widePath = UTF8to16(path.c_str());
  std::unique_ptr<Quiz> quiz(new Quiz());
  quiz->path_ = path;
  quiz->graph_ = RDF::Graph::FromFile(widePath.getTerminatedBuffer());
  if (!quiz->graph_) {
    error = "cannot read " + path + " as RDF/XML";
    return nullptr;
  }
  std::vector<RDF::Result> titles =
      TextsPreferring(quiz->graph_, u"SELECT ?quiz ?text",
                      u"?quiz a veskan:Quiz ; dc:title ?text .", u"quiz", language);
  if (!titles.empty()) quiz->title_ = titles.front()[u"text"]->Value();

  // Questions in the order of their positions, then of their URIs.
  std::vector<RDF::Result> questions =
      TextsPreferring(quiz->graph_, u"SELECT ?question ?text ?position",
                      u"?question a veskan:Question ; veskan:text ?text . "
                      u"OPTIONAL { ?question veskan:position ?position }",
                      u"question", language);
  std::vector<std::pair<std::pair<int, std::u16string>, Question>> ordered;
  for (RDF::Result& row : questions) {
    Question question;
    question.uri = row[u"question"]->Value();
    question.text = row[u"text"]->Value();
    ordered.push_back(
        {{PositionOf(row), std::u16string(question.uri.getBuffer(), question.uri.length())},
         question});
  }
  std::sort(ordered.begin(), ordered.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });

  std::vector<RDF::Result> choices = TextsPreferring(
      quiz->graph_, u"SELECT ?question ?choice ?text ?position ?correct",
      u"?question a veskan:Question ; veskan:choice ?choice . ?choice veskan:text ?text . "
      u"OPTIONAL { ?choice veskan:position ?position } "
      u"OPTIONAL { ?choice veskan:correct ?correct }",
      u"choice", language);
  for (auto& entry : ordered) {
    Question& question = entry.second;
    std::vector<std::pair<std::pair<int, std::u16string>, Choice>> found;
    for (RDF::Result& row : choices) {
      if (row[u"question"]->Value() != question.uri) continue;
      Choice choice;
      choice.node = row[u"choice"]->Value();
      choice.nodeType = row[u"choice"]->Type();
      choice.text = row[u"text"]->Value();
      if (row.Contains(u"correct")) {
        const StringBuffer& correct = row[u"correct"]->Value();
        choice.correct = correct == u"true" || correct == u"1";
      }
      found.push_back(
          {{PositionOf(row), std::u16string(choice.node.getBuffer(), choice.node.length())},
           choice});
    }
    std::sort(found.begin(), found.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    for (auto& choice : found)
      question.choices.push_back(std::move(choice.second));
    if (question.choices.size() < 2) continue;  // nothing to choose: not a question to pose
    if (question.choices.size() > MaxChoices || quiz->questions_.size() >= MaxQuestions) {
      error = path + " holds more questions or choices than a lesson can pose";
      return nullptr;
    }
    quiz->questions_.push_back(std::move(question));
  }
  if (quiz->questions_.empty()) {
    error = path + " holds no question with at least two choices";
    return nullptr;
  }
  if (quiz->title_.isEmpty()) quiz->title_ = UTF8to16(path.c_str());
  return quiz;
}

StringBuffer Quiz::AnswerUri(int question, const std::string& key) const {
  // One URI per participant and question: a second answer names the same node, which is how
  // the first one is found again.
  return StringBuffer(u"http://www.calvorco.com/2008/veskan/answer/") + UTF8to16(key.c_str()) +
         u"/" + FormatInteger(question + 1);
}

int Quiz::ChoiceIndex(int question, const StringBuffer& node) const {
  const std::vector<Choice>& choices = questions_[question].choices;
  for (std::size_t i = 0; i < choices.size(); ++i) {
    if (choices[i].node == node) return static_cast<int>(i);
  }
  return -1;
}

bool Quiz::RecordAnswer(int question, const std::string& key, const StringBuffer& participant,
                        int choice) {
  if (question < 0 || question >= static_cast<int>(questions_.size()) || choice < 0 ||
      choice >= static_cast<int>(questions_[question].choices.size()))
    return false;
  if (AnswerOf(question, key) >= 0) return false;
  using Types = RDF::Node::Types;
  const StringBuffer answer = AnswerUri(question, key);
  const char16_t* answerText = answer.getBuffer();
  const Question& asked = questions_[question];
  const Choice& taken = asked.choices[choice];
  StringBuffer now = CurrentTimestamp();
  std::vector<std::shared_ptr<RDF::Triple>> triples{
      std::make_shared<RDF::Triple>(answerText, Types::Uri, RDF::Predicate(u"rdf:type"),
                                    RDF::Graph::AnswerClass, Types::Uri),
      std::make_shared<RDF::Triple>(answerText, Types::Uri, RDF::Graph::AnswerQuestion,
                                    asked.uri.getBuffer(), Types::Uri),
      std::make_shared<RDF::Triple>(answerText, Types::Uri, RDF::Graph::AnswerParticipant,
                                    participant.getBuffer(), Types::Literal),
      std::make_shared<RDF::Triple>(answerText, Types::Uri, RDF::Graph::AnswerChoice,
                                    taken.node.getBuffer(), taken.nodeType),
      std::make_shared<RDF::Triple>(answerText, Types::Uri, RDF::Graph::AnswerTime,
                                    now.getTerminatedBuffer(), Types::Literal, u"xs:dateTime"),
      std::make_shared<RDF::Triple>(asked.uri.getBuffer(), Types::Uri, RDF::Graph::AnswerOf,
                                    answerText, Types::Uri)};
  return graph_->Add(triples) == static_cast<int>(triples.size());
}

int Quiz::AnswerOf(int question, const std::string& key) {
  if (question < 0 || question >= static_cast<int>(questions_.size())) return -1;
  StringBuffer answer = AnswerUri(question, key);
  std::shared_ptr<RDF::Triple> taken =
      graph_->FindOneTriple(answer.getTerminatedBuffer(), RDF::Graph::AnswerChoice);
  return taken ? ChoiceIndex(question, taken->Object().Value()) : -1;
}

std::vector<int> Quiz::Tally(int question) {
  std::vector<int> counts(questions_.at(question).choices.size(), 0);
  RDF::Query query(
      (Prefixes +
       u"SELECT ?choice (COUNT(?answer) AS ?answers) WHERE { ?answer a "
       u"veskan:Answer ; veskan:question <" +
       std::u16string(questions_[question].uri.getBuffer(), questions_[question].uri.length()) +
       u"> ; veskan:choice ?choice } GROUP BY ?choice")
          .c_str());
  std::shared_ptr<RDF::Results> rows = query.Execute(graph_);
  for (int i = 0; rows && i < rows->length(); ++i) {
    RDF::Result& row = (*rows)[i];
    // Without answers the count comes back as one row of 0 with no choice bound.
    if (!row.Contains(u"choice") || !row.Contains(u"answers")) continue;
    int index = ChoiceIndex(question, row[u"choice"]->Value());
    if (index >= 0)
      counts[index] = ParseInteger(StringBuffer(row[u"answers"]->Value()).getTerminatedBuffer());
  }
  return counts;
}

std::string Quiz::ResultsCsv() {
  RDF::Query query((Prefixes +
                    u"SELECT ?participant ?question ?choice WHERE { ?answer a veskan:Answer ; "
                    u"veskan:question ?question ; veskan:participant ?participant ; "
                    u"veskan:choice ?choice }")
                       .c_str());
  std::map<std::string, std::vector<int>> taken;  // participant -> choice index per question
  std::shared_ptr<RDF::Results> rows = query.Execute(graph_);
  for (int i = 0; rows && i < rows->length(); ++i) {
    RDF::Result& row = (*rows)[i];
    const StringBuffer& questionUri = row[u"question"]->Value();
    for (std::size_t q = 0; q < questions_.size(); ++q) {
      if (questions_[q].uri != questionUri) continue;
      std::vector<int>& line = taken[row[u"participant"]->Value().ToUTF8()];
      line.resize(questions_.size(), -1);
      line[q] = ChoiceIndex(static_cast<int>(q), row[u"choice"]->Value());
    }
  }
  std::string csv = "Participant";
  for (const Question& question : questions_)
    csv += "," + CsvField(question.text.ToUTF8());
  csv += ",Correct\r\n";
  for (const auto& [participant, choices] : taken) {
    csv += CsvField(participant);
    int correct = 0;
    for (std::size_t q = 0; q < questions_.size(); ++q) {
      csv += ",";
      if (choices[q] < 0) continue;
      const Choice& choice = questions_[q].choices[choices[q]];
      csv += CsvField(choice.text.ToUTF8());
      correct += choice.correct ? 1 : 0;
    }
    csv += "," + std::to_string(correct) + "\r\n";
  }
  return csv;
}

int Quiz::ClearAnswers() {
  return graph_->RemoveAnswers();
}

StringBuffer Quiz::Serialize() {
  return graph_->Serialize(RDF::Graph::SerializationFormats::RdfXmlAbbrev);
}

std::string CsvField(const std::string& text) {
  // A leading =, +, - or @ would make a spreadsheet read the field as a formula (a negative
  // number stays a number).
  std::string safe = text;
  bool number =
      safe.size() > 1 && safe[0] == '-' && std::isdigit(static_cast<unsigned char>(safe[1]));
  if (!safe.empty() && !number && std::string("=+-@").find(safe.front()) != std::string::npos)
    safe.insert(safe.begin(), '\'');
  if (safe.find_first_of(",\"\r\n") == std::string::npos) return safe;
  std::string quoted = "\"";
  for (char c : safe) {
    if (c == '"') quoted += '"';
    quoted += c;
  }
  return quoted + "\"";
}

}  // namespace Classroom
