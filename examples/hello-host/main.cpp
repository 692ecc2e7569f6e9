// hello-host: a host program built on the installed Veskan library, as another project uses it.
// It answers every request on a port of its own with the library's server, then asks for
// "/hello" with the library's HTTP client: at each base URL given on the command line (a running
// veskan-serve, for example) and at itself.
//
//   hello-host [BASE-URL...]   prints each reply; exits 0 when every one was 200
#include <veskan/ByteBuffer.h>
#include <veskan/Content.h>
#include <veskan/HttpClient.h>
#include <veskan/Message.h>
#include <veskan/Server.h>
#include <veskan/StringBuffer.h>

#include <iostream>
#include <memory>
#include <string>

using namespace Veskan;

namespace {

std::string Utf8(const StringBuffer& text) {
  const ByteBuffer bytes = UTF16to8(text);
  return std::string(bytes, bytes.Size());
}

// Sends GET /hello to `base` and prints the reply; true when it was 200.
bool AskHello(const StringBuffer& base) {
  auto client = std::make_shared<HttpClient>();
  if (!client->Connect(StringBuffer(base).getTerminatedBuffer())) return false;
  std::shared_ptr<Message> message = Message::New();
  message->Open(Methods::GET, u"/hello");
  client->Send(message, false);  // in the foreground: returns with the reply
  auto lock = message->Lock();
  std::string text;
  if (message->Reply && message->Reply->Content) {
    const Content& content = *message->Reply->Content;
    text.assign(reinterpret_cast<const char*>(content.Data()), content.Size());
  }
  std::cout << Utf8(base) << "/hello: " << message->StatusCode << " " << text << "\n";
  return message->StatusCode == 200;
}

}  // namespace

int main(int argc, char** argv) {
  // Direct mode: the handler runs on the engine's worker threads, so this program needs no
  // event loop of its own.
  auto server = std::make_shared<Server>(true, nullptr, nullptr);
  const auto greeting = std::make_shared<Content>(u"Hello from hello-host!");
  server->MessageReceived.connect([greeting](const std::shared_ptr<Server>&,
                                             const std::shared_ptr<Client>&,
                                             const std::shared_ptr<Message>& message) {
    auto lock = message->Lock();
    message->StatusCode = 200;
    message->Reply->Headers[Header::ContentType] = Content::Types::TextPlain;
    message->Reply->Content = greeting;
  });
  if (!server->Start(u"http://127.0.0.1:0/", false)) {
    std::cerr << "hello-host: cannot listen\n";
    return 1;
  }

  bool allAnswered = true;
  for (int i = 1; i < argc; ++i)
    allAnswered = AskHello(UTF8to16(argv[i])) && allAnswered;
  allAnswered =
      AskHello(StringBuffer(u"http://127.0.0.1:") + FormatInteger(server->Port())) && allAnswered;
  server->Stop(1000);
  return allAnswered ? 0 : 1;
}
