// The WebSocket side of one connection: runs the handshake on the upgrade request, picks the
// protocol version, and turns received bytes into events for the host.
#ifndef VESKAN_NET_WEBSOCKET_WEBSOCKETSUPPORT_H
#define VESKAN_NET_WEBSOCKET_WEBSOCKETSUPPORT_H

#include <veskan/Message.h>
#include <veskan/WSData.h>

#include "net/websocket/WebsocketSpecifications.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Veskan {
namespace Detail {

// Thread safety: every operation takes the support's own mutex; the daemon feeds from the
// connection's worker while host threads write and close.
class WebSocketSupport {
 public:
  // Results of Feed.
  static constexpr int NothingToDeliver = 0;
  static constexpr int NeedMore = 1;
  static constexpr int Deliver = 2;

  // Frames (delivered or skipped) above `maxMessageBytes` close the connection.
  explicit WebSocketSupport(std::size_t maxMessageBytes);
  WebSocketSupport(const WebSocketSupport&) = delete;
  WebSocketSupport& operator=(const WebSocketSupport&) = delete;

  // What the handshakes need of an upgrade request the HTTP reader has read: its target and
  // header fields as UTF-8. The caller holds the message's lock.
  static WebsocketSpecifications::UpgradeRequest RequestOf(const Message& message);

  // Runs the handshake on `request`, with `rest` the bytes that followed its header block; the
  // version is chosen by the request's headers. A hybi-00 request waits here for its 8 challenge
  // bytes (Feed brings the rest). A completed handshake appends its answer to `wire` and a
  // WEBSOCKETCONNECT event to `events`, and reads the frames that came behind the request.
  // Returns as Feed does.
  int Upgrade(const WebsocketSpecifications::UpgradeRequest& request, const char* rest,
              std::size_t length, std::vector<std::shared_ptr<WSData>>& events, std::string& wire);
  // Feeds received bytes: the rest of a hybi-00 challenge, then frames. Complete text messages
  // become one WEBSOCKETMESSAGE event; bytes to send back (a closing frame) go to `wire`.
  // Returns Deliver when `events` received something, NeedMore while a handshake or frame is
  // incomplete, NothingToDeliver otherwise (no bytes, a failed handshake, closed).
  int Feed(const char* data, std::size_t length, std::vector<std::shared_ptr<WSData>>& events,
           std::string& wire);
  // Appends a frame with the bytes to `wire`; false before the handshake or after closing.
  bool Write(const char* data, std::size_t length, bool binary, std::string& wire);
  // Closes (sending the version's closing bytes with `code`); nothing when not open.
  void Close(int code, std::string& wire);

  // Read without the lock: the daemon asks after every feed.
  bool IsOpen() const { return state_.load(std::memory_order_acquire) == State::Open; }
  // True once the upgrade request was refused.
  bool HandshakeFailed() const { return state_.load(std::memory_order_acquire) == State::Refused; }
  // 1 for the first connection upgraded in the process, then one more for each; 0 before.
  std::uint32_t ConnectionNumber() const;
  // The target of the upgrade request ("/ws?room=1"); empty before the handshake.
  std::string Target() const;
  // 0 or 17 after the handshake; -1 before.
  int Revision() const;

 private:
  mutable std::mutex mutex_;
  const std::size_t maxMessageBytes_;
  std::unique_ptr<WebsocketSpecifications::Specification> specification_;
  std::uint32_t number_ = 0;
  enum class State { Handshaking, Open, Closed, Refused };
  // Follows the specification's open flag after every change, under the mutex.
  void Publish(State state) { state_.store(state, std::memory_order_release); }
  void PublishOpenOrClosed() {
    Publish(specification_ && specification_->IsOpen() ? State::Open : State::Closed);
  }

  // Runs the handshake once `pending_` holds what it needs; the rest of pending_ are frames.
  int Handshake(std::vector<std::shared_ptr<WSData>>& events, std::string& wire);

  std::unique_ptr<WebsocketSpecifications::UpgradeRequest> request_;  // until its handshake ran
  std::string pending_;  // the bytes behind the request until the handshake has run
  std::atomic<State> state_{State::Handshaking};
};

}  // namespace Detail
}  // namespace Veskan

#endif
