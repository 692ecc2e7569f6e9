// "Hello, world!" peer on libmicrohttpd: one internal thread driven by epoll, one persistent
// response object shared by every request. Usage: mhd_hello PORT
#include <microhttpd.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr char kBody[] = "Hello, world!";
MHD_Response* response = nullptr;
volatile sig_atomic_t stopRequested = 0;

int requestSeen;  // its address marks a request whose headers were already handed to answer()

// libmicrohttpd calls this first when the headers are in; queueing the reply at that point makes it
// close the connection afterwards. Answering on the second call, once the request is complete,
// keeps the connection alive.
MHD_Result answer(void*, MHD_Connection* connection, const char*, const char*, const char*,
                  const char*, size_t* uploadSize, void** state) {
  if (*state == nullptr) {
    *state = &requestSeen;
    return MHD_YES;
  }
  if (*uploadSize != 0) {
    *uploadSize = 0;  // ignore any request body
    return MHD_YES;
  }
  return MHD_queue_response(connection, MHD_HTTP_OK, response);
}

void onSignal(int) {
  stopRequested = 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s PORT\n", argv[0]);
    return 2;
  }
  const int port = std::atoi(argv[1]);

  response = MHD_create_response_from_buffer(sizeof kBody - 1, const_cast<char*>(kBody),
                                             MHD_RESPMEM_PERSISTENT);
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, "text/plain");

  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);

  // The built-in connection cap is FD_SETSIZE-based (about 1,000); with epoll it can be lifted,
  // which the idle-connection test needs. No connection timeout: idle keep-alive stays open.
  MHD_Daemon* daemon = MHD_start_daemon(MHD_USE_EPOLL_INTERNAL_THREAD, static_cast<uint16_t>(port),
                                        nullptr, nullptr, &answer, nullptr, MHD_OPTION_SOCK_ADDR,
                                        &address, MHD_OPTION_CONNECTION_LIMIT, 20000u,
                                        MHD_OPTION_CONNECTION_TIMEOUT, 0u, MHD_OPTION_END);
  if (daemon == nullptr) {
    std::fprintf(stderr, "mhd_hello: cannot start on port %d\n", port);
    return 1;
  }
  std::printf("listening on http://127.0.0.1:%d/\n", port);
  std::fflush(stdout);

  signal(SIGINT, onSignal);
  signal(SIGTERM, onSignal);
  while (!stopRequested)
    pause();

  MHD_stop_daemon(daemon);
  MHD_destroy_response(response);
  return 0;
}
