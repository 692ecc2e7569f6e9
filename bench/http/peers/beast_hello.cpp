// "Hello, world!" peer on Boost.Beast: asynchronous, a single io_context thread, one session
// object per connection that reads a request, writes the reply and loops while keep-alive holds.
// Usage: beast_hello PORT
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/strand.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
using tcp = net::ip::tcp;

namespace {

class Session : public std::enable_shared_from_this<Session> {
 public:
  explicit Session(tcp::socket&& socket) : stream_(std::move(socket)) {}

  void run() { doRead(); }

 private:
  void doRead() {
    request_ = {};
    // No read deadline: an idle keep-alive connection stays open until the client closes it.
    http::async_read(stream_, buffer_, request_,
                     beast::bind_front_handler(&Session::onRead, shared_from_this()));
  }

  void onRead(beast::error_code ec, std::size_t) {
    if (ec) {
      if (ec != http::error::end_of_stream) return;  // reset or parse error: drop the connection
      doClose();
      return;
    }
    response_ = {};
    response_.result(http::status::ok);
    response_.version(request_.version());
    response_.set(http::field::content_type, "text/plain");
    response_.body() = "Hello, world!";
    response_.keep_alive(request_.keep_alive());
    response_.prepare_payload();
    http::async_write(stream_, response_,
                      beast::bind_front_handler(&Session::onWrite, shared_from_this()));
  }

  void onWrite(beast::error_code ec, std::size_t) {
    if (ec) return;
    if (!response_.keep_alive()) {
      doClose();
      return;
    }
    doRead();
  }

  void doClose() {
    beast::error_code ec;
    stream_.socket().shutdown(tcp::socket::shutdown_send, ec);
  }

  beast::tcp_stream stream_;
  beast::flat_buffer buffer_;
  http::request<http::empty_body> request_;
  http::response<http::string_body> response_;
};

class Listener : public std::enable_shared_from_this<Listener> {
 public:
  Listener(net::io_context& ioc, const tcp::endpoint& endpoint) : ioc_(ioc), acceptor_(ioc) {
    acceptor_.open(endpoint.protocol());
    acceptor_.set_option(net::socket_base::reuse_address(true));
    acceptor_.bind(endpoint);
    acceptor_.listen(net::socket_base::max_listen_connections);
  }

  void run() { doAccept(); }

 private:
  void doAccept() {
    acceptor_.async_accept(ioc_,
                           beast::bind_front_handler(&Listener::onAccept, shared_from_this()));
  }

  void onAccept(beast::error_code ec, tcp::socket socket) {
    if (!ec) std::make_shared<Session>(std::move(socket))->run();
    doAccept();
  }

  net::io_context& ioc_;
  tcp::acceptor acceptor_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s PORT\n", argv[0]);
    return 2;
  }
  const auto port = static_cast<unsigned short>(std::atoi(argv[1]));

  net::io_context ioc{1};
  std::make_shared<Listener>(ioc, tcp::endpoint{net::ip::make_address("127.0.0.1"), port})->run();

  net::signal_set signals(ioc, SIGINT, SIGTERM);
  signals.async_wait([&](beast::error_code, int) { ioc.stop(); });

  std::printf("listening on http://127.0.0.1:%u/\n", static_cast<unsigned>(port));
  std::fflush(stdout);
  ioc.run();
  return 0;
}
