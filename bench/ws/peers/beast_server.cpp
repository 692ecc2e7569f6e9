// WebSocket peer on Boost.Beast: asynchronous, one io_context thread. A plain HTTP session per
// connection; an upgrade request to /ws hands the socket to a WebSocket session that reads
// continuously and writes from a queue (echoes and broadcasts share it; Beast allows one write
// in flight).
//   /ws              WebSocket echo: every text or binary message goes back to its sender.
//   POST /broadcast  the request body goes out as one text message to every open /ws
//                    session (one shared buffer); the reply is 200 text/plain with the number
//                    reached.
//   /hello           "Hello, world!"
// Usage: beast_server [PORT]   (0 or nothing: any free port; the port is printed as
// "listening on http://127.0.0.1:PORT/")
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <string>
#include <unordered_set>

namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
namespace net = boost::asio;
using tcp = net::ip::tcp;

namespace {

class WebSocketSession;

// The open WebSocket sessions, for POST /broadcast.
class Hub {
 public:
  void Join(WebSocketSession* session) { sessions_.insert(session); }
  void Leave(WebSocketSession* session) { sessions_.erase(session); }
  int Broadcast(const std::shared_ptr<const std::string>& text);

 private:
  std::unordered_set<WebSocketSession*> sessions_;
};

class WebSocketSession : public std::enable_shared_from_this<WebSocketSession> {
 public:
  WebSocketSession(tcp::socket&& socket, Hub& hub) : ws_(std::move(socket)), hub_(hub) {}
  ~WebSocketSession() { hub_.Leave(this); }

  void Run(http::request<http::string_body> request) {
    ws_.async_accept(request,
                     beast::bind_front_handler(&WebSocketSession::OnAccept, shared_from_this()));
  }

  void Send(std::shared_ptr<const std::string> data, bool text) {
    queue_.push_back(Outgoing{std::move(data), text});
    if (queue_.size() == 1) DoWrite();
  }

 private:
  struct Outgoing {
    std::shared_ptr<const std::string> data;
    bool text;
  };

  void OnAccept(beast::error_code ec) {
    if (ec) return;
    hub_.Join(this);
    DoRead();
  }

  void DoRead() {
    ws_.async_read(buffer_,
                   beast::bind_front_handler(&WebSocketSession::OnRead, shared_from_this()));
  }

  void OnRead(beast::error_code ec, std::size_t) {
    if (ec) {  // closed by the client, reset or a protocol error: no more broadcasts here
      hub_.Leave(this);
      return;
    }
    auto echo = std::make_shared<const std::string>(beast::buffers_to_string(buffer_.data()));
    buffer_.consume(buffer_.size());
    Send(std::move(echo), ws_.got_text());
    DoRead();
  }

  void DoWrite() {
    ws_.text(queue_.front().text);
    ws_.async_write(net::buffer(*queue_.front().data),
                    beast::bind_front_handler(&WebSocketSession::OnWrite, shared_from_this()));
  }

  void OnWrite(beast::error_code ec, std::size_t) {
    if (ec) {
      hub_.Leave(this);
      queue_.clear();
      return;
    }
    queue_.pop_front();
    if (!queue_.empty()) DoWrite();
  }

  websocket::stream<beast::tcp_stream> ws_;
  Hub& hub_;
  beast::flat_buffer buffer_;
  std::deque<Outgoing> queue_;
};

int Hub::Broadcast(const std::shared_ptr<const std::string>& text) {
  int reached = 0;
  for (WebSocketSession* session : sessions_) {
    session->Send(text, true);
    ++reached;
  }
  return reached;
}

class HttpSession : public std::enable_shared_from_this<HttpSession> {
 public:
  HttpSession(tcp::socket&& socket, Hub& hub) : stream_(std::move(socket)), hub_(hub) {}

  void Run() { DoRead(); }

 private:
  void DoRead() {
    request_ = {};
    http::async_read(stream_, buffer_, request_,
                     beast::bind_front_handler(&HttpSession::OnRead, shared_from_this()));
  }

  void OnRead(beast::error_code ec, std::size_t) {
    if (ec) {
      if (ec == http::error::end_of_stream) Close();
      return;
    }
    if (websocket::is_upgrade(request_)) {
      if (request_.target() == "/ws") {
        std::make_shared<WebSocketSession>(stream_.release_socket(), hub_)
            ->Run(std::move(request_));
        return;
      }
      Answer(http::status::not_found, "Not found");
      return;
    }
    if (request_.target() == "/broadcast" && request_.method() == http::verb::post) {
      auto text = std::make_shared<const std::string>(std::move(request_.body()));
      Answer(http::status::ok, std::to_string(hub_.Broadcast(text)));
    } else if (request_.target() == "/hello") {
      Answer(http::status::ok, "Hello, world!");
    } else {
      Answer(http::status::not_found, "Not found");
    }
  }

  void Answer(http::status status, std::string body) {
    response_ = {};
    response_.result(status);
    response_.version(request_.version());
    response_.set(http::field::content_type, "text/plain");
    response_.body() = std::move(body);
    response_.keep_alive(request_.keep_alive());
    response_.prepare_payload();
    http::async_write(stream_, response_,
                      beast::bind_front_handler(&HttpSession::OnWrite, shared_from_this()));
  }

  void OnWrite(beast::error_code ec, std::size_t) {
    if (ec) return;
    if (!response_.keep_alive()) {
      Close();
      return;
    }
    DoRead();
  }

  void Close() {
    beast::error_code ec;
    stream_.socket().shutdown(tcp::socket::shutdown_send, ec);
  }

  beast::tcp_stream stream_;
  Hub& hub_;
  beast::flat_buffer buffer_;
  http::request<http::string_body> request_;
  http::response<http::string_body> response_;
};

class Listener : public std::enable_shared_from_this<Listener> {
 public:
  Listener(net::io_context& ioc, const tcp::endpoint& endpoint, Hub& hub)
      : ioc_(ioc), acceptor_(ioc), hub_(hub) {
    acceptor_.open(endpoint.protocol());
    acceptor_.set_option(net::socket_base::reuse_address(true));
    acceptor_.bind(endpoint);
    acceptor_.listen(net::socket_base::max_listen_connections);
  }

  unsigned short Port() const { return acceptor_.local_endpoint().port(); }

  void Run() { DoAccept(); }

 private:
  void DoAccept() {
    acceptor_.async_accept(ioc_,
                           beast::bind_front_handler(&Listener::OnAccept, shared_from_this()));
  }

  void OnAccept(beast::error_code ec, tcp::socket socket) {
    if (!ec) {
      beast::error_code ignored;
      socket.set_option(tcp::no_delay(true), ignored);
      std::make_shared<HttpSession>(std::move(socket), hub_)->Run();
    }
    DoAccept();
  }

  net::io_context& ioc_;
  tcp::acceptor acceptor_;
  Hub& hub_;
};

}  // namespace

int main(int argc, char** argv) {
  const int port = argc > 1 ? std::atoi(argv[1]) : 0;
  if (port < 0 || port > 65535) {
    std::fprintf(stderr, "usage: %s [PORT]\n", argv[0]);
    return 2;
  }
  try {
    Hub hub;  // outlives the io_context, whose destruction ends the remaining sessions
    net::io_context ioc{1};
    auto listener = std::make_shared<Listener>(
        ioc, tcp::endpoint{net::ip::make_address("127.0.0.1"), static_cast<unsigned short>(port)},
        hub);
    listener->Run();

    net::signal_set signals(ioc, SIGINT, SIGTERM);
    signals.async_wait([&](beast::error_code, int) { ioc.stop(); });

    std::printf("listening on http://127.0.0.1:%u/\n", static_cast<unsigned>(listener->Port()));
    std::fflush(stdout);
    ioc.run();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "beast_server: %s\n", error.what());
    return 1;
  }
  return 0;
}
