#include "Lesson.h"

#include <veskan/Client.h>
#include <veskan/CsvFile.h>
#include <veskan/Statistics.h>

#include <cstdio>
#include <numeric>
#include <vector>

namespace Classroom {

using namespace Veskan;

namespace {

const char* PhaseName(Lesson::Phase phase) {
  switch (phase) {
    case Lesson::Phase::Waiting:
      return "waiting";
    case Lesson::Phase::Open:
      return "open";
    case Lesson::Phase::Closed:
      return "closed";
    case Lesson::Phase::Ended:
      return "ended";
  }
  return "waiting";
}

std::vector<std::string> SplitFields(const std::string& text) {
  std::vector<std::string> fields;
  std::size_t start = 0;
  for (;;) {
    std::size_t tab = text.find('\t', start);
    fields.push_back(
        text.substr(start, tab == std::string::npos ? std::string::npos : tab - start));
    if (tab == std::string::npos) return fields;
    start = tab + 1;
  }
}

// Keys are the library's fresh identifiers: letters and digits. Anything else a page sends is
// not a key this lesson gave out.
bool IsKeyText(const std::string& key) {
  if (key.empty() || key.size() > 64) return false;
  for (char c : key) {
    if (!std::isalnum(static_cast<unsigned char>(c))) return false;
  }
  return true;
}

// A name as shown to the class: white space folded, control characters dropped, at most
// MaxNameLength units, and never a lone half of a surrogate pair at the cut.
std::string CleanName(const std::string& wanted) {
  StringBuffer name = Tags::NormalizeWhitespace(UTF8to16(wanted.c_str()).getTerminatedBuffer());
  StringBuffer clean;
  for (int i = 0; i < name.length() && clean.length() < Lesson::MaxNameLength; ++i) {
    char16_t unit = name[i];
    if (unit < 0x20 || unit == 0x7F) continue;
    if (U16_IS_LEAD(unit) && clean.length() + 1 == Lesson::MaxNameLength) break;
    clean += unit;
  }
  return clean.ToUTF8();
}

bool ParseNumber(const std::string& text, int& value) {
  if (text.empty() || text.size() > 6) return false;
  value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + (c - '0');
  }
  return true;
}

}  // namespace

std::string JsonString(const std::string& text) {
  std::string json = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"':
        json += "\\\"";
        break;
      case '\\':
        json += "\\\\";
        break;
      case '\n':
        json += "\\n";
        break;
      default:
        if (c < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
          json += escaped;
        } else {
          json += static_cast<char>(c);
        }
    }
  }
  return json + "\"";
}

Lesson::Lesson(std::unique_ptr<Quiz> quiz, std::function<void(Quiz&)> save)
    : quiz_(std::move(quiz)), save_(std::move(save)) {}

void Lesson::SaveResults() {
  if (!unsaved_) return;
  unsaved_ = false;
  if (save_) save_(*quiz_);
}

void Lesson::ReplaceQuiz(std::unique_ptr<Quiz> quiz) {
  SaveResults();
  quiz_ = std::move(quiz);
  current_ = 0;
  phase_ = Phase::Waiting;
  answers_ = 0;
  SendToEveryone();
}

void Lesson::Connected(const std::shared_ptr<Client>& client, Role role) {
  Page& page = pages_[client->Id()];
  page.client = client;
  page.role = role;
  if (role == Role::Teacher) SendTeacherState(page);
}

void Lesson::Disconnected(const std::shared_ptr<Client>& client) {
  auto found = pages_.find(client->Id());
  if (found == pages_.end()) return;
  const std::string& key = found->second.key;
  if (!key.empty()) {
    auto student = pagesOf_.find(key);
    student->second.erase(client->Id());
    if (student->second.empty()) pagesOf_.erase(student);
    teachersBehind_ = true;  // maybe one student fewer on the teacher's count
  }
  pages_.erase(found);
}

void Lesson::Received(const std::shared_ptr<Client>& client, const StringBuffer& text) {
  auto found = pages_.find(client->Id());
  if (found == pages_.end()) return;
  Page& page = found->second;
  std::vector<std::string> fields = SplitFields(text.ToUTF8());
  if (page.role == Role::Teacher) {
    Command(fields[0]);
    return;
  }
  int number = 0;
  int choice = 0;
  if (fields[0] == "join" && fields.size() == 3) {
    Join(page, fields[1], fields[2]);
  } else if (fields[0] == "answer" && fields.size() == 3 && ParseNumber(fields[1], number) &&
             ParseNumber(fields[2], choice)) {
    Answer(page, number, choice);
  } else {
    SendError(page, "The page sent something this classroom does not understand.");
  }
}

void Lesson::Join(Page& page, const std::string& key, const std::string& wanted) {
  // A page stays the student it joined as; a key this lesson gave out rejoins as that student
  // (a reload, a reconnection); anyone else becomes a new student.
  std::string chosen = page.key;
  if (chosen.empty() && IsKeyText(key) && students_.count(key) != 0) chosen = key;
  if (chosen.empty()) {
    std::string name = CleanName(wanted);
    if (name.empty()) {
      SendError(page, "Please type your name.");
      return;
    }
    if (static_cast<int>(students_.size()) >= MaxStudents) {
      SendError(page, "This class is full.");
      return;
    }
    name = UniqueName(name);
    names_.insert(name);
    chosen = NewId().ToUTF8();
    students_.emplace(chosen, Student{name});
  }
  page.key = chosen;
  pagesOf_[chosen].insert(page.client->Id());
  page.client->WriteThroughWebSocket(
      UTF8to16(("{\"type\":\"welcome\",\"key\":" + JsonString(chosen) +
                ",\"name\":" + JsonString(students_.at(chosen).name) + "}")
                   .c_str()));
  SendStudentState(page);
  teachersBehind_ = true;
}

std::string Lesson::UniqueName(const std::string& wanted) const {
  if (names_.count(wanted) == 0) return wanted;
  for (int suffix = 2;; ++suffix) {
    std::string name = wanted + " (" + std::to_string(suffix) + ")";
    if (names_.count(name) == 0) return name;
  }
}

void Lesson::Answer(Page& page, int number, int choice) {
  if (page.key.empty()) {
    SendError(page, "Join the class first.");
    return;
  }
  if (phase_ != Phase::Open || number != current_ + 1) {
    SendError(page, "This question is not open.");
    SendStudentState(page);
    return;
  }
  const std::string& name = students_.at(page.key).name;
  if (quiz_->RecordAnswer(current_, page.key, UTF8to16(name.c_str()), choice)) {
    ++answers_;
    unsaved_ = true;
    teachersBehind_ = true;
  }
  // Every page of this student shows the answer that counts: the first one.
  for (std::uint64_t id : pagesOf_.at(page.key))
    SendStudentState(pages_.at(id));
}

void Lesson::Command(const std::string& command) {
  const int count = static_cast<int>(quiz_->Questions().size());
  if (command == "start" && (phase_ == Phase::Waiting || phase_ == Phase::Closed)) {
    phase_ = Phase::Open;
  } else if (command == "close" && phase_ == Phase::Open) {
    phase_ = Phase::Closed;
  } else if (command == "next" && phase_ != Phase::Ended && current_ + 1 < count) {
    ++current_;
    phase_ = Phase::Waiting;
  } else if (command == "end" && phase_ != Phase::Ended) {
    phase_ = Phase::Ended;
    SaveResults();
  } else if (command == "rerun") {
    SaveResults();
    quiz_->ClearAnswers();
    answers_ = 0;
    current_ = 0;
    phase_ = Phase::Waiting;
  } else {
    return;  // not a command, or not one for this moment: the pages already show the truth
  }
  SendToEveryone();
}

void Lesson::SendToEveryone() {
  for (auto& entry : pages_) {
    if (entry.second.role == Role::Teacher) {
      SendTeacherState(entry.second);
    } else if (!entry.second.key.empty()) {
      SendStudentState(entry.second);
    }
  }
  teachersBehind_ = false;
}

void Lesson::Flush() {
  if (!teachersBehind_) return;
  teachersBehind_ = false;
  for (auto& entry : pages_) {
    if (entry.second.role == Role::Teacher) SendTeacherState(entry.second);
  }
}

void Lesson::CloseAll(int code) {
  for (auto& entry : pages_)
    entry.second.client->CloseWebSocket(code);
}

void Lesson::SendStudentState(const Page& page) {
  const Question& question = quiz_->Questions()[current_];
  std::string json = "{\"type\":\"state\",\"title\":" + JsonString(quiz_->Title().ToUTF8()) +
                     ",\"phase\":\"" + PhaseName(phase_) +
                     "\",\"number\":" + std::to_string(current_ + 1) +
                     ",\"count\":" + std::to_string(quiz_->Questions().size());
  if (phase_ == Phase::Open || phase_ == Phase::Closed) {
    json += ",\"question\":" + JsonString(question.text.ToUTF8()) + ",\"choices\":[";
    // The same student sees the same order for the same question, on any page, after a reload.
    StringBuffer seed = UTF8to16(page.key.c_str()) + question.uri;
    RandomSequence sequence(seed.getTerminatedBuffer());
    std::vector<int> order = sequence.GetRandomSequence(static_cast<int>(question.choices.size()));
    for (std::size_t i = 0; i < order.size(); ++i) {
      json += std::string(i ? "," : "") + "{\"index\":" + std::to_string(order[i]) +
              ",\"text\":" + JsonString(question.choices[order[i]].text.ToUTF8()) + "}";
    }
    json += "],\"answered\":" + std::to_string(quiz_->AnswerOf(current_, page.key));
  }
  page.client->WriteThroughWebSocket(UTF8to16((json + "}").c_str()));
}

void Lesson::SendTeacherState(const Page& page) {
  const Question& question = quiz_->Questions()[current_];
  std::vector<int> counts = quiz_->Tally(current_);
  std::string json = "{\"type\":\"state\",\"title\":" + JsonString(quiz_->Title().ToUTF8()) +
                     ",\"phase\":\"" + PhaseName(phase_) +
                     "\",\"number\":" + std::to_string(current_ + 1) +
                     ",\"count\":" + std::to_string(quiz_->Questions().size()) +
                     ",\"question\":" + JsonString(question.text.ToUTF8()) + ",\"choices\":[";
  for (std::size_t i = 0; i < question.choices.size(); ++i) {
    json += std::string(i ? "," : "") +
            "{\"text\":" + JsonString(question.choices[i].text.ToUTF8()) +
            ",\"correct\":" + (question.choices[i].correct ? "true" : "false") +
            ",\"answers\":" + std::to_string(counts[i]) + "}";
  }
  json += "],\"answers\":" + std::to_string(std::accumulate(counts.begin(), counts.end(), 0)) +
          ",\"total\":" + std::to_string(answers_) +
          ",\"students\":" + std::to_string(pagesOf_.size()) + "}";
  page.client->WriteThroughWebSocket(UTF8to16(json.c_str()));
}

void Lesson::SendError(const Page& page, const std::string& text) {
  page.client->WriteThroughWebSocket(
      UTF8to16(("{\"type\":\"error\",\"text\":" + JsonString(text) + "}").c_str()));
}

}  // namespace Classroom
