// The two WebSocket protocol versions a server connection may be upgraded to: hybi-00 (the
// "Sec-WebSocket-Key1"/"Key2" handshake with an MD5 answer, text frames between 0x00 and 0xFF)
// and hybi-17 (RFC 6455). Pure protocol cores: bytes in, bytes and messages out, no sockets.
#ifndef VESKAN_NET_WEBSOCKET_WEBSOCKETSPECIFICATIONS_H
#define VESKAN_NET_WEBSOCKET_WEBSOCKETSPECIFICATIONS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Veskan {
namespace WebsocketSpecifications {

// What a handshake needs, one bit each. A hybi-17 handshake needs the seven low bits; hybi-00
// needs the request line, Host, Upgrade, Connection, both keys and the end of the header block.
// The HTTP reader has checked the request line and read the whole header block before a
// handshake runs; those two bits record that.
namespace HandshakeFlags {
constexpr unsigned RequestLine = 0x01;  // "GET target HTTP/1.1"
constexpr unsigned Host = 0x02;
constexpr unsigned Upgrade = 0x04;     // "Upgrade: websocket"
constexpr unsigned Connection = 0x08;  // "Connection:" listing "Upgrade"
constexpr unsigned Key = 0x10;         // "Sec-WebSocket-Key:" holding a 16-byte nonce in Base64
constexpr unsigned Version = 0x20;     // "Sec-WebSocket-Version: 13"
constexpr unsigned HeaderEnd = 0x40;   // the empty line that ends the header block
constexpr unsigned Key1 = 0x80;
constexpr unsigned Key2 = 0x100;
constexpr unsigned Origin = 0x200;  // "Origin:" or "Sec-WebSocket-Origin:" (optional)
constexpr unsigned Hybi17 = 0x7f;
constexpr unsigned Hybi00 = RequestLine | Host | Upgrade | Connection | Key1 | Key2 | HeaderEnd;
}  // namespace HandshakeFlags

// An upgrade request as far as a handshake cares: its target and the recognised header values,
// taken from the request the HTTP reader has read (UTF-8 text), with a flag for each one a
// handshake requires.
struct UpgradeRequest {
  // A GET request for `target` whose header block is complete.
  explicit UpgradeRequest(const std::string& target);
  // Takes one header field; names compare without regard to ASCII case, others are ignored.
  void Add(const std::string& name, const std::string& value);

  unsigned Flags = 0;
  std::string Target, Host, Origin, Key, Key1, Key2, Protocol, Extensions, VersionText;
};

// The hybi-00 key number of a "Sec-WebSocket-Key1/2" value: its digits read as one decimal
// number, divided by its count of blanks. False when there is no blank, the division leaves a
// remainder, or the number does not fit 32 bits.
bool Hybi00KeyNumber(const std::string& value, std::uint32_t& number);

// The common face of both versions.
//
// Thread safety: none; the connection's WebSocket support serialises every call.
class Specification {
 public:
  // Results of ReadFrames.
  static constexpr int Closed = 0;         // nothing delivered; the specification is closed
  static constexpr int NeedMore = 1;       // nothing complete (frames not acted on included)
  static constexpr int MessagesReady = 2;  // at least one message was appended

  explicit Specification(std::size_t maxMessageBytes) : maxMessageBytes_(maxMessageBytes) {}
  Specification(const Specification&) = delete;
  Specification& operator=(const Specification&) = delete;
  virtual ~Specification() = default;

  // Answers `request`, appending the answer to `answer`; `rest` holds the bytes that followed
  // the request's header block (hybi-00 reads its 8 challenge bytes from there). True (and open)
  // on success.
  virtual bool Handshake(const UpgradeRequest& request, const char* rest, std::size_t length,
                         std::string& answer) = 0;
  // Decodes frames; complete text messages (UTF-8) are appended to `messages` and bytes to send
  // back (a closing frame) to `wire`. A frame may end in a later call.
  virtual int ReadFrames(const char* data, std::uint64_t length, std::vector<std::string>& messages,
                         std::string& wire) = 0;
  // Appends one frame carrying `length` bytes to `wire`; false when not open or the bytes cannot
  // be framed.
  virtual bool WriteFrame(const char* data, std::uint64_t length, bool binary,
                          std::string& wire) = 0;
  // Marks the specification closed and appends the version's closing bytes (with `code` where
  // the version carries one). Nothing when already closed.
  virtual void Close(int code, std::string& wire) = 0;
  // True from a successful handshake until closed.
  virtual bool IsOpen() const { return open_; }
  // The protocol revision: 0 or 17.
  virtual int Revision() const = 0;

  // The bytes of `rest` the handshake consumed (hybi-00: the 8 challenge bytes).
  std::size_t HandshakeLength() const { return handshakeLength_; }
  const std::string& Target() const { return target_; }

 protected:
  bool open_ = false;
  std::string target_;
  std::size_t handshakeLength_ = 0;
  const std::size_t maxMessageBytes_;
};

// RFC 6455 framing. Client frames must be masked; only text frames (first byte with 0x01 set and
// 0x08 clear) are delivered, one message per frame. Close, ping, pong, binary and continuation
// frames, and unmasked frames, are skipped whole without being acted on. Every frame, skipped or
// not, above the message limit closes with 1009; a control frame (opcode 0x8 to 0xF) with more
// than 125 bytes or with FIN clear closes with 1002 (RFC 6455 section 5.5).
class hybi_17 : public Specification {
 public:
  using Specification::Specification;
  bool Handshake(const UpgradeRequest& request, const char* rest, std::size_t length,
                 std::string& answer) override;
  int ReadFrames(const char* data, std::uint64_t length, std::vector<std::string>& messages,
                 std::string& wire) override;
  bool WriteFrame(const char* data, std::uint64_t length, bool binary, std::string& wire) override;
  void Close(int code, std::string& wire) override;
  int Revision() const override { return 17; }

  // The accept value for a key: Base64 of the SHA-1 of the key and the protocol's GUID.
  static std::string AcceptValue(const std::string& key);

 private:
  // Closes after a protocol failure (close code `code`) and returns Closed.
  int Fail(int code, std::string& wire);
  // The length of a frame header with second byte `second`, and of the one begun in header_ as
  // far as its first two bytes tell.
  static std::size_t HeaderLength(unsigned char second);
  std::size_t HeaderLength() const;
  // Unmasks `count` payload bytes whose first is at `phase` (0..3) of the masking key.
  void Unmask(char* bytes, std::size_t count, std::size_t phase) const;

  bool atFrameStart_ = true;
  std::uint64_t payloadLength_ = 0;
  unsigned char mask_[4] = {0, 0, 0, 0};
  std::uint64_t payloadReceived_ = 0;
  std::string message_;   // the payload of the text frame being read
  std::string header_;    // a frame header split across reads, until it is whole
  bool deliver_ = false;  // the current frame is a masked text frame
};

// hybi-00 framing: 0x00, UTF-8 text, 0xFF; 0xFF followed by a base-128 length (skipped), where
// length 0 is the closing frame. A frame of either kind, delivered or skipped, above the message
// limit closes.
class hybi_00 : public Specification {
 public:
  using Specification::Specification;
  bool Handshake(const UpgradeRequest& request, const char* rest, std::size_t length,
                 std::string& answer) override;
  int ReadFrames(const char* data, std::uint64_t length, std::vector<std::string>& messages,
                 std::string& wire) override;
  bool WriteFrame(const char* data, std::uint64_t length, bool binary, std::string& wire) override;
  void Close(int code, std::string& wire) override;
  int Revision() const override { return 0; }

  // The 16-byte answer: MD5 of both key numbers (big-endian) and the 8 bytes after the headers.
  static std::string ChallengeAnswer(std::uint32_t key1, std::uint32_t key2, const char* key3);

 private:
  enum class State { FrameStart, Text, Length, Skip };
  State state_ = State::FrameStart;
  bool deliver_ = false;  // the text frame began with 0x00
  std::string message_;
  std::uint64_t textBytes_ = 0;  // of the sentinel-delimited frame being read
  std::uint64_t skipRemaining_ = 0;
};

}  // namespace WebsocketSpecifications
}  // namespace Veskan

#endif
