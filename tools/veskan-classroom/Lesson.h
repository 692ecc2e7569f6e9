// The lesson: which question is up and whether it is open, who joined, and the WebSocket
// conversation with the teacher's and the students' pages.
//
// Pages speak in lines of tab-separated fields and hear JSON objects:
//   student -> "join\t<key>\t<name>"  (an empty key asks for a new one; a known key rejoins)
//              "answer\t<question number>\t<choice index in quiz order>"
//   teacher -> "start", "close", "next", "end", "rerun"
//   both    <- {"type":"state", ...} whenever what the page shows changes; a student also hears
//              {"type":"welcome","key":...,"name":...} after joining and {"type":"error",...}.
// A student sees the choices in an order of their own (seeded by their key and the question), so
// neighbours do not see the same layout, and the same order again after a reload.
//
// Thread safety: none; every call comes from the host's thread (the server runs in window mode).
#ifndef VESKAN_CLASSROOM_LESSON_H
#define VESKAN_CLASSROOM_LESSON_H

#include "Quiz.h"

#include <veskan/Server.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

namespace Classroom {

class Lesson {
 public:
  enum class Role { Student, Teacher };
  enum class Phase { Waiting, Open, Closed, Ended };

  static constexpr int MaxStudents = 5000;
  static constexpr int MaxNameLength = 40;

  // `save` keeps a quiz's results; the lesson calls it through SaveResults.
  Lesson(std::unique_ptr<Quiz> quiz, std::function<void(Quiz&)> save);

  // A new quiz for the same class: the results so far are saved, the students stay, everything
  // else starts over.
  void ReplaceQuiz(std::unique_ptr<Quiz> quiz);
  // Saves the results when answers arrived since the last save: when the teacher ends the quiz
  // or runs it again, when another quiz replaces it, and when the program stops.
  void SaveResults();

  void Connected(const std::shared_ptr<Veskan::Client>& client, Role role);
  void Received(const std::shared_ptr<Veskan::Client>& client, const Veskan::StringBuffer& text);
  void Disconnected(const std::shared_ptr<Veskan::Client>& client);
  // Sends what changed since the last call to the teacher pages: many answers arriving together
  // become one update of the chart.
  void Flush();
  // Closes every page's WebSocket with `code`.
  void CloseAll(int code);

  Quiz& CurrentQuiz() { return *quiz_; }

 private:
  struct Student {
    std::string name;
  };
  struct Page {
    std::shared_ptr<Veskan::Client> client;
    Role role = Role::Student;
    std::string key;  // the student's, once joined
  };

  void Join(Page& page, const std::string& key, const std::string& name);
  void Answer(Page& page, int number, int choice);
  void Command(const std::string& command);
  std::string UniqueName(const std::string& wanted) const;

  void SendStudentState(const Page& page);
  void SendTeacherState(const Page& page);
  void SendToEveryone();
  void SendError(const Page& page, const std::string& text);

  std::unique_ptr<Quiz> quiz_;
  std::function<void(Quiz&)> save_;
  int current_ = 0;
  Phase phase_ = Phase::Waiting;
  int answers_ = 0;  // recorded for the whole quiz
  bool unsaved_ = false;
  bool teachersBehind_ = false;
  std::map<std::string, Student> students_;  // by key
  std::set<std::string> names_;              // of every student, each once
  std::map<std::uint64_t, Page> pages_;      // by connection id
  // The connections of each student present, so that an answer reaches a student's pages and
  // the teacher's count needs no walk over the whole class.
  std::map<std::string, std::set<std::uint64_t>> pagesOf_;
};

// `text` (UTF-8) as a JSON string, quotes included.
std::string JsonString(const std::string& text);

}  // namespace Classroom

#endif
