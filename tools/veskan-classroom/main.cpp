// veskan-classroom: a quiz for one lesson. The teacher starts it on a quiz file; the students
// open the printed address on their phones, join with their names and answer; the teacher's
// page starts and closes each question, shows the answers arriving as a bar chart, and hands
// out the results as CSV.
//
//   veskan-classroom [QUIZ.rdf] [--port N] [--listen ADDRESS] [--room NAME] [--password TEXT]
//                    [--cert FILE [--key FILE]] [--pages DIR] [--results DIR]
//
// What the command line leaves out comes from the settings (the user's hive, then the
// machine's), key "Software\Calvor Technologies\Tallyo\Classroom": HttpPort (DWORD),
// QuizFile, PagesFolder, ResultsFolder and TeacherPassword; then from the defaults: port 23460,
// the bundled sample quiz and pages, results in $XDG_DATA_HOME/veskan/classroom, and a password
// made up and printed at start. The teacher signs in as "teacher".
//
// One copy runs per room (--room, default "default"): starting another hands its quiz file to
// the running one, which loads it for the same class, and exits. The results (CSV, and the quiz
// graph with its answers as RDF/XML) are saved when the teacher ends the quiz and when the
// program stops with answers not yet saved. Stops on SIGINT or SIGTERM and when a shutdown is
// requested (veskan-shutdown).
#include "../common/HostProcess.h"
#include "Lesson.h"
#include "Quiz.h"
#include "Site.h"

#include <veskan/Address.h>
#include <veskan/ByteBuffer.h>
#include <veskan/Daemon.h>
#include <veskan/DaemonMarshaller.h>
#include <veskan/Globals.h>
#include <veskan/Helpers.h>
#include <veskan/IPC.h>
#include <veskan/Preferences.h>
#include <veskan/Server.h>
#include <veskan/Shutdowner.h>
#include <veskan/Timepoint.h>

#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

namespace {

using namespace Veskan;
namespace fs = std::filesystem;

const char16_t* const SettingsKey = u"Software\\Calvor Technologies\\Tallyo\\Classroom";
constexpr int DefaultPort = 23460;

// A setting of the user's hive, else of the machine's, else `fallback`.
std::string StringSetting(const char16_t* name, const std::string& fallback) {
  for (bool perUser : {true, false}) {
    StringBuffer value =
        Preferences::ReadStringValue(perUser, SettingsKey, name, Preferences::File, nullptr);
    if (!value.isEmpty()) return value.ToUTF8();
  }
  return fallback;
}

int IntegerSetting(const char16_t* name, int fallback) {
  for (bool perUser : {true, false}) {
    int value = Preferences::ReadIntegerValue(perUser, SettingsKey, name, Preferences::File, -1);
    if (value >= 0) return value;
  }
  return fallback;
}

struct Options {
  std::string quiz;
  bool quizGiven = false;  // on the command line, rather than from the settings
  int port = -1;
  std::string listen = "*";
  std::string room = "default";
  std::string password;
  std::string certificate;
  std::string key;
  std::string pages;
  std::string results;
};

bool ParseOptions(const std::vector<std::string>& arguments, Options& options) {
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    bool hasValue = i + 1 < arguments.size();
    if (argument == "--port" && hasValue) {
      if (!Tools::ParsePort(arguments[++i], options.port)) return false;
    } else if (argument == "--listen" && hasValue) {
      options.listen = arguments[++i];
    } else if (argument == "--room" && hasValue) {
      options.room = arguments[++i];
    } else if (argument == "--password" && hasValue) {
      options.password = arguments[++i];
    } else if (argument == "--cert" && hasValue) {
      options.certificate = arguments[++i];
    } else if (argument == "--key" && hasValue) {
      options.key = arguments[++i];
    } else if (argument == "--pages" && hasValue) {
      options.pages = arguments[++i];
    } else if (argument == "--results" && hasValue) {
      options.results = arguments[++i];
    } else if (!argument.empty() && argument[0] != '-' && options.quiz.empty()) {
      options.quiz = argument;
      options.quizGiven = true;
    } else {
      return false;
    }
  }
  return true;
}

// The folder of the bundled pages and sample quiz: beside the program in a build tree, under
// share/ once installed.
fs::path BundledFolder() {
  std::error_code error;
  fs::path program = fs::read_symlink("/proc/self/exe", error);
  if (error) return fs::current_path();
  fs::path beside = program.parent_path() / "classroom";
  if (fs::is_directory(beside, error)) return beside;
  return program.parent_path().parent_path() / "share" / "veskan" / "classroom";
}

std::string DefaultResultsFolder() {
  const char* data = std::getenv("XDG_DATA_HOME");
  const char* home = std::getenv("HOME");
  fs::path base =
      data && *data ? fs::path(data) : fs::path(home && *home ? home : "/tmp") / ".local" / "share";
  return (base / "veskan" / "classroom").string();
}

// Fills what the command line left out from the settings and the defaults.
void CompleteOptions(Options& options) {
  fs::path bundled = BundledFolder();
  if (options.quiz.empty())
    options.quiz = StringSetting(u"QuizFile", (bundled / "sample-quiz.rdf").string());
  if (options.port < 0) options.port = IntegerSetting(u"HttpPort", DefaultPort);
  if (options.pages.empty())
    options.pages = StringSetting(u"PagesFolder", (bundled / "pages").string());
  if (options.results.empty())
    options.results = StringSetting(u"ResultsFolder", DefaultResultsFolder());
  if (options.password.empty()) options.password = StringSetting(u"TeacherPassword", "");
  if (options.password.empty()) {
    // Six characters are enough against a class guessing at a Digest prompt for one lesson.
    options.password = NewId().ToUTF8().substr(0, 6);
    for (char& c : options.password)
      c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  std::error_code error;
  fs::path absolute = fs::absolute(options.quiz, error);
  if (!error) options.quiz = absolute.lexically_normal().string();
}

StringBuffer StudentHost(const Options& options) {
  if (options.listen != "*" && options.listen != "0.0.0.0") return UTF8to16(options.listen.c_str());
  // The first address of the machine that is not loopback: the one phones on the network reach.
  Address self(u"*", 0, Address::NslookupOnlyIfNeeded);
  return self.Addresses.Count() > 0 ? self.Addresses[0] : StringBuffer(u"127.0.0.1");
}

// Writes the lesson's results beside each other: the CSV the teacher downloads, and the quiz
// graph with its answers.
void SaveResults(Classroom::Quiz& quiz, const Options& options) {
  std::error_code error;
  fs::create_directories(options.results, error);
  StringBuffer stamp = CurrentTimestamp();  // "2026-11-24T08:15:30.123456Z"
  std::string name = options.room + "-" + stamp.ToUTF8().substr(0, 23);
  for (char& c : name) {
    if (c == ':' || c == '.' || c == '/') c = '-';
  }
  fs::path base = fs::path(options.results) / name;
  std::ofstream csv(base.string() + ".csv", std::ios::binary);
  csv << quiz.ResultsCsv();
  std::ofstream graph(base.string() + ".rdf", std::ios::binary);
  graph << quiz.Serialize().ToUTF8();
  if (csv && graph) {
    std::cout << "results saved to " << base.string() << ".csv" << std::endl;
  } else {
    std::cerr << "veskan-classroom: could not save the results in " << options.results << "\n";
  }
}

// The language of the quiz texts to prefer: the first part of $LANG ("de" of "de_AT.UTF-8").
StringBuffer Language() {
  const char* lang = std::getenv("LANG");
  std::string text;
  for (const char* c = lang ? lang : ""; std::isalpha(static_cast<unsigned char>(*c)); ++c)
    text += *c;
  if (text.empty() || text == "C" || text == "POSIX") text = "en";
  return UTF8to16(text.c_str());
}

void Usage() {
  std::cerr << "usage: veskan-classroom [QUIZ.rdf] [--port N] [--listen ADDRESS] [--room NAME] "
               "[--password TEXT] [--cert FILE [--key FILE]] [--pages DIR] [--results DIR]\n";
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> arguments(argv + 1, argv + argc);
  Options options;
  if (!ParseOptions(arguments, options)) {
    Usage();
    return 2;
  }
  CompleteOptions(options);

  // A second start for the same room hands the quiz file it was given to the copy that runs, on
  // that copy's host thread, and is done. A second start without one changes nothing there.
  StringBuffer quizArgument = UTF8to16(options.quiz.c_str());
  const char16_t* handed[] = {u"veskan-classroom", quizArgument.getTerminatedBuffer()};
  SingleInstanceCLI instance(UTF8to16(("Veskan.Classroom." + options.room).c_str()),
                             SingleInstanceCLI::JoinArguments(options.quizGiven ? 2 : 1, handed));
  if (!instance.IsFirst()) {
    if (!options.quizGiven) {
      std::cout << "the classroom of room \"" << options.room << "\" runs already" << std::endl;
      return 0;
    }
    if (!instance.Delivered()) {
      std::cerr << "veskan-classroom: the running classroom did not take " << options.quiz << "\n";
      return 1;
    }
    std::cout << "handed " << options.quiz << " to the running classroom" << std::endl;
    return 0;
  }

  Tools::RaiseOpenFileLimit();
  std::shared_ptr<Shutdowner> stopWatch = Tools::WatchForStop();

  Globals globals;
  const StringBuffer language = Language();
  std::string error;
  std::unique_ptr<Classroom::Quiz> quiz = Classroom::Quiz::Load(options.quiz, language, error);
  if (!quiz) {
    std::cerr << "veskan-classroom: " << error << "\n";
    return 1;
  }
  Classroom::Lesson lesson(std::move(quiz),
                           [&options](Classroom::Quiz& done) { SaveResults(done, options); });
  Classroom::Site site(lesson, options.pages);
  if (!site.Ready()) {
    std::cerr << "veskan-classroom: " << site.Error() << "\n";
    return 1;
  }

  instance.CommandLineArrived.connect([&](void*) {
    StringList later;
    Helpers::CommandLineToArgv(instance.CommandLine(), later);
    if (later.Count() < 2) return;
    std::string file = StringBuffer(later[1]).ToUTF8();
    std::string reason;
    std::unique_ptr<Classroom::Quiz> next = Classroom::Quiz::Load(file, language, reason);
    if (!next) {
      std::cerr << "veskan-classroom: " << reason << "\n";
      return;
    }
    lesson.ReplaceQuiz(std::move(next));
    std::cout << "loaded " << file << std::endl;
  });

  StringBuffer certificate = UTF8to16(options.certificate.c_str());
  StringBuffer key = UTF8to16(options.key.c_str());
  // Window mode: every request and WebSocket event is handled here, on this thread, so the
  // lesson needs no locks.
  auto server =
      std::make_shared<Server>(false, certificate.getTerminatedBuffer(), key.getTerminatedBuffer());
  Server::Limits limits = server->GetLimits();
  limits.MaxWebSocketFrameBytes = 4096;  // a page sends a name or an answer, nothing more
  limits.MaxBodySize = 4096;             // and no request carries a body
  server->SetLimits(limits);
  site.Serve(server, UTF8to16(options.password.c_str()));

  const char* scheme = server->IsSecure() ? "https" : "http";
  StringBuffer base = UTF8to16(
      (std::string(scheme) + "://" + options.listen + ":" + std::to_string(options.port) + "/")
          .c_str());
  std::string errors;
  if (!Tools::StartServer(*server, base, errors)) {
    std::cerr << "veskan-classroom: cannot listen on port " << options.port << "\n" << errors;
    return 1;
  }
  std::string host = StudentHost(options).ToUTF8();
  std::string address = std::string(scheme) + "://" + host + ":" + std::to_string(server->Port());
  std::cout << "quiz: " << lesson.CurrentQuiz().Title().ToUTF8() << " ("
            << lesson.CurrentQuiz().Questions().size() << " questions)\n"
            << "students: " << address << "/\n"
            << "teacher:  " << address << "/teacher (user teacher, password " << options.password
            << ")" << std::endl;

  while (!Tools::StopRequested()) {
    DaemonMarshaller::RunEventLoopOnce();
    lesson.Flush();
  }
  stopWatch->Stop();
  lesson.SaveResults();
  lesson.CloseAll(1001);  // going away: the pages say the classroom has closed
  server->Stop(1000);
  Daemon::WaitForAllThreads(5);
  return 0;
}
