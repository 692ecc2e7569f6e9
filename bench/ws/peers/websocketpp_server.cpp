// WebSocket peer on websocketpp (Asio transport, no TLS), one thread running the io_context.
//   /ws              WebSocket echo: every text or binary message goes back to its sender.
//   POST /broadcast  the request body goes out as one text message to every open /ws
//                    connection; the reply is 200 text/plain with the number reached.
//   /hello           "Hello, world!"
// Usage: websocketpp_server [PORT]   (0 or nothing: any free port; the port is printed as
// "listening on http://127.0.0.1:PORT/")
#include <websocketpp/config/asio_no_tls.hpp>
#include <websocketpp/server.hpp>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>

namespace {

using Endpoint = websocketpp::server<websocketpp::config::asio>;
using websocketpp::connection_hdl;
namespace asio = websocketpp::lib::asio;

class EchoBroadcastServer {
 public:
  EchoBroadcastServer() {
    endpoint_.clear_access_channels(websocketpp::log::alevel::all);
    endpoint_.clear_error_channels(websocketpp::log::elevel::all);
    endpoint_.init_asio();
    endpoint_.set_reuse_addr(true);
    endpoint_.set_listen_backlog(asio::socket_base::max_listen_connections);
    endpoint_.set_tcp_post_init_handler([this](connection_hdl hdl) {  // accepted: socket open
      asio::error_code ignored;
      endpoint_.get_con_from_hdl(hdl)->get_socket().set_option(asio::ip::tcp::no_delay(true),
                                                               ignored);
    });
    endpoint_.set_open_handler([this](connection_hdl hdl) { clients_.insert(hdl); });
    endpoint_.set_close_handler([this](connection_hdl hdl) { clients_.erase(hdl); });
    endpoint_.set_message_handler([this](connection_hdl hdl, Endpoint::message_ptr message) {
      websocketpp::lib::error_code ignored;
      endpoint_.send(hdl, message->get_payload(), message->get_opcode(), ignored);
    });
    endpoint_.set_http_handler([this](connection_hdl hdl) { AnswerHttp(hdl); });
  }

  unsigned short Listen(unsigned short port) {
    endpoint_.listen(asio::ip::tcp::endpoint(asio::ip::address_v4::loopback(), port));
    endpoint_.start_accept();
    asio::error_code ec;
    return endpoint_.get_local_endpoint(ec).port();
  }

  void Run() {
    asio::signal_set signals(endpoint_.get_io_service(), SIGINT, SIGTERM);
    signals.async_wait([this](const asio::error_code&, int) { endpoint_.stop(); });
    endpoint_.run();
  }

 private:
  void AnswerHttp(connection_hdl hdl) {
    Endpoint::connection_ptr connection = endpoint_.get_con_from_hdl(hdl);
    const std::string& method = connection->get_request().get_method();
    const std::string& resource = connection->get_resource();
    if (resource == "/broadcast" && method == "POST") {
      const std::string& body = connection->get_request_body();
      int reached = 0;
      for (const connection_hdl& client : clients_) {
        websocketpp::lib::error_code ec;
        endpoint_.send(client, body, websocketpp::frame::opcode::text, ec);
        if (!ec) ++reached;
      }
      Reply(*connection, websocketpp::http::status_code::ok, std::to_string(reached));
    } else if (resource == "/hello") {
      Reply(*connection, websocketpp::http::status_code::ok, "Hello, world!");
    } else {
      Reply(*connection, websocketpp::http::status_code::not_found, "Not found");
    }
  }

  static void Reply(Endpoint::connection_type& connection,
                    websocketpp::http::status_code::value status, const std::string& body) {
    connection.set_status(status);
    connection.replace_header("Content-Type", "text/plain");
    connection.set_body(body);
  }

  Endpoint endpoint_;
  std::set<connection_hdl, std::owner_less<connection_hdl>> clients_;
};

}  // namespace

int main(int argc, char** argv) {
  const int port = argc > 1 ? std::atoi(argv[1]) : 0;
  if (port < 0 || port > 65535) {
    std::fprintf(stderr, "usage: %s [PORT]\n", argv[0]);
    return 2;
  }
  try {
    EchoBroadcastServer server;
    const unsigned short bound = server.Listen(static_cast<unsigned short>(port));
    std::printf("listening on http://127.0.0.1:%u/\n", static_cast<unsigned>(bound));
    std::fflush(stdout);
    server.Run();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "websocketpp_server: %s\n", error.what());
    return 1;
  }
  return 0;
}
