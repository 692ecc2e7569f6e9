// Handshake selection and delivery of WebSocket events; WSData.
#include "net/websocket/WebSocketSupport.h"

#include <veskan/StringBuffer.h>

#include <algorithm>
#include <atomic>

namespace Veskan {

WSData::WSData() = default;
WSData::WSData(const WSData& other) = default;
WSData& WSData::operator=(const WSData& other) = default;
WSData::~WSData() = default;

namespace Detail {

namespace {

std::atomic<std::uint32_t> upgradedConnections{0};

std::shared_ptr<WSData> EventOf(Methods::Enumeration method) {
  auto event = std::make_shared<WSData>();
  event->Method = method;
  return event;
}

// Appends one WEBSOCKETMESSAGE event with the messages received, if any.
void DeliverMessages(const std::vector<std::string>& received,
                     std::vector<std::shared_ptr<WSData>>& events) {
  if (received.empty()) return;
  std::shared_ptr<WSData> event = EventOf(Methods::WEBSOCKETMESSAGE);
  event->Messages.reserve(received.size());
  for (const std::string& message : received) {
    event->Messages.push_back(UTF8to16(message.data(), 0, static_cast<int>(message.size())));
  }
  events.push_back(std::move(event));
}

}  // namespace

WebSocketSupport::WebSocketSupport(std::size_t maxMessageBytes)
    : maxMessageBytes_(maxMessageBytes) {}

WebsocketSpecifications::UpgradeRequest WebSocketSupport::RequestOf(const Message& message) {
  WebsocketSpecifications::UpgradeRequest request(message.Url ? message.Url->Text.ToUTF8()
                                                              : std::string());
  if (message.Request) {
    for (const Header& header : message.Request->Headers)
      request.Add(header.Name.ToUTF8(), header.Value.ToUTF8());
  }
  return request;
}

int WebSocketSupport::Upgrade(const WebsocketSpecifications::UpgradeRequest& request,
                              const char* rest, std::size_t length,
                              std::vector<std::shared_ptr<WSData>>& events, std::string& wire) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (specification_ || request_ || HandshakeFailed()) return NothingToDeliver;
  request_ = std::make_unique<WebsocketSpecifications::UpgradeRequest>(request);
  pending_.assign(rest, length);
  return Handshake(events, wire);
}

int WebSocketSupport::Handshake(std::vector<std::shared_ptr<WSData>>& events, std::string& wire) {
  const unsigned both =
      WebsocketSpecifications::HandshakeFlags::Key1 | WebsocketSpecifications::HandshakeFlags::Key2;
  std::unique_ptr<WebsocketSpecifications::Specification> specification;
  if ((request_->Flags & both) == both) {
    if (pending_.size() < 8) return NeedMore;  // the challenge bytes follow the header block
    specification = std::make_unique<WebsocketSpecifications::hybi_00>(maxMessageBytes_);
  } else {
    specification = std::make_unique<WebsocketSpecifications::hybi_17>(maxMessageBytes_);
  }
  bool answered = specification->Handshake(*request_, pending_.data(), pending_.size(), wire);
  request_.reset();
  if (!answered) {
    Publish(State::Refused);
    pending_.clear();
    return NothingToDeliver;
  }
  specification_ = std::move(specification);
  number_ = ++upgradedConnections;
  events.push_back(EventOf(Methods::WEBSOCKETCONNECT));
  // Frames sent right behind the request are read now, not left until more bytes come.
  std::string frames = pending_.substr(specification_->HandshakeLength());
  std::string().swap(pending_);
  std::vector<std::string> received;
  if (!frames.empty()) specification_->ReadFrames(frames.data(), frames.size(), received, wire);
  PublishOpenOrClosed();
  DeliverMessages(received, events);
  return Deliver;
}

int WebSocketSupport::Feed(const char* data, std::size_t length,
                           std::vector<std::shared_ptr<WSData>>& events, std::string& wire) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (length == 0 || HandshakeFailed()) return NothingToDeliver;
  const std::size_t eventsBefore = events.size();
  if (request_) {  // a hybi-00 handshake waiting for its challenge bytes
    std::size_t taken = std::min(length, 8 - pending_.size());
    pending_.append(data, taken);
    data += taken;
    length -= taken;
    int result = Handshake(events, wire);
    if (result != Deliver || length == 0 || !specification_->IsOpen()) return result;
  }
  if (!specification_ || !specification_->IsOpen()) return NothingToDeliver;
  std::vector<std::string> received;
  int result = specification_->ReadFrames(data, length, received, wire);
  PublishOpenOrClosed();
  // Messages completed before a malformed frame closed the specification are still delivered.
  DeliverMessages(received, events);
  if (events.size() > eventsBefore) return Deliver;
  return result == WebsocketSpecifications::Specification::MessagesReady ? NeedMore : result;
}

bool WebSocketSupport::Write(const char* data, std::size_t length, bool binary, std::string& wire) {
  std::lock_guard<std::mutex> lock(mutex_);
  return specification_ && specification_->WriteFrame(data, length, binary, wire);
}

void WebSocketSupport::Close(int code, std::string& wire) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!specification_) return;
  specification_->Close(code, wire);
  PublishOpenOrClosed();
}

std::uint32_t WebSocketSupport::ConnectionNumber() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return number_;
}

std::string WebSocketSupport::Target() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return specification_ ? specification_->Target() : std::string();
}

int WebSocketSupport::Revision() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return specification_ ? specification_->Revision() : -1;
}

}  // namespace Detail
}  // namespace Veskan
