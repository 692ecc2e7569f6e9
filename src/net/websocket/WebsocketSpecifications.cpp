// Handshakes and framing of hybi-00 and hybi-17 (RFC 6455).
#include "net/websocket/WebsocketSpecifications.h"

#define CRYPTOPP_ENABLE_NAMESPACE_WEAK 1
#include <crypto++/base64.h>
#include <crypto++/filters.h>
#include <crypto++/md5.h>
#include <crypto++/sha.h>

#include <algorithm>
#include <cstring>

namespace Veskan {
namespace WebsocketSpecifications {

namespace {

char LowerAscii(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

bool EqualsIgnoringCase(const char* data, std::size_t length, const char* text) {
  std::size_t textLength = std::strlen(text);
  if (length != textLength) return false;
  for (std::size_t i = 0; i < length; ++i) {
    if (LowerAscii(data[i]) != LowerAscii(text[i])) return false;
  }
  return true;
}

// True when the comma-separated list `value` holds `token` (compared without regard to case):
// browsers send "Connection: keep-alive, Upgrade".
bool ListHolds(const std::string& value, const char* token) {
  std::size_t start = 0;
  while (start <= value.size()) {
    std::size_t end = value.find(',', start);
    if (end == std::string::npos) end = value.size();
    std::size_t first = start;
    std::size_t last = end;
    while (first < last && (value[first] == ' ' || value[first] == '\t'))
      ++first;
    while (last > first && (value[last - 1] == ' ' || value[last - 1] == '\t'))
      --last;
    if (EqualsIgnoringCase(value.data() + first, last - first, token)) return true;
    start = end + 1;
  }
  return false;
}

// A Base64 text of exactly 16 bytes: 22 characters of the alphabet and "==" (RFC 6455 4.1).
bool IsNonce(const std::string& key) {
  if (key.size() != 24 || key[22] != '=' || key[23] != '=') return false;
  for (std::size_t i = 0; i < 22; ++i) {
    char c = key[i];
    bool valid = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                 c == '+' || c == '/';
    if (!valid) return false;
  }
  return true;
}

// True when `text` holds a control character other than HTAB: such a value must not be echoed
// into an answer, where a CR or LF would begin a line of its own.
bool HasControl(const std::string& text) {
  return std::any_of(text.begin(), text.end(), [](char c) {
    unsigned char byte = static_cast<unsigned char>(c);
    return (byte < 0x20 && byte != '\t') || byte == 0x7f;
  });
}

void AppendBigEndian(std::string& wire, std::uint64_t value, int bytes) {
  for (int shift = (bytes - 1) * 8; shift >= 0; shift -= 8)
    wire.push_back(static_cast<char>((value >> shift) & 0xff));
}

}  // namespace

UpgradeRequest::UpgradeRequest(const std::string& target)
    : Flags(HandshakeFlags::RequestLine | HandshakeFlags::HeaderEnd), Target(target) {}

void UpgradeRequest::Add(const std::string& name, const std::string& value) {
  auto is = [&name](const char* known) {
    return EqualsIgnoringCase(name.data(), name.size(), known);
  };
  if (is("Host")) {
    Host = value;
    if (!value.empty()) Flags |= HandshakeFlags::Host;
  } else if (is("Upgrade")) {
    if (EqualsIgnoringCase(value.data(), value.size(), "websocket")) {
      Flags |= HandshakeFlags::Upgrade;
    }
  } else if (is("Connection")) {
    if (ListHolds(value, "Upgrade")) Flags |= HandshakeFlags::Connection;
  } else if (is("Origin") || is("Sec-WebSocket-Origin")) {
    Origin = value;
    Flags |= HandshakeFlags::Origin;
  } else if (is("Sec-WebSocket-Protocol")) {
    Protocol = value;
  } else if (is("Sec-WebSocket-Key")) {
    Key = value;
    if (IsNonce(value)) Flags |= HandshakeFlags::Key;
  } else if (is("Sec-WebSocket-Extensions")) {
    Extensions = value;
  } else if (is("Sec-WebSocket-Version")) {
    VersionText = value;
    if (value == "13") Flags |= HandshakeFlags::Version;
  } else if (is("Sec-WebSocket-Key1")) {
    Key1 = value;
    Flags |= HandshakeFlags::Key1;
  } else if (is("Sec-WebSocket-Key2")) {
    Key2 = value;
    Flags |= HandshakeFlags::Key2;
  }
}

bool Hybi00KeyNumber(const std::string& value, std::uint32_t& number) {
  std::uint64_t digits = 0;
  std::uint64_t blanks = 0;
  for (char c : value) {
    if (c >= '0' && c <= '9') {
      if (digits > (UINT64_MAX - 9) / 10) return false;
      digits = digits * 10 + static_cast<std::uint64_t>(c - '0');
    } else if (c == ' ') {
      ++blanks;
    }
  }
  if (blanks == 0 || digits % blanks != 0 || digits / blanks > UINT32_MAX) return false;
  number = static_cast<std::uint32_t>(digits / blanks);
  return true;
}

// ---------------------------------------------------------------------------------------------
// hybi-17

std::string hybi_17::AcceptValue(const std::string& key) {
  static const char guid[] = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
  std::string input = key + guid;
  CryptoPP::byte digest[CryptoPP::SHA1::DIGESTSIZE];
  CryptoPP::SHA1().CalculateDigest(digest, reinterpret_cast<const CryptoPP::byte*>(input.data()),
                                   input.size());
  std::string encoded;
  CryptoPP::StringSource source(
      digest, sizeof digest, true,
      new CryptoPP::Base64Encoder(new CryptoPP::StringSink(encoded), false));
  return encoded;
}

bool hybi_17::Handshake(const UpgradeRequest& request, const char*, std::size_t,
                        std::string& answer) {
  if (open_ || (request.Flags & HandshakeFlags::Hybi17) != HandshakeFlags::Hybi17) return false;
  answer += "HTTP/1.1 101 Switching Protocols\r\n";
  answer += "Upgrade: websocket\r\n";
  answer += "Connection: Upgrade\r\n";
  answer += "Sec-WebSocket-Accept: ";
  answer += AcceptValue(request.Key);
  answer += "\r\n\r\n";
  handshakeLength_ = 0;
  target_ = request.Target;
  open_ = true;
  return true;
}

std::size_t hybi_17::HeaderLength(unsigned char second) {
  unsigned lengthCode = second & 0x7f;
  return 2 + (lengthCode == 126 ? 2 : lengthCode == 127 ? 8 : 0) + ((second & 0x80) != 0 ? 4 : 0);
}

std::size_t hybi_17::HeaderLength() const {
  return header_.size() < 2 ? 2 : HeaderLength(static_cast<unsigned char>(header_[1]));
}

void hybi_17::Unmask(char* bytes, std::size_t count, std::size_t phase) const {
  unsigned char key[8];
  for (std::size_t i = 0; i < 8; ++i)
    key[i] = mask_[(phase + i) & 3];
  std::uint64_t word;
  std::memcpy(&word, key, 8);
  std::size_t i = 0;
  for (; i + 8 <= count; i += 8) {  // eight bytes at a time: the key repeats every four
    std::uint64_t chunk;
    std::memcpy(&chunk, bytes + i, 8);
    chunk ^= word;
    std::memcpy(bytes + i, &chunk, 8);
  }
  for (; i < count; ++i)
    bytes[i] = static_cast<char>(bytes[i] ^ key[i & 7]);
}

int hybi_17::Fail(int code, std::string& wire) {
  Close(code, wire);
  header_.clear();
  message_.clear();
  atFrameStart_ = true;
  return Closed;
}

int hybi_17::ReadFrames(const char* data, std::uint64_t length, std::vector<std::string>& messages,
                        std::string& wire) {
  if (!open_) return Closed;
  int result = NeedMore;
  std::uint64_t at = 0;
  while (at < length) {
    if (atFrameStart_) {
      // The header is 2 bytes, the extended length (0, 2 or 8) and the masking key (0 or 4); a
      // header split by the transport is collected until the rest arrives.
      const unsigned char* header = reinterpret_cast<const unsigned char*>(data + at);
      std::uint64_t available = length - at;
      if (header_.empty() && available >= 2 && available >= HeaderLength(header[1])) {
        at += HeaderLength(header[1]);
      } else {
        while (at < length && header_.size() < HeaderLength())
          header_.push_back(data[at++]);
        if (header_.size() < HeaderLength()) break;
        header = reinterpret_cast<const unsigned char*>(header_.data());
      }
      bool masked = (header[1] & 0x80) != 0;
      unsigned lengthCode = header[1] & 0x7f;
      std::size_t next = 2;
      if (lengthCode == 126) {
        payloadLength_ = (std::uint64_t{header[2]} << 8) | header[3];
        next = 4;
      } else if (lengthCode == 127) {
        payloadLength_ = 0;
        for (std::size_t i = 2; i < 10; ++i)
          payloadLength_ = (payloadLength_ << 8) | header[i];
        if ((payloadLength_ >> 63) != 0) return Fail(1002, wire);  // the top bit must be 0
        next = 10;
      } else {
        payloadLength_ = lengthCode;
      }
      if (masked) std::memcpy(mask_, header + next, 4);
      // Control frames (opcodes 0x8 to 0xF) are never fragmented and carry at most 125 bytes
      // (RFC 6455 section 5.5).
      bool control = (header[0] & 0x08) != 0;
      if (control && ((header[0] & 0x80) == 0 || payloadLength_ > 125)) return Fail(1002, wire);
      // Skipped frames are held to the limit as well: a frame that announces more than any
      // message may hold is refused at once rather than read past for as long as it lasts.
      if (payloadLength_ > maxMessageBytes_) return Fail(1009, wire);
      deliver_ = masked && (header[0] & 0x01) != 0 && !control;
      header_.clear();
      payloadReceived_ = 0;
      atFrameStart_ = false;
      if (deliver_) message_.reserve(static_cast<std::size_t>(payloadLength_));
    }

    std::uint64_t take = std::min(length - at, payloadLength_ - payloadReceived_);
    if (deliver_) {
      std::size_t start = message_.size();
      message_.append(data + at, static_cast<std::size_t>(take));
      Unmask(&message_[start], static_cast<std::size_t>(take),
             static_cast<std::size_t>(payloadReceived_ & 3));
    }
    payloadReceived_ += take;
    at += take;
    if (payloadReceived_ == payloadLength_) {
      if (deliver_) {
        messages.push_back(std::move(message_));
        message_.clear();
        result = MessagesReady;
      }
      atFrameStart_ = true;
    }
  }
  return result;
}

bool hybi_17::WriteFrame(const char* data, std::uint64_t length, bool binary, std::string& wire) {
  if (!open_) return false;
  wire.push_back(static_cast<char>(binary ? 0x82 : 0x81));  // final frame, server frames unmasked
  if (length < 126) {
    wire.push_back(static_cast<char>(length));
  } else if (length <= 65535) {
    wire.push_back(static_cast<char>(126));
    AppendBigEndian(wire, length, 2);
  } else {
    wire.push_back(static_cast<char>(127));
    AppendBigEndian(wire, length, 8);
  }
  wire.append(data, static_cast<std::size_t>(length));
  return true;
}

void hybi_17::Close(int code, std::string& wire) {
  if (!open_) return;
  open_ = false;
  // Codes a peer may see on the wire (RFC 6455 7.4); others close without a code.
  bool sendable =
      code >= 1000 && code <= 4999 && code != 1004 && code != 1005 && code != 1006 && code != 1015;
  wire.push_back(static_cast<char>(0x88));
  if (sendable) {
    wire.push_back(2);
    AppendBigEndian(wire, static_cast<std::uint64_t>(code), 2);
  } else {
    wire.push_back(0);
  }
}

// ---------------------------------------------------------------------------------------------
// hybi-00

std::string hybi_00::ChallengeAnswer(std::uint32_t key1, std::uint32_t key2, const char* key3) {
  unsigned char challenge[16];
  for (int i = 0; i < 4; ++i) {
    challenge[i] = static_cast<unsigned char>(key1 >> (24 - 8 * i));
    challenge[4 + i] = static_cast<unsigned char>(key2 >> (24 - 8 * i));
  }
  std::memcpy(challenge + 8, key3, 8);
  CryptoPP::byte digest[CryptoPP::Weak::MD5::DIGESTSIZE];
  CryptoPP::Weak::MD5().CalculateDigest(digest, challenge, sizeof challenge);
  return std::string(reinterpret_cast<const char*>(digest), sizeof digest);
}

bool hybi_00::Handshake(const UpgradeRequest& request, const char* rest, std::size_t length,
                        std::string& answer) {
  if (open_ || (request.Flags & HandshakeFlags::Hybi00) != HandshakeFlags::Hybi00) return false;
  if (length < 8 || HasControl(request.Origin) || HasControl(request.Host) ||
      HasControl(request.Target)) {
    return false;
  }
  std::uint32_t key1 = 0;
  std::uint32_t key2 = 0;
  if (!Hybi00KeyNumber(request.Key1, key1) || !Hybi00KeyNumber(request.Key2, key2)) {
    return false;
  }
  answer += "HTTP/1.1 101 WebSocket Protocol Handshake\r\n";
  answer += "Upgrade: WebSocket\r\n";
  answer += "Connection: Upgrade\r\n";
  answer += "Sec-WebSocket-Origin: " + request.Origin + "\r\n";
  answer += "Sec-WebSocket-Location: ws://" + request.Host + request.Target + "\r\n";
  answer += "\r\n";
  answer += ChallengeAnswer(key1, key2, rest);
  handshakeLength_ = 8;
  target_ = request.Target;
  open_ = true;
  return true;
}

int hybi_00::ReadFrames(const char* data, std::uint64_t length, std::vector<std::string>& messages,
                        std::string& wire) {
  if (!open_) return Closed;
  int result = NeedMore;
  std::uint64_t at = 0;
  while (at < length) {
    switch (state_) {
      case State::FrameStart: {
        unsigned char type = static_cast<unsigned char>(data[at++]);
        if ((type & 0x80) == 0) {  // runs to 0xFF; only type 0x00 carries text
          state_ = State::Text;
          deliver_ = type == 0x00;
          textBytes_ = 0;
        } else if (type == 0xFF) {
          state_ = State::Length;
          skipRemaining_ = 0;
        } else {
          Close(0, wire);
          return Closed;
        }
        break;
      }
      case State::Text: {
        const void* found = std::memchr(data + at, 0xFF, static_cast<std::size_t>(length - at));
        std::uint64_t end =
            found == nullptr ? length
                             : static_cast<std::uint64_t>(static_cast<const char*>(found) - data);
        // Text frames that are not delivered are held to the limit too.
        textBytes_ += end - at;
        if (textBytes_ > maxMessageBytes_) {
          message_.clear();
          Close(0, wire);
          return Closed;
        }
        if (deliver_) message_.append(data + at, static_cast<std::size_t>(end - at));
        at = end;
        if (found != nullptr) {
          ++at;
          if (deliver_) {
            messages.push_back(std::move(message_));
            message_.clear();
            result = MessagesReady;
          }
          state_ = State::FrameStart;
        }
        break;
      }
      case State::Length: {
        unsigned char digit = static_cast<unsigned char>(data[at++]);
        if ((skipRemaining_ >> 56) != 0) {  // more than 63 bits: nothing sends that
          Close(0, wire);
          return Closed;
        }
        skipRemaining_ = (skipRemaining_ << 7) | (digit & 0x7f);
        // The length only grows with each digit: above the limit it can close at once.
        if (skipRemaining_ > maxMessageBytes_) {
          Close(0, wire);
          return Closed;
        }
        if ((digit & 0x80) == 0) {
          if (skipRemaining_ == 0) {  // 0xFF 0x00: the closing frame
            Close(0, wire);
            return Closed;
          }
          state_ = State::Skip;
        }
        break;
      }
      case State::Skip: {
        std::uint64_t take = std::min(length - at, skipRemaining_);
        at += take;
        skipRemaining_ -= take;
        if (skipRemaining_ == 0) state_ = State::FrameStart;
        break;
      }
    }
  }
  return result;
}

bool hybi_00::WriteFrame(const char* data, std::uint64_t length, bool, std::string& wire) {
  // 0xFF ends the frame, so bytes holding it cannot be sent (UTF-8 text never does).
  if (!open_ || std::memchr(data, 0xFF, static_cast<std::size_t>(length)) != nullptr) return false;
  wire.push_back('\0');
  wire.append(data, static_cast<std::size_t>(length));
  wire.push_back(static_cast<char>(0xFF));
  return true;
}

void hybi_00::Close(int, std::string& wire) {
  if (!open_) return;
  open_ = false;
  wire.push_back(static_cast<char>(0xFF));
  wire.push_back('\0');
}

}  // namespace WebsocketSpecifications
}  // namespace Veskan
