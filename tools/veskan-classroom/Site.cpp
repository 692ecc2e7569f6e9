#include "Site.h"

#include <veskan/Body.h>
#include <veskan/ByteBuffer.h>
#include <veskan/Client.h>
#include <veskan/Message.h>
#include <veskan/WSData.h>

#include <filesystem>

namespace Classroom {

using namespace Veskan;

namespace {

struct PageFile {
  const char* name;
  const char16_t* type;
};

const PageFile PageFiles[] = {
    {"student.html", u"text/html; charset=utf-8"},
    {"teacher.html", u"text/html; charset=utf-8"},
    {"classroom.css", u"text/css; charset=utf-8"},
    {"classroom.js", u"application/javascript; charset=utf-8"},
};

const char* TeacherUser = "teacher";

std::shared_ptr<Content> SealedBytes(const std::string& bytes, const char16_t* type) {
  auto content = std::make_shared<Content>(reinterpret_cast<const unsigned char*>(bytes.data()),
                                           static_cast<int>(bytes.size()));
  content->Sealed(type);  // sealed once: every reply sends this same object
  return content;
}

}  // namespace

Site::Site(Lesson& lesson, const std::string& pagesFolder)
    : lesson_(lesson), token_(NewId().ToUTF8()) {
  for (const PageFile& file : PageFiles) {
    std::string path = (std::filesystem::path(pagesFolder) / file.name).string();
    ByteBuffer bytes = BytesFromFile(UTF8to16(path.c_str()).getTerminatedBuffer());
    if (bytes.Size() == 0) {
      error_ = "cannot read the page " + path;
      return;
    }
    std::string text(bytes.Data(), bytes.Data() + bytes.Size());
    // The teacher's page is only served behind the password, so it may carry the socket's token.
    std::size_t marker = text.find("{{token}}");
    if (marker != std::string::npos) text.replace(marker, 9, token_);
    pages_[file.name] = Page{SealedBytes(text, file.type), file.type};
  }
}

void Site::Serve(const std::shared_ptr<Server>& server, const StringBuffer& password) {
  server->MessageReceived.connect(
      [this](const std::shared_ptr<Server>&, const std::shared_ptr<Client>& client,
             const std::shared_ptr<Message>& message) { Answer(client, message); });
  server->WebSocketMessage.connect(
      [this](const std::shared_ptr<Server>&, const std::shared_ptr<Client>& client,
             const std::shared_ptr<WSData>& event) { OnWebSocket(client, event); });
  StringBuffer user = UTF8to16(TeacherUser);
  server->SetAuthorization(u"veskan-classroom",
                           [user, password](const StringBuffer& name, Server::Credential& found) {
                             if (name != user) return false;
                             found.Password = password;
                             return true;
                           });
}

void Site::Reply(const std::shared_ptr<Message>& message, const char* name) {
  auto lock = message->Lock();
  const Page& page = pages_[name];
  message->StatusCode = 200;
  message->Reply->Headers[Header::ContentType] = page.type;
  message->Reply->Headers[u"Cache-Control"] = u"no-cache";
  message->Reply->Content = page.content;
}

void Site::Answer(const std::shared_ptr<Client>& client, const std::shared_ptr<Message>& message) {
  StringBuffer path;
  {
    auto lock = message->Lock();
    path = message->Url->Path;
    if (message->Method != Methods::GET) {
      message->StatusCode = 405;
      message->Reply->Headers[u"Allow"] = u"GET";
      return;
    }
  }
  if (path == u"/" || path == u"/index.html") {
    Reply(message, "student.html");
  } else if (path == u"/classroom.css") {
    Reply(message, "classroom.css");
  } else if (path == u"/classroom.js") {
    Reply(message, "classroom.js");
  } else if (path == u"/teacher" || path == u"/teacher/") {
    if (client->Authorized(message)) Reply(message, "teacher.html");
  } else if (path == u"/teacher/results.csv") {
    if (!client->Authorized(message)) return;
    // The byte order mark lets spreadsheet programs read the names as UTF-8.
    std::string csv = "\xEF\xBB\xBF" + lesson_.CurrentQuiz().ResultsCsv();
    auto lock = message->Lock();
    message->StatusCode = 200;
    message->Reply->Headers[Header::ContentType] = u"text/csv; charset=utf-8";
    message->Reply->Headers[u"Content-Disposition"] = u"attachment; filename=\"results.csv\"";
    message->Reply->Headers[u"Cache-Control"] = u"no-store";
    message->Reply->Content = SealedBytes(csv, u"text/csv; charset=utf-8");
  } else {
    auto lock = message->Lock();
    message->StatusCode = 404;
  }
}

void Site::OnWebSocket(const std::shared_ptr<Client>& client,
                       const std::shared_ptr<WSData>& event) {
  switch (event->Method) {
    case Methods::WEBSOCKETCONNECT: {
      StringBuffer target = client->WebSocketTarget();
      if (target == u"/ws/student") {
        lesson_.Connected(client, Lesson::Role::Student);
      } else if (target == UTF8to16(("/ws/teacher?token=" + token_).c_str())) {
        lesson_.Connected(client, Lesson::Role::Teacher);
      } else {
        client->CloseWebSocket(1008);  // policy violation: nothing here for this address
      }
      return;
    }
    case Methods::WEBSOCKETMESSAGE:
      for (const StringBuffer& text : event->Messages)
        lesson_.Received(client, text);
      return;
    case Methods::WEBSOCKETDISCONNECT:
      lesson_.Disconnected(client);
      return;
    default:
      return;
  }
}

}  // namespace Classroom
