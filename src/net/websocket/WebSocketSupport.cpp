// Handshake selection and delivery of WebSocket events; WSData.
#include "net/websocket/WebSocketSupport.h"

#include <veskan/StringBuffer.h>

#include <atomic>

namespace Veskan {

WSData::WSData() = default;
WSData::WSData(const WSData& other) = default;
WSData& WSData::operator=(const WSData& other) = default;
WSData::~WSData() = default;

namespace Detail {

namespace {

std::atomic<std::uint32_t> upgradedConnections{0};

// An upgrade request longer than this is refused; real ones are a few hundred bytes.
constexpr std::size_t MaxHandshakeBytes = 64 * 1024;

std::shared_ptr<WSData> EventOf(Methods::Enumeration method) {
  auto event = std::make_shared<WSData>();
  event->Method = method;
  return event;
}

}  // namespace

WebSocketSupport::WebSocketSupport(std::size_t maxMessageBytes)
    : maxMessageBytes_(maxMessageBytes) {}

int WebSocketSupport::Feed(const char* data, std::size_t length,
                           std::vector<std::shared_ptr<WSData>>& events, std::string& wire) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (length == 0 || HandshakeFailed()) return NothingToDeliver;
  std::vector<std::string> received;
  int result = NeedMore;

  if (!specification_) {
    pending_.append(data, length);
    WebsocketSpecifications::UpgradeRequest request;
    int parsed =
        WebsocketSpecifications::ParseUpgradeRequest(pending_.data(), pending_.size(), request);
    if (parsed == -1 && pending_.size() <= MaxHandshakeBytes) return NeedMore;
    if (parsed != 1) {
      Publish(State::Refused);
      pending_.clear();
      return NothingToDeliver;
    }
    const unsigned both = WebsocketSpecifications::HandshakeFlags::Key1 |
                          WebsocketSpecifications::HandshakeFlags::Key2;
    std::unique_ptr<WebsocketSpecifications::Specification> specification;
    if ((request.Flags & both) == both) {
      // The 8 challenge bytes follow the header block.
      if (pending_.size() < request.HeaderLength + 8) return NeedMore;
      specification = std::make_unique<WebsocketSpecifications::hybi_00>(maxMessageBytes_);
    } else {
      specification = std::make_unique<WebsocketSpecifications::hybi_17>(maxMessageBytes_);
    }
    if (!specification->Handshake(pending_.data(), pending_.size(), wire)) {
      Publish(State::Refused);
      pending_.clear();
      return NothingToDeliver;
    }
    specification_ = std::move(specification);
    number_ = ++upgradedConnections;
    events.push_back(EventOf(Methods::WEBSOCKETCONNECT));
    result = Deliver;
    // Frames sent right behind the request are read now, not left until more bytes come.
    std::string rest = pending_.substr(specification_->HandshakeLength());
    pending_.clear();
    pending_.shrink_to_fit();
    if (!rest.empty()) specification_->ReadFrames(rest.data(), rest.size(), received, wire);
    PublishOpenOrClosed();
  } else if (specification_->IsOpen()) {
    int read = specification_->ReadFrames(data, length, received, wire);
    if (read != WebsocketSpecifications::Specification::MessagesReady) result = read;
    PublishOpenOrClosed();
  } else {
    return NothingToDeliver;
  }

  // Messages completed before a malformed frame closed the specification are still delivered.
  if (!received.empty()) {
    std::shared_ptr<WSData> event = EventOf(Methods::WEBSOCKETMESSAGE);
    event->Messages.reserve(received.size());
    for (const std::string& message : received) {
      event->Messages.push_back(UTF8to16(message.data(), 0, static_cast<int>(message.size())));
    }
    events.push_back(std::move(event));
    result = Deliver;
  }
  return result;
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
