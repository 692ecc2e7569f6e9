// The classroom's HTTP side: the student page at "/", the teacher page at "/teacher" and the
// results at "/teacher/results.csv" (both behind the teacher's password), the shared style and
// script, and the two WebSocket addresses, "/ws/student" and "/ws/teacher?token=...", whose
// events go to the lesson. The teacher's socket is opened with a token that only the
// password-protected teacher page carries, since a WebSocket handshake carries no credentials
// of its own.
//
// Thread safety: none; the server runs in window mode, so every call comes from the host's
// thread.
#ifndef VESKAN_CLASSROOM_SITE_H
#define VESKAN_CLASSROOM_SITE_H

#include "Lesson.h"

#include <veskan/Content.h>
#include <veskan/Server.h>

#include <map>
#include <memory>
#include <string>

namespace Classroom {

class Site {
 public:
  // Reads the pages from `pagesFolder`; Ready() is false, with the reason in Error(), when one
  // is missing.
  Site(Lesson& lesson, const std::string& pagesFolder);

  bool Ready() const { return error_.empty(); }
  const std::string& Error() const { return error_; }

  // Connects the site to `server`'s signals and installs the teacher's password.
  void Serve(const std::shared_ptr<Veskan::Server>& server, const Veskan::StringBuffer& password);

 private:
  void Answer(const std::shared_ptr<Veskan::Client>& client,
              const std::shared_ptr<Veskan::Message>& message);
  void OnWebSocket(const std::shared_ptr<Veskan::Client>& client,
                   const std::shared_ptr<Veskan::WSData>& event);
  void Reply(const std::shared_ptr<Veskan::Message>& message, const char* name);

  Lesson& lesson_;
  std::string error_;
  std::string token_;  // of the teacher's socket
  struct Page {
    std::shared_ptr<Veskan::Content> content;
    const char16_t* type = nullptr;
  };
  std::map<std::string, Page> pages_;  // by file name
};

}  // namespace Classroom

#endif
