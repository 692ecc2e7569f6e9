// "Hello, world!" peer on POCO's HTTPServer. POCO serves each connection on a pool thread for as
// long as the connection lives, so the pool size bounds the connections served at once.
// Usage: poco_hello PORT [MAX_THREADS]
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/ThreadPool.h>
#include <Poco/Timespan.h>

#include <signal.h>

#include <cstdio>
#include <cstdlib>

namespace {

constexpr char kBody[] = "Hello, world!";

class HelloHandler : public Poco::Net::HTTPRequestHandler {
 public:
  void handleRequest(Poco::Net::HTTPServerRequest&,
                     Poco::Net::HTTPServerResponse& response) override {
    response.setStatus(Poco::Net::HTTPResponse::HTTP_OK);
    response.setContentType("text/plain");
    response.sendBuffer(kBody, sizeof kBody - 1);
  }
};

class HelloFactory : public Poco::Net::HTTPRequestHandlerFactory {
 public:
  Poco::Net::HTTPRequestHandler* createRequestHandler(
      const Poco::Net::HTTPServerRequest&) override {
    return new HelloHandler;
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s PORT [MAX_THREADS]\n", argv[0]);
    return 2;
  }
  const auto port = static_cast<Poco::UInt16>(std::atoi(argv[1]));
  const int maxThreads = argc > 2 ? std::atoi(argv[2]) : 1024;

  // Block the stop signals before any thread starts so only sigwait below sees them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  Poco::ThreadPool pool(16, maxThreads);
  auto* params = new Poco::Net::HTTPServerParams;  // owned by the server
  params->setMaxThreads(maxThreads);
  params->setMaxQueued(20000);
  params->setKeepAlive(true);
  params->setMaxKeepAliveRequests(0);  // unlimited
  params->setKeepAliveTimeout(Poco::Timespan(120, 0));

  Poco::Net::ServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", port), 4096);
  Poco::Net::HTTPServer server(new HelloFactory, pool, socket, params);
  server.start();
  std::printf("listening on http://127.0.0.1:%u/\n", static_cast<unsigned>(port));
  std::fflush(stdout);

  int signal = 0;
  sigwait(&stopSignals, &signal);
  server.stopAll(true);
  pool.joinAll();
  return 0;
}
