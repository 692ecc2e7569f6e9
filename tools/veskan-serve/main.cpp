// veskan-serve: a small HTTP server built with the library, for trying it out, for black-box
// tests and for the benchmarks.
//
//   veskan-serve [--port N] [--root DIR] [--direct] [--cert FILE [--key FILE]] [--user
//   NAME:PASSWORD]
//
// Without --port it listens on the HttpPort setting of the machine's software-service key (23456
// when unset), and once listening writes the port it bound to CurrentBasePort in the user's.
//
// With --cert it serves HTTPS only: the certificate (chain) and its private key in PEM or DER, the
// key in the certificate file when --key is not given. A certificate or key that cannot be used
// is reported on stderr, and the program exits with 1.
//
// Routes: /echo describes the request as the library parsed it, /files/PATH serves files under
// the root, /hello answers "Hello, world!", /status reports the engine's counts, /ws is a
// WebSocket (either handshake) that sends every text message back, and POST /broadcast sends its
// body as one text message to every /ws connection and answers how many took it; anything else
// is 404. With --user, /private/ answers "Hello, world!" to that user only (Basic or Digest
// authentication; anyone else gets 401 and the challenges). Stops on SIGINT or SIGTERM, and
// when a shutdown is requested (veskan-shutdown).
#include "../common/HostProcess.h"

#include <veskan/Body.h>
#include <veskan/ByteBuffer.h>
#include <veskan/Content.h>
#include <veskan/Daemon.h>
#include <veskan/DaemonMarshaller.h>
#include <veskan/Globals.h>
#include <veskan/Logger.h>
#include <veskan/Message.h>
#include <veskan/Preferences.h>
#include <veskan/Server.h>
#include <veskan/Shutdowner.h>
#include <veskan/StringBuffer.h>
#include <veskan/WSData.h>
#include <veskan/XmlSchema.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <map>
#include <mutex>
#include <string>

namespace {

using namespace Veskan;

struct Options {
  int port = -1;  // none given: the software service's HttpPort setting
  std::filesystem::path root = std::filesystem::current_path();
  bool direct = false;
  std::string certificate;
  std::string key;
  std::string user;  // "NAME:PASSWORD", empty: /private/ is not served
};

bool ParseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    std::string argument = argv[i];
    bool hasValue = i + 1 < argc;
    if (argument == "--port" && hasValue) {
      if (!Tools::ParsePort(argv[++i], options.port)) return false;
    } else if (argument == "--root" && hasValue) {
      options.root = argv[++i];
    } else if (argument == "--direct") {
      options.direct = true;
    } else if (argument == "--cert" && hasValue) {
      options.certificate = argv[++i];
    } else if (argument == "--key" && hasValue) {
      options.key = argv[++i];
    } else if (argument == "--user" && hasValue) {
      options.user = argv[++i];
      if (options.user.find(':') == std::string::npos) return false;
    } else {
      return false;
    }
  }
  std::error_code error;
  options.root = std::filesystem::canonical(options.root, error);
  return !error;
}

// Media types of the files the server is likely to hand out.
const char16_t* MediaTypeOf(const std::filesystem::path& file) {
  static const struct {
    const char* extension;
    const char16_t* type;
  } types[] = {
      {".html", u"text/html"},
      {".htm", u"text/html"},
      {".css", u"text/css"},
      {".js", u"application/javascript"},
      {".json", u"application/json"},
      {".xml", u"text/xml"},
      {".rdf", u"application/rdf+xml"},
      {".txt", u"text/plain"},
      {".csv", u"text/csv"},
      {".png", u"image/png"},
      {".jpg", u"image/jpeg"},
      {".jpeg", u"image/jpeg"},
      {".gif", u"image/gif"},
      {".svg", u"image/svg+xml"},
      {".ico", u"image/x-icon"},
      {".pdf", u"application/pdf"},
  };
  std::string extension = file.extension().string();
  for (char& c : extension)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  for (const auto& entry : types) {
    if (extension == entry.extension) return entry.type;
  }
  return Content::Types::ApplicationOctetStream;
}

// Files read once and shared by every reply until they change on disk. A reply refers to the
// cached content rather than to a copy of it (the engine sends from the content itself), so a
// client that asks for a large file many times costs the server one copy of it.
//
// Thread safety: Find may be called from any thread.
class FileCache {
 public:
  // The sealed content of `file` with the media type `type`; null when it cannot be read.
  std::shared_ptr<Content> Find(const std::filesystem::path& file, const char16_t* type) {
    std::error_code error;
    auto modified = std::filesystem::last_write_time(file, error);
    std::uintmax_t size = std::filesystem::file_size(file, error);
    if (error) return nullptr;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      auto found = entries_.find(file.string());
      if (found != entries_.end() && found->second.modified == modified &&
          found->second.size == size) {
        return found->second.content;
      }
    }
    ByteBuffer bytes = BytesFromFile(UTF8to16(file.string().c_str()).getTerminatedBuffer());
    if (static_cast<std::uintmax_t>(bytes.Size()) != size) return nullptr;  // changing meanwhile
    auto content = std::make_shared<Content>(bytes.Data(), bytes.Size());
    content->Sealed(type);  // sealed once here: replies share it and never change it
    if (size > MaxFileBytes) return content;  // served, not kept
    std::lock_guard<std::mutex> lock(mutex_);
    Entry& entry = entries_[file.string()];
    total_ -= entry.size;
    entry = Entry{modified, size, content};
    total_ += size;
    while (total_ > MaxTotalBytes && !entries_.empty()) {  // the cache stays small; any goes
      auto victim = entries_.begin();
      total_ -= victim->second.size;
      entries_.erase(victim);
    }
    return content;
  }

 private:
  static constexpr std::uintmax_t MaxFileBytes = 8 * 1024 * 1024;
  static constexpr std::uintmax_t MaxTotalBytes = 32 * 1024 * 1024;

  struct Entry {
    std::filesystem::file_time_type modified;
    std::uintmax_t size = 0;
    std::shared_ptr<Content> content;
  };
  std::mutex mutex_;
  std::map<std::string, Entry> entries_;
  std::uintmax_t total_ = 0;
};

class Routes {
 public:
  Routes(std::filesystem::path root, bool privateServed)
      : root_(std::move(root)), privateServed_(privateServed) {
    hello_ = std::make_shared<Content>(reinterpret_cast<const unsigned char*>("Hello, world!"), 13);
    hello_->Sealed(Content::Types::TextPlain);  // sealed once here, shared by every reply
  }

  void Answer(const std::shared_ptr<Server>& server, const std::shared_ptr<Client>& client,
              const std::shared_ptr<Message>& message) {
    ++served_;
    std::unique_lock<std::recursive_mutex> lock = message->Lock();
    const StringBuffer& path = message->Url->Path;
    if (path == u"/hello") {
      Reply(*message, 200, Content::Types::TextPlain, hello_);
    } else if (path.startsWith(StringBuffer(u"/private/")) && privateServed_) {
      lock.unlock();
      if (client->Authorized(message)) {
        lock.lock();
        Reply(*message, 200, Content::Types::TextPlain, hello_);
      }
    } else if (path == u"/echo") {
      lock.unlock();
      Echo(message);
    } else if (path.startsWith(StringBuffer(u"/files/"))) {
      File(*message, StringBuffer(path.tempSubString(7)));
    } else if (path == u"/status") {
      lock.unlock();
      Status(server, message);
    } else if (path == u"/broadcast" && message->Method == Methods::POST) {
      lock.unlock();
      Broadcast(message);
    } else {
      message->StatusCode = 404;
    }
  }

  // /ws: every text message goes back to its sender. Upgrades to other paths are closed.
  void OnWebSocket(const std::shared_ptr<Client>& client, const std::shared_ptr<WSData>& event) {
    switch (event->Method) {
      case Methods::WEBSOCKETCONNECT: {
        StringBuffer target = client->WebSocketTarget();
        int query = target.indexOf(u'?');
        if (query >= 0) target.truncate(query);
        if (target != u"/ws") {
          client->CloseWebSocket(1008);  // policy violation: nothing is served there
          return;
        }
        std::lock_guard<std::mutex> lock(socketsMutex_);
        sockets_[client->Id()] = client;
        return;
      }
      case Methods::WEBSOCKETMESSAGE:
        for (const StringBuffer& text : event->Messages)
          client->WriteThroughWebSocket(text);
        return;
      case Methods::WEBSOCKETDISCONNECT: {
        std::lock_guard<std::mutex> lock(socketsMutex_);
        sockets_.erase(client->Id());
        return;
      }
      default:
        return;
    }
  }

 private:
  static void Reply(Message& message, int status, const char16_t* type,
                    const std::shared_ptr<Content>& content) {
    message.StatusCode = status;
    message.Reply->Headers[Header::ContentType] = type;
    message.Reply->Content = content;
  }

  static void RespondXml(const std::shared_ptr<Message>& message,
                         const std::shared_ptr<XmlDocument>& document) {
    XmlSchema::RespondWithXml(message, document);
    auto lock = message->Lock();
    message->StatusCode = 200;
  }

  static xercesc::DOMElement* Add(xercesc::DOMElement* parent, const char16_t* name) {
    return XmlSchema::InsertNewElement(parent, name, nullptr);
  }

  static void AddHeaders(xercesc::DOMElement* parent, const Header::Collection& headers) {
    for (const Header& header : headers) {
      xercesc::DOMElement* element = Add(parent, u"header");
      XmlSchema::SetAttribute(element, u"name", StringBuffer(header.Name).getTerminatedBuffer());
      XmlSchema::CreateText(element, StringBuffer(header.Value).getTerminatedBuffer());
    }
  }

  static void Echo(const std::shared_ptr<Message>& message) {
    std::shared_ptr<XmlDocument> document = XmlSchema::NewDoc(u"<request/>");
    xercesc::DOMElement* request = XmlSchema::DocumentElement(document);
    {
      auto lock = message->Lock();
      const Url& url = *message->Url;
      XmlSchema::SetAttribute(request, u"method", Methods::ToString(message->Method));
      XmlSchema::SetAttribute(request, u"target", StringBuffer(url.Text).getTerminatedBuffer());
      XmlSchema::SetAttribute(request, u"path", StringBuffer(url.Path).getTerminatedBuffer());
      for (const Header& parameter : url.Query) {
        xercesc::DOMElement* element = Add(request, u"query");
        XmlSchema::SetAttribute(element, u"name",
                                StringBuffer(parameter.Name).getTerminatedBuffer());
        XmlSchema::CreateText(element, StringBuffer(parameter.Value).getTerminatedBuffer());
      }
      const Body& body = *message->Request;
      AddHeaders(request, body.Headers);
      for (const auto& entry : body.Cookies) {
        const Cookie& cookie = *entry.second;
        xercesc::DOMElement* element = Add(request, u"cookie");
        XmlSchema::SetAttribute(element, u"name", StringBuffer(cookie.Name).getTerminatedBuffer());
        XmlSchema::SetAttribute(element, u"max-age",
                                FormatInteger(cookie.MaxAge).getTerminatedBuffer());
        XmlSchema::CreateText(element, StringBuffer(cookie.Value).getTerminatedBuffer());
      }
      if (body.Content && body.Content->Size() > 0) {
        xercesc::DOMElement* element = Add(request, u"content");
        XmlSchema::SetAttribute(element, u"length",
                                FormatInteger(body.Content->Size()).getTerminatedBuffer());
        XmlSchema::SetAttribute(element, u"md5", MD5(*body.Content).getTerminatedBuffer());
        XmlSchema::CreateText(element, Encode64(*body.Content).getTerminatedBuffer());
      }
      int index = 0;
      for (const std::shared_ptr<Part>& part : body.Parts) {
        xercesc::DOMElement* element = Add(request, u"part");
        int length = part->Content ? part->Content->Size() : 0;
        XmlSchema::SetAttribute(element, u"index", FormatInteger(index++).getTerminatedBuffer());
        XmlSchema::SetAttribute(element, u"length", FormatInteger(length).getTerminatedBuffer());
        if (part->Content) {
          XmlSchema::SetAttribute(element, u"md5", MD5(*part->Content).getTerminatedBuffer());
        }
        AddHeaders(element, part->Headers);
      }
    }
    RespondXml(message, document);
  }

  void File(Message& message, const StringBuffer& relative) {
    std::string decoded(static_cast<const char*>(
        UTF16to8(Url::Decode(StringBuffer(relative).getTerminatedBuffer()))));
    std::error_code error;
    std::filesystem::path file = std::filesystem::weakly_canonical(root_ / decoded, error);
    // The canonical path must stay below the root: ".." and symbolic links cannot leave it.
    auto [rootEnd, fileAt] = std::mismatch(root_.begin(), root_.end(), file.begin(), file.end());
    (void)fileAt;
    if (error || decoded.empty() || rootEnd != root_.end() ||
        !std::filesystem::is_regular_file(file, error)) {
      message.StatusCode = 404;
      return;
    }
    std::shared_ptr<Content> content = files_.Find(file, MediaTypeOf(file));
    if (!content) {
      message.StatusCode = 404;
      return;
    }
    Reply(message, 200, MediaTypeOf(file), content);
  }

  // POST /broadcast: the body, as one text message, to every /ws connection; answers the number
  // of connections that took it.
  void Broadcast(const std::shared_ptr<Message>& message) {
    StringBuffer text;
    {
      auto lock = message->Lock();
      const std::shared_ptr<Content>& body = message->Request->Content;
      if (body && body->Size() > 0) text = UTF8to16(body->Data(), 0, body->Size());
    }
    std::vector<std::shared_ptr<Client>> targets;
    {
      std::lock_guard<std::mutex> lock(socketsMutex_);
      targets.reserve(sockets_.size());
      for (const auto& entry : sockets_)
        targets.push_back(entry.second);
    }
    int reached = 0;
    for (const std::shared_ptr<Client>& client : targets) {
      if (client->WriteThroughWebSocket(text)) ++reached;
    }
    std::string count = std::to_string(reached);
    auto lock = message->Lock();
    Reply(*message, 200, Content::Types::TextPlain,
          std::make_shared<Content>(reinterpret_cast<const unsigned char*>(count.data()),
                                    static_cast<int>(count.size())));
  }

  int WebSocketCount() {
    std::lock_guard<std::mutex> lock(socketsMutex_);
    return static_cast<int>(sockets_.size());
  }

  void Status(const std::shared_ptr<Server>& server, const std::shared_ptr<Message>& message) {
    std::shared_ptr<XmlDocument> document = XmlSchema::NewDoc(u"<status/>");
    xercesc::DOMElement* status = XmlSchema::DocumentElement(document);
    XmlSchema::SetAttribute(status, u"connections",
                            FormatInteger(server->Connections().Count()).getTerminatedBuffer());
    XmlSchema::SetAttribute(status, u"daemons",
                            FormatInteger(Daemon::DaemonCount()).getTerminatedBuffer());
    XmlSchema::SetAttribute(status, u"requests",
                            FormatInteger(static_cast<int>(served_.load())).getTerminatedBuffer());
    XmlSchema::SetAttribute(status, u"websockets",
                            FormatInteger(WebSocketCount()).getTerminatedBuffer());
    RespondXml(message, document);
  }

  std::filesystem::path root_;
  bool privateServed_;
  FileCache files_;
  std::shared_ptr<Content> hello_;
  std::atomic<long long> served_{0};
  std::mutex socketsMutex_;
  std::map<std::uint64_t, std::shared_ptr<Client>> sockets_;  // the open /ws connections by id
};

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, options)) {
    std::cerr << "usage: veskan-serve [--port N] [--root DIR] [--direct] [--cert FILE [--key "
                 "FILE]] [--user NAME:PASSWORD]\n";
    return 2;
  }
  Tools::RaiseOpenFileLimit();
  // Any process of any user may ask every program of the system to close (veskan-shutdown).
  std::shared_ptr<Shutdowner> stopWatch = Tools::WatchForStop();

  Globals globals;  // the XML engines, for /echo and /status
  Routes routes(options.root, !options.user.empty());
  StringBuffer certificate = UTF8to16(options.certificate.c_str());
  StringBuffer key = UTF8to16(options.key.c_str());
  auto server = std::make_shared<Server>(options.direct, certificate.getTerminatedBuffer(),
                                         key.getTerminatedBuffer());
  server->MessageReceived.connect(
      [&routes](const std::shared_ptr<Server>& from, const std::shared_ptr<Client>& client,
                const std::shared_ptr<Message>& message) { routes.Answer(from, client, message); });
  if (!options.user.empty()) {
    const std::size_t colon = options.user.find(':');
    const StringBuffer user = UTF8to16(options.user.substr(0, colon).c_str());
    const StringBuffer password = UTF8to16(options.user.substr(colon + 1).c_str());
    server->SetAuthorization(u"veskan-serve",
                             [user, password](const StringBuffer& name, Server::Credential& found) {
                               if (name != user) return false;
                               found.Password = password;
                               return true;
                             });
  }
  server->WebSocketMessage.connect(
      [&routes](const std::shared_ptr<Server>&, const std::shared_ptr<Client>& client,
                const std::shared_ptr<WSData>& event) { routes.OnWebSocket(client, event); });

  if (options.port < 0)
    options.port = Preferences::ReadIntegerValue(
        false, Preferences::SoftwareServicePath, Preferences::SoftwareService::HttpPort,
        Preferences::File, Preferences::SoftwareService::DefaultHttpPort);
  StringBuffer base = StringBuffer(u"http://127.0.0.1:") + FormatInteger(options.port) + u"/";
  // The server's own errors (a certificate that cannot be used, a taken port) are shown as they
  // are logged.
  std::string errors;
  if (!Tools::StartServer(*server, base, errors)) {
    // The engine's errors are on stderr already when the library's log shows errors.
    if (errors.empty()) {
      std::cerr << "veskan-serve: cannot listen on port " << options.port << "\n";
    } else if (!Logger::IsEnabled(Logger::Severity::Error)) {
      std::cerr << "veskan-serve: " << errors;
    }
    return 1;
  }
  // Clients of this user find the port actually bound (port 0 lets the system choose).
  if (!Preferences::WriteIntegerValue(true, Preferences::SoftwareServicePath,
                                      Preferences::SoftwareService::CurrentBasePort,
                                      Preferences::File, server->Port()))
    std::cerr << "veskan-serve: could not record the port in the user's settings\n";
  std::cout << "listening on " << (server->IsSecure() ? "https" : "http")
            << "://127.0.0.1:" << server->Port() << "/" << std::endl;

  while (!Tools::StopRequested()) {
    // In window mode the handlers run here; in direct mode this only watches for the stop.
    DaemonMarshaller::RunEventLoopOnce();
  }
  stopWatch->Stop();
  server->Stop(1000);
  Daemon::WaitForAllThreads(5);
  return 0;
}
