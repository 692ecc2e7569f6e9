// veskan_soak_load: the load generator of the soak benchmark (bench/soak/run.py).
//
//   veskan_soak_load soak --port P [--duration 600] [--file /files/big.bin] [settings below]
//   veskan_soak_load idle --port P [--connections 10000] [--batch 256] [--timeout 10]
//   veskan_soak_load self-test
//
// soak: one thread on one epoll set runs every kind of client at the same time, each kind in a
// fixed number of slots. A slot holds at most one connection; when it ends, the slot opens a new
// one after its pause. Everything is bounded: the number of slots, the requests one connection
// sends, the bytes it keeps, and the time it may wait for anything.
//   well-behaved: keep-alive HTTP clients and Connection: close clients cycling through
//     GET /hello, GET /echo and POST /echo (every reply is checked); WebSocket clients on /ws
//     (RFC 6455 handshake with the Sec-WebSocket-Accept check, masked frames) sending one text
//     message at a time and checking its echo; POST /broadcast on a new connection every second.
//   attackers: pipeliners that write `GET <file>` with keep-alive up to a fixed depth and never
//     read; tricklers that send a request head, or a declared body, one byte at a time and count
//     how long the server lets them; clients that reset (SO_LINGER 0) in the middle of a request
//     or of a reply; malformed and smuggling-shaped requests, each on a new connection, checking
//     that the server closes the connection.
// Every second one JSON line of cumulative counters goes to stdout; at the end (duration over,
// SIGTERM or SIGINT) a final line adds the error kinds, the result per malformed request kind
// and the tricklers' connection times. Failures of the server are counted, never fatal.
//
// idle: opens N connections, each sending one GET /hello with "Connection: keep-alive" and
// reading the whole reply, then leaves them idle and prints {"event":"ready",...}. Then it reads
// commands on stdin: "check" prints how many are still open, "quit" or the end of input closes
// them all and exits.
//
// Loopback addresses only. Exit status: 0 done, 2 usage or local error.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr size_t kMaxKept = 4u << 20;    // bytes a well-behaved client keeps of one reply
constexpr size_t kMaxFrame = 1u << 20;   // larger WebSocket messages are an error
constexpr size_t kMaxErrorKinds = 64;    // distinct error texts kept for the final report
constexpr size_t kMalformedKept = 4096;  // bytes of a reply to a malformed request kept
constexpr int64_t kSecond = 1000000000;
constexpr int64_t kMillisecond = 1000000;

volatile std::sig_atomic_t stopRequested = 0;

void RequestStop(int) {
  stopRequested = 1;
}

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
  char text[1024];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  return text;
}

[[noreturn]] void Usage(const std::string& problem) {
  throw std::invalid_argument(problem);
}

int64_t NowNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * kSecond + now.tv_nsec;
}

// An owned descriptor; closing it also takes it out of any epoll set.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd& operator=(Fd&& other) noexcept {
    if (this != &other) {
      Reset();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() { Reset(); }

  int Get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  void Reset() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
};

// splitmix64: keys, masks and jitter need to vary, not to be secret.
class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed) {}
  uint64_t Next() {
    uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  // A value in [low, high].
  int64_t Between(int64_t low, int64_t high) {
    if (high <= low) return low;
    return low + static_cast<int64_t>(Next() % static_cast<uint64_t>(high - low + 1));
  }

 private:
  uint64_t state_;
};

// ---------------------------------------------------------------------------------------------
// SHA-1 (FIPS 180-4) and Base64 (RFC 4648), for Sec-WebSocket-Accept (RFC 6455, 4.2.2)

uint32_t RotateLeft(uint32_t value, int bits) {
  return (value << bits) | (value >> (32 - bits));
}

std::string Sha1(const std::string& data) {
  uint32_t h[5] = {0x67452301u, 0xEFCDAB89u, 0x98BADCFEu, 0x10325476u, 0xC3D2E1F0u};
  std::string padded = data + '\x80';
  while (padded.size() % 64 != 56)
    padded.push_back('\0');
  const uint64_t bits = static_cast<uint64_t>(data.size()) * 8;
  for (int shift = 56; shift >= 0; shift -= 8)
    padded.push_back(static_cast<char>((bits >> shift) & 0xFF));
  for (size_t block = 0; block < padded.size(); block += 64) {
    uint32_t w[80];
    for (int i = 0; i < 80; ++i) {
      if (i < 16) {
        const auto* p = reinterpret_cast<const unsigned char*>(padded.data() + block + 4 * i);
        w[i] = (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
      } else {
        w[i] = RotateLeft(w[i - 3] ^ w[i - 8] ^ w[i - 14] ^ w[i - 16], 1);
      }
    }
    uint32_t a = h[0], b = h[1], c = h[2], d = h[3], e = h[4];
    for (int i = 0; i < 80; ++i) {
      uint32_t f = 0, k = 0;
      if (i < 20) {
        f = (b & c) | (~b & d);
        k = 0x5A827999u;
      } else if (i < 40) {
        f = b ^ c ^ d;
        k = 0x6ED9EBA1u;
      } else if (i < 60) {
        f = (b & c) | (b & d) | (c & d);
        k = 0x8F1BBCDCu;
      } else {
        f = b ^ c ^ d;
        k = 0xCA62C1D6u;
      }
      const uint32_t next = RotateLeft(a, 5) + f + e + k + w[i];
      e = d;
      d = c;
      c = RotateLeft(b, 30);
      b = a;
      a = next;
    }
    h[0] += a;
    h[1] += b;
    h[2] += c;
    h[3] += d;
    h[4] += e;
  }
  std::string digest;
  for (int i = 0; i < 20; ++i)
    digest.push_back(static_cast<char>((h[i / 4] >> (24 - 8 * (i % 4))) & 0xFF));
  return digest;
}

std::string Base64(const std::string& bytes) {
  static const char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (size_t i = 0; i < bytes.size(); i += 3) {
    uint32_t group = uint32_t{static_cast<unsigned char>(bytes[i])} << 16;
    if (i + 1 < bytes.size()) group |= uint32_t{static_cast<unsigned char>(bytes[i + 1])} << 8;
    if (i + 2 < bytes.size()) group |= static_cast<unsigned char>(bytes[i + 2]);
    text.push_back(kAlphabet[(group >> 18) & 63]);
    text.push_back(kAlphabet[(group >> 12) & 63]);
    text.push_back(i + 1 < bytes.size() ? kAlphabet[(group >> 6) & 63] : '=');
    text.push_back(i + 2 < bytes.size() ? kAlphabet[group & 63] : '=');
  }
  return text;
}

std::string WebSocketAccept(const std::string& key) {
  return Base64(Sha1(key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11"));
}

// ---------------------------------------------------------------------------------------------
// HTTP replies

bool EqualsIgnoreCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    const int x = std::tolower(static_cast<unsigned char>(a[i]));
    const int y = std::tolower(static_cast<unsigned char>(b[i]));
    if (x != y) return false;
  }
  return true;
}

std::string_view Trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
    text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
    text.remove_suffix(1);
  return text;
}

// Finds header `name` (any case) in a head: the status line and header lines, no blank line.
bool FindHeader(std::string_view head, std::string_view name, std::string_view& value) {
  size_t at = head.find("\r\n");
  while (at != std::string_view::npos) {
    const size_t start = at + 2;
    at = head.find("\r\n", start);
    const std::string_view line =
        head.substr(start, at == std::string_view::npos ? std::string_view::npos : at - start);
    const size_t colon = line.find(':');
    if (colon != std::string_view::npos && EqualsIgnoreCase(Trim(line.substr(0, colon)), name)) {
      value = Trim(line.substr(colon + 1));
      return true;
    }
  }
  return false;
}

// The status code of a status line "HTTP/1.x DDD ...", or 0.
int StatusOf(std::string_view data) {
  if (data.size() < 12 || data.substr(0, 7) != "HTTP/1.") return 0;
  int status = 0;
  for (size_t i = 9; i < 12; ++i) {
    if (data[i] < '0' || data[i] > '9') return 0;
    status = status * 10 + (data[i] - '0');
  }
  return status;
}

struct Reply {
  int status = 0;
  std::string body;
  size_t consumed = 0;  // bytes of the input the reply took
};

enum class Parse { Incomplete, Complete, Bad };

// Parses one HTTP/1.1 reply at the start of `data`; `ended` tells that no more bytes will come
// (a body without a length then runs to the end).
Parse ParseReply(std::string_view data, bool ended, Reply& reply) {
  const size_t headEnd = data.find("\r\n\r\n");
  if (headEnd == std::string_view::npos)
    return ended || data.size() > 65536 ? Parse::Bad : Parse::Incomplete;
  const std::string_view head = data.substr(0, headEnd);
  reply.status = StatusOf(head);
  if (reply.status == 0) return Parse::Bad;
  const size_t bodyStart = headEnd + 4;
  std::string_view value;
  if (FindHeader(head, "Transfer-Encoding", value)) {
    if (!EqualsIgnoreCase(value, "chunked")) return Parse::Bad;
    reply.body.clear();
    size_t at = bodyStart;
    while (true) {
      const size_t lineEnd = data.find("\r\n", at);
      if (lineEnd == std::string_view::npos) return ended ? Parse::Bad : Parse::Incomplete;
      size_t size = 0;
      size_t digits = 0;
      for (size_t i = at; i < lineEnd && data[i] != ';'; ++i, ++digits) {
        const char c = data[i];
        const int digit = c >= '0' && c <= '9'   ? c - '0'
                          : c >= 'a' && c <= 'f' ? c - 'a' + 10
                          : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                                 : -1;
        if (digit < 0 || size > kMaxKept) return Parse::Bad;
        size = size * 16 + static_cast<size_t>(digit);
      }
      if (digits == 0) return Parse::Bad;
      if (size == 0) {
        const size_t trailerEnd = data.find("\r\n", lineEnd + 2);  // no trailers expected
        if (trailerEnd == std::string_view::npos) return ended ? Parse::Bad : Parse::Incomplete;
        reply.consumed = trailerEnd + 2;
        return Parse::Complete;
      }
      if (data.size() < lineEnd + 2 + size + 2) return ended ? Parse::Bad : Parse::Incomplete;
      reply.body.append(data.substr(lineEnd + 2, size));
      at = lineEnd + 2 + size + 2;
    }
  }
  if (FindHeader(head, "Content-Length", value)) {
    size_t length = 0;
    if (value.empty()) return Parse::Bad;
    for (char c : value) {
      if (c < '0' || c > '9' || length > kMaxKept) return Parse::Bad;
      length = length * 10 + static_cast<size_t>(c - '0');
    }
    if (data.size() < bodyStart + length) return ended ? Parse::Bad : Parse::Incomplete;
    reply.body.assign(data.substr(bodyStart, length));
    reply.consumed = bodyStart + length;
    return Parse::Complete;
  }
  if (reply.status == 204 || reply.status == 304) {
    reply.body.clear();
    reply.consumed = bodyStart;
    return Parse::Complete;
  }
  if (!ended) return Parse::Incomplete;
  reply.body.assign(data.substr(bodyStart));
  reply.consumed = data.size();
  return Parse::Complete;
}

// ---------------------------------------------------------------------------------------------
// WebSocket frames (RFC 6455, 5.2)

// A masked client frame holding `payload` (RFC 6455, 5.3).
std::string ClientFrame(uint8_t opcode, std::string_view payload, uint32_t mask) {
  std::string frame(1, static_cast<char>(0x80 | opcode));
  const uint64_t size = payload.size();
  if (size < 126) {
    frame.push_back(static_cast<char>(0x80 | size));
  } else if (size <= 0xFFFF) {
    frame.push_back(static_cast<char>(0x80 | 126));
    for (int shift = 8; shift >= 0; shift -= 8)
      frame.push_back(static_cast<char>((size >> shift) & 0xFF));
  } else {
    frame.push_back(static_cast<char>(0x80 | 127));
    for (int shift = 56; shift >= 0; shift -= 8)
      frame.push_back(static_cast<char>((size >> shift) & 0xFF));
  }
  const char key[4] = {static_cast<char>(mask >> 24), static_cast<char>(mask >> 16),
                       static_cast<char>(mask >> 8), static_cast<char>(mask)};
  frame.append(key, 4);
  for (size_t i = 0; i < payload.size(); ++i)
    frame.push_back(static_cast<char>(payload[i] ^ key[i % 4]));
  return frame;
}

struct Frame {
  bool fin = false;
  uint8_t opcode = 0;
  std::string payload;
  size_t consumed = 0;
};

// One server frame at the start of `data`. Server frames are not masked (RFC 6455, 5.1); a
// masked one is unmasked all the same.
Parse ParseFrame(std::string_view data, Frame& frame) {
  if (data.size() < 2) return Parse::Incomplete;
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(data[i]); };
  frame.fin = (byte(0) & 0x80) != 0;
  frame.opcode = byte(0) & 0x0F;
  if ((byte(0) & 0x70) != 0) return Parse::Bad;  // no extension was negotiated
  const bool masked = (byte(1) & 0x80) != 0;
  uint64_t size = byte(1) & 0x7F;
  size_t at = 2;
  if (size == 126 || size == 127) {
    const size_t bytes = size == 126 ? 2 : 8;
    if (data.size() < at + bytes) return Parse::Incomplete;
    size = 0;
    for (size_t i = 0; i < bytes; ++i)
      size = (size << 8) | byte(at + i);
    at += bytes;
  }
  if (size > kMaxFrame) return Parse::Bad;
  char key[4] = {0, 0, 0, 0};
  if (masked) {
    if (data.size() < at + 4) return Parse::Incomplete;
    std::memcpy(key, data.data() + at, 4);
    at += 4;
  }
  if (data.size() < at + size) return Parse::Incomplete;
  frame.payload.assign(data.substr(at, size));
  if (masked) {
    for (size_t i = 0; i < frame.payload.size(); ++i)
      frame.payload[i] = static_cast<char>(frame.payload[i] ^ key[i % 4]);
  }
  frame.consumed = at + size;
  return Parse::Complete;
}

// ---------------------------------------------------------------------------------------------
// Settings: `--name value` pairs with defaults and bounds

struct Setting {
  const char* name;
  double value;
  double low;
  double high;
};

class Settings {
 public:
  explicit Settings(std::vector<Setting> table) : table_(std::move(table)) {}

  void Parse(int argc, char** argv, int first) {
    for (int i = first; i < argc; ++i) {
      std::string name = argv[i];
      if (name.compare(0, 2, "--") != 0) Usage("unexpected argument '" + name + "'");
      name.erase(0, 2);
      if (i + 1 >= argc) Usage("--" + name + " needs a value");
      const char* text = argv[++i];
      if (name == "file") {
        file = text;
        if (file.empty() || file[0] != '/') Usage("--file must be a path starting with '/'");
        continue;
      }
      Setting* setting = Find(name);
      if (!setting) Usage("unknown option --" + name);
      char* end = nullptr;
      errno = 0;
      const double value = std::strtod(text, &end);
      if (end == text || *end != '\0' || errno != 0 || value < setting->low ||
          value > setting->high)
        Usage(Format("--%s: '%s' is not a number from %g to %g", name.c_str(), text, setting->low,
                     setting->high));
      setting->value = value;
    }
  }

  double Get(const std::string& name) const {
    for (const Setting& setting : table_)
      if (name == setting.name) return setting.value;
    throw std::logic_error("no setting " + name);
  }
  int Int(const std::string& name) const { return static_cast<int>(Get(name)); }
  int64_t Seconds(const std::string& name) const {
    return static_cast<int64_t>(Get(name) * static_cast<double>(kSecond));
  }
  int64_t Milliseconds(const std::string& name) const {
    return static_cast<int64_t>(Get(name) * static_cast<double>(kMillisecond));
  }

  std::string file = "/files/big.bin";

 private:
  Setting* Find(const std::string& name) {
    for (Setting& setting : table_)
      if (name == setting.name) return &setting;
    return nullptr;
  }

  std::vector<Setting> table_;
};

sockaddr_in LoopbackAddress(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

void RaiseFileLimit(rlim_t needed) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  if (limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    getrlimit(RLIMIT_NOFILE, &limit);
  }
  if (limit.rlim_cur != RLIM_INFINITY && limit.rlim_cur < needed)
    Usage(Format("the open-file limit is %llu, this run needs %llu descriptors",
                 static_cast<unsigned long long>(limit.rlim_cur),
                 static_cast<unsigned long long>(needed)));
}

// A non-blocking TCP socket with Nagle off, connecting to `address`; an invalid Fd when even
// the socket or the connect call failed (errno tells).
Fd StartConnect(const sockaddr_in& address) {
  Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!fd) return fd;
  const int one = 1;
  setsockopt(fd.Get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  if (connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
      errno != EINPROGRESS)
    return Fd();
  return fd;
}

// Makes the next close send a reset instead of a FIN (SO_LINGER with a zero time-out).
void ResetOnClose(int fd) {
  const linger abort{1, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
}

std::string JsonString(std::string_view text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') {
      out.push_back('\\');
      out.push_back(c);
    } else if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) >= 0x7F) {
      out += Format("\\u%04x", static_cast<unsigned>(static_cast<unsigned char>(c)));
    } else {
      out.push_back(c);
    }
  }
  return out + "\"";
}

// ---------------------------------------------------------------------------------------------
// The soak load

enum class Role {
  KeepAlive,
  Close,
  WebSocket,
  Broadcast,
  Pipeline,
  TrickleHead,
  TrickleBody,
  AbruptRequest,
  AbruptReply,
  Malformed,
};
constexpr size_t kRoleCount = 10;

const char* RoleName(Role role) {
  switch (role) {
    case Role::KeepAlive:
      return "keepalive";
    case Role::Close:
      return "close";
    case Role::WebSocket:
      return "websocket";
    case Role::Broadcast:
      return "broadcast";
    case Role::Pipeline:
      return "pipeline";
    case Role::TrickleHead:
      return "trickle_head";
    case Role::TrickleBody:
      return "trickle_body";
    case Role::AbruptRequest:
      return "abrupt_request";
    case Role::AbruptReply:
      return "abrupt_reply";
    case Role::Malformed:
      return "malformed";
  }
  return "?";
}

// Cumulative counters, printed every second under these names.
enum Counter : size_t {
  kKeepAliveOk,
  kKeepAliveErrors,
  kCloseOk,
  kCloseErrors,
  kWsOpened,
  kWsEchoes,
  kWsBroadcastsReceived,
  kWsErrors,
  kBroadcastOk,
  kBroadcastReached,
  kBroadcastErrors,
  kPipelineConnections,
  kPipelineRequests,
  kPipelineCut,
  kPipelineErrors,
  kTrickleHeadStarted,
  kTrickleHeadCut,
  kTrickleHeadSurvived,
  kTrickleBodyStarted,
  kTrickleBodyCut,
  kTrickleBodySurvived,
  kTrickleErrors,
  kAbruptRequests,
  kAbruptReplies,
  kAbruptErrors,
  kMalformedSent,
  kMalformedClosed,
  kMalformedLeftOpen,
  kMalformedErrors,
  kCounterCount,
};

const char* const kCounterNames[kCounterCount] = {
    "keepalive_ok",         "keepalive_errors", "close_ok",
    "close_errors",         "ws_opened",        "ws_echoes",
    "ws_broadcasts",        "ws_errors",        "broadcast_ok",
    "broadcast_reached",    "broadcast_errors", "pipeline_connections",
    "pipeline_requests",    "pipeline_cut",     "pipeline_errors",
    "trickle_head_started", "trickle_head_cut", "trickle_head_survived",
    "trickle_body_started", "trickle_body_cut", "trickle_body_survived",
    "trickle_errors",       "abrupt_requests",  "abrupt_replies",
    "abrupt_errors",        "malformed_sent",   "malformed_closed",
    "malformed_left_open",  "malformed_errors",
};

Counter ErrorCounter(Role role) {
  switch (role) {
    case Role::KeepAlive:
      return kKeepAliveErrors;
    case Role::Close:
      return kCloseErrors;
    case Role::WebSocket:
      return kWsErrors;
    case Role::Broadcast:
      return kBroadcastErrors;
    case Role::Pipeline:
      return kPipelineErrors;
    case Role::TrickleHead:
    case Role::TrickleBody:
      return kTrickleErrors;
    case Role::AbruptRequest:
    case Role::AbruptReply:
      return kAbruptErrors;
    case Role::Malformed:
      return kMalformedErrors;
  }
  return kMalformedErrors;
}

// A malformed or smuggling-shaped request; the server must close the connection.
struct MalformedKind {
  const char* name;
  std::string bytes;
};

std::vector<MalformedKind> MalformedKinds() {
  const std::string get = "GET /hello HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: keep-alive\r\n";
  const std::string post = "POST /echo HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: keep-alive\r\n";
  std::string huge = get;
  for (int i = 0; huge.size() < 96 * 1024; ++i)
    huge += Format("X-Filler-%04d: %s\r\n", i, std::string(100, 'a').c_str());
  huge += "\r\n";
  return {
      {"content-length+transfer-encoding",
       post + "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n"},
      {"space-before-colon", post + "Content-Length : 5\r\n\r\nhello"},
      {"folded-header", get + "X-Folded: a\r\n b\r\n\r\n"},
      {"bare-lf", "GET /hello HTTP/1.1\nHost: 127.0.0.1\nConnection: keep-alive\n\n"},
      {"nul-byte", get + std::string("X-Nul: a\0b\r\n\r\n", 13)},
      {"huge-header-block", huge},
      {"invalid-chunk-size", post + "Transfer-Encoding: chunked\r\n\r\nzz\r\nhello\r\n0\r\n\r\n"},
      {"chunk-size-overflow",
       post + "Transfer-Encoding: chunked\r\n\r\n10000000000000005\r\nhello\r\n0\r\n\r\n"},
      {"space-in-header-name", get + "Bad Name: v\r\n\r\n"},
      {"two-content-lengths", post + "Content-Length: 5\r\nContent-Length: 6\r\n\r\nhello!"},
      {"negative-content-length", post + "Content-Length: -5\r\n\r\nhello"},
  };
}

struct MalformedResult {
  uint64_t sent = 0;
  uint64_t closedWithoutReply = 0;
  uint64_t closedAfterReply = 0;
  uint64_t openAfterReply = 0;
  uint64_t openWithoutReply = 0;
  std::map<int, uint64_t> statuses;
};

// How long the server let tricklers of one kind hold their connection before it cut them off.
struct HoldTimes {
  uint64_t count = 0;
  int64_t total = 0;
  int64_t longest = 0;
  void Add(int64_t ns) {
    ++count;
    total += ns;
    longest = std::max(longest, ns);
  }
};

struct Connection {
  Fd fd;
  bool connected = false;
  uint32_t watching = 0;  // the events registered with epoll
  int64_t opened = 0;
  int64_t due = 0;       // the next timed step; 0: none
  int64_t deadline = 0;  // when waiting ends; 0: no limit
  std::string out;       // bytes the socket has not taken yet
  size_t outAt = 0;
  std::string in;  // received bytes kept
  uint64_t received = 0;
  uint64_t step = 0;  // requests, messages or bytes sent
  uint64_t goal = 0;  // requests to pipeline, reply bytes to read before the reset
  size_t kind = 0;    // request variant or malformed kind
  bool awaiting = false;
  std::string expected;  // what the reply or the echo must hold
  // WebSocket
  bool upgraded = false;
  bool closing = false;
  int64_t endOfLife = 0;
  std::string accept;
  std::string fragments;
  uint8_t fragmentOpcode = 0;
};

struct Slot {
  Role role;
  int64_t nextStart = 0;
  uint64_t uses = 0;
  std::unique_ptr<Connection> connection;
};

class Soak {
 public:
  explicit Soak(const Settings& settings)
      : settings_(settings),
        address_(LoopbackAddress(settings.Int("port"))),
        random_(static_cast<uint64_t>(NowNs()) ^ (static_cast<uint64_t>(getpid()) << 32)),
        malformed_(MalformedKinds()),
        malformedResults_(malformed_.size()),
        events_(512) {
    epoll_ = Fd(epoll_create1(EPOLL_CLOEXEC));
    if (!epoll_) Usage(std::string("epoll_create1: ") + std::strerror(errno));
    AddSlots(Role::KeepAlive, settings.Int("keepalive"));
    AddSlots(Role::Close, settings.Int("close"));
    AddSlots(Role::WebSocket, settings.Int("websockets"));
    AddSlots(Role::Broadcast, settings.Get("broadcast-ms") > 0 ? 1 : 0);
    AddSlots(Role::Pipeline, settings.Int("pipeliners"));
    AddSlots(Role::TrickleHead, settings.Int("trickle-head"));
    AddSlots(Role::TrickleBody, settings.Int("trickle-body"));
    const int abrupt = settings.Int("abrupt");
    AddSlots(Role::AbruptRequest, (abrupt + 1) / 2);
    AddSlots(Role::AbruptReply, abrupt / 2);
    AddSlots(Role::Malformed, settings.Int("malformed"));
    RaiseFileLimit(slots_.size() + 64);
  }

  void Run() {
    const int64_t start = NowNs();
    const int64_t end = start + settings_.Seconds("duration");
    const int64_t reportEvery = settings_.Milliseconds("report-ms");
    int64_t nextReport = start + reportEvery;
    // Slots start spread over the first second, so that the load does not arrive as one burst.
    for (Slot& slot : slots_)
      slot.nextStart = start + random_.Between(0, kSecond);
    while (!stopRequested) {
      int64_t now = NowNs();
      if (now >= end) break;
      const int ready =
          epoll_wait(epoll_.Get(), events_.data(), static_cast<int>(events_.size()), 5);
      if (ready < 0 && errno != EINTR) Usage(std::string("epoll_wait: ") + std::strerror(errno));
      for (int i = 0; i < ready; ++i) {
        const epoll_event& event = events_[static_cast<size_t>(i)];
        OnEvent(event.data.u32, event.events);
      }
      now = NowNs();
      for (size_t index = 0; index < slots_.size(); ++index) {
        Slot& slot = slots_[index];
        if (!slot.connection) {
          if (now >= slot.nextStart) Open(index, now);
          continue;
        }
        Connection& connection = *slot.connection;
        if (connection.deadline && now >= connection.deadline) {
          OnDeadline(index);
        } else if (connection.due && now >= connection.due) {
          OnDue(index, now);
        }
      }
      if (now >= nextReport) {
        Report(now - start, false);
        nextReport += reportEvery;
        if (nextReport < now) nextReport = now + reportEvery;
      }
    }
    const int64_t stopped = NowNs();
    for (Slot& slot : slots_)
      slot.connection.reset();
    Report(stopped - start, true);
  }

 private:
  void AddSlots(Role role, int count) {
    for (int i = 0; i < count; ++i)
      slots_.push_back(Slot{role, 0, 0, nullptr});
  }

  void Count(Counter counter, uint64_t by = 1) { counters_[counter] += by; }

  // The connection of slot `index` failed: counted as an error of its kind, closed, and replaced
  // after the slot's pause.
  void Error(size_t index, const std::string& what) {
    const Role role = slots_[index].role;
    Count(ErrorCounter(role));
    std::string key = std::string(RoleName(role)) + ": " + what;
    if (errorKinds_.size() >= kMaxErrorKinds && !errorKinds_.count(key))
      key = std::string(RoleName(role)) + ": other";
    ++errorKinds_[key];
    Finish(index, true);
  }

  int64_t PauseOf(Role role) {
    switch (role) {
      case Role::KeepAlive:
        return settings_.Milliseconds("keepalive-pause-ms");
      case Role::Close:
        return settings_.Milliseconds("close-pause-ms");
      case Role::WebSocket:
        return settings_.Milliseconds("ws-pause-ms");
      case Role::Broadcast:
        return settings_.Milliseconds("broadcast-ms");
      case Role::Pipeline:
      case Role::TrickleHead:
      case Role::TrickleBody:
        return kSecond;
      case Role::AbruptRequest:
      case Role::AbruptReply:
        return settings_.Milliseconds("abrupt-pause-ms");
      case Role::Malformed:
        return settings_.Milliseconds("malformed-pause-ms");
    }
    return kSecond;
  }

  // Closes the connection of slot `index` (with a reset when asked) and schedules the next one.
  void Finish(size_t index, bool reset) {
    Slot& slot = slots_[index];
    if (!slot.connection) return;
    if (reset && slot.connection->fd) ResetOnClose(slot.connection->fd.Get());
    slot.connection.reset();
    const int64_t pause = PauseOf(slot.role);
    // Up to a quarter of jitter keeps the slots from falling into step.
    slot.nextStart = NowNs() + pause + random_.Between(0, pause / 4);
  }

  void Open(size_t index, int64_t now) {
    Slot& slot = slots_[index];
    auto connection = std::make_unique<Connection>();
    connection->fd = StartConnect(address_);
    connection->opened = now;
    ++slot.uses;
    if (!connection->fd) {
      slot.connection = std::move(connection);
      Error(index, std::string("connect: ") + std::strerror(errno));
      return;
    }
    connection->deadline = now + settings_.Seconds("timeout");
    slot.connection = std::move(connection);
    Watch(index);
  }

  // Registers the events the connection's state asks for: writable while connecting or while
  // bytes wait to go out, readable except for pipeliners (which never read), and the peer's
  // close.
  void Watch(size_t index) {
    Slot& slot = slots_[index];
    Connection& connection = *slot.connection;
    uint32_t wanted = EPOLLRDHUP;
    if (!connection.connected || !connection.out.empty()) wanted |= EPOLLOUT;
    if (slot.role != Role::Pipeline) wanted |= EPOLLIN;
    if (wanted == connection.watching) return;
    epoll_event event{};
    event.events = wanted;
    event.data.u32 = static_cast<uint32_t>(index);
    const int operation = connection.watching == 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
    if (epoll_ctl(epoll_.Get(), operation, connection.fd.Get(), &event) != 0)
      Usage(std::string("epoll_ctl: ") + std::strerror(errno));
    connection.watching = wanted;
  }

  // Sends what the socket takes; false when the socket failed (error_ holds errno).
  bool Flush(Connection& connection) {
    while (connection.outAt < connection.out.size()) {
      const ssize_t sent = send(connection.fd.Get(), connection.out.data() + connection.outAt,
                                connection.out.size() - connection.outAt, MSG_NOSIGNAL);
      if (sent > 0) {
        connection.outAt += static_cast<size_t>(sent);
        continue;
      }
      if (sent < 0 && errno == EINTR) continue;
      if (sent < 0 && errno == EAGAIN) break;
      error_ = sent < 0 ? errno : EPIPE;
      return false;
    }
    if (connection.outAt == connection.out.size()) {
      connection.out.clear();
      connection.outAt = 0;
    }
    return true;
  }

  bool Send(size_t index, std::string_view bytes) {
    Connection& connection = *slots_[index].connection;
    connection.out.append(bytes);
    const bool sent = Flush(connection);
    if (sent) Watch(index);
    return sent;
  }

  enum class End { Open, Closed, Failed };

  // Reads what is there; keeps at most `keep` bytes in connection.in (the rest is counted and
  // dropped). Bounded per call: level-triggered epoll reports the rest.
  End Read(Connection& connection, size_t keep) {
    for (int round = 0; round < 16; ++round) {
      const ssize_t got = recv(connection.fd.Get(), buffer_.data(), buffer_.size(), 0);
      if (got > 0) {
        connection.received += static_cast<uint64_t>(got);
        const size_t room = keep > connection.in.size() ? keep - connection.in.size() : 0;
        connection.in.append(buffer_.data(), std::min(room, static_cast<size_t>(got)));
        if (static_cast<size_t>(got) < buffer_.size()) return End::Open;
        continue;
      }
      if (got == 0) return End::Closed;
      if (errno == EINTR) continue;
      if (errno == EAGAIN) return End::Open;
      error_ = errno;
      return End::Failed;
    }
    return End::Open;
  }

  void OnEvent(size_t index, uint32_t events) {
    if (index >= slots_.size() || !slots_[index].connection) return;
    Slot& slot = slots_[index];
    Connection& connection = *slot.connection;
    const int64_t now = NowNs();
    if (!connection.connected) {
      int code = 0;
      socklen_t length = sizeof code;
      getsockopt(connection.fd.Get(), SOL_SOCKET, SO_ERROR, &code, &length);
      if (code != 0 || (events & (EPOLLERR | EPOLLHUP))) {
        Error(index, std::string("connect: ") + std::strerror(code ? code : ECONNREFUSED));
        return;
      }
      if (!(events & EPOLLOUT)) return;
      connection.connected = true;
      connection.deadline = 0;
      OnConnected(index, now);
      return;
    }
    switch (slot.role) {
      case Role::KeepAlive:
      case Role::Close:
      case Role::Broadcast:
        OnHttp(index, events, now);
        return;
      case Role::WebSocket:
        OnWebSocket(index, events, now);
        return;
      case Role::Pipeline:
        OnPipeline(index, events);
        return;
      case Role::TrickleHead:
      case Role::TrickleBody:
        OnTrickleEvent(index, now);
        return;
      case Role::AbruptRequest:
      case Role::AbruptReply:
        OnAbrupt(index, events);
        return;
      case Role::Malformed:
        OnMalformed(index, events);
        return;
    }
  }

  void OnConnected(size_t index, int64_t now) {
    Slot& slot = slots_[index];
    Connection& connection = *slot.connection;
    switch (slot.role) {
      case Role::KeepAlive:
      case Role::Close:
      case Role::Broadcast:
        SendRequest(index, now);
        return;
      case Role::WebSocket: {
        std::string key;
        for (int i = 0; i < 16; ++i)
          key.push_back(static_cast<char>(random_.Next() & 0xFF));
        key = Base64(key);
        connection.accept = WebSocketAccept(key);
        connection.awaiting = true;
        connection.deadline = now + settings_.Seconds("timeout");
        const std::string handshake =
            "GET /ws HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
            "Sec-WebSocket-Key: " +
            key + "\r\nSec-WebSocket-Version: 13\r\n\r\n";
        if (!Send(index, handshake))
          Error(index, std::string("handshake: send: ") + std::strerror(error_));
        return;
      }
      case Role::Pipeline:
        Count(kPipelineConnections);
        connection.goal = static_cast<uint64_t>(settings_.Int("pipeline-depth"));
        connection.due = now + settings_.Seconds("pipeline-lifetime");
        FillPipeline(index);
        return;
      case Role::TrickleHead:
      case Role::TrickleBody:
        Count(slot.role == Role::TrickleHead ? kTrickleHeadStarted : kTrickleBodyStarted);
        connection.deadline = now + settings_.Seconds("trickle-limit");
        connection.due = now + TricklePause();
        if (slot.role == Role::TrickleBody &&
            !Send(index,
                  "POST /echo HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: keep-alive\r\n"
                  "Content-Type: text/plain\r\nContent-Length: 1000000\r\n\r\n"))
          TrickleCut(index, now);
        return;
      case Role::AbruptRequest:
        StartAbruptRequest(index, now);
        return;
      case Role::AbruptReply:
        connection.goal = static_cast<uint64_t>(random_.Between(1, 900 * 1024));
        connection.deadline = now + settings_.Seconds("timeout");
        if (!Send(index, "GET " + settings_.file +
                             " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: keep-alive\r\n\r\n"))
          Error(index, std::string("mid-reply: send: ") + std::strerror(error_));
        return;
      case Role::Malformed:
        StartMalformed(index, now);
        return;
    }
  }

  void OnDue(size_t index, int64_t now) {
    Slot& slot = slots_[index];
    Connection& connection = *slot.connection;
    connection.due = 0;
    switch (slot.role) {
      case Role::KeepAlive:
        SendRequest(index, now);
        return;
      case Role::WebSocket:
        WebSocketNext(index, now);
        return;
      case Role::Pipeline:
        Finish(index, true);  // its time is over: reset, with the replies still unread
        return;
      case Role::TrickleHead:
      case Role::TrickleBody:
        Trickle(index, now);
        return;
      case Role::AbruptRequest:
        Count(kAbruptRequests);
        Finish(index, true);
        return;
      case Role::Close:
      case Role::Broadcast:
      case Role::AbruptReply:
      case Role::Malformed:
        return;
    }
  }

  void OnDeadline(size_t index) {
    Slot& slot = slots_[index];
    Connection& connection = *slot.connection;
    connection.deadline = 0;
    if (!connection.connected) {
      Error(index, "connect: no answer within the time-out");
      return;
    }
    switch (slot.role) {
      case Role::KeepAlive:
      case Role::Close:
      case Role::Broadcast:
        if (connection.awaiting) {
          Error(index, "no complete reply within the time-out");
        } else {
          Finish(index, false);  // a Connection: close reply that the server did not close
        }
        return;
      case Role::WebSocket:
        if (connection.closing) {
          Finish(index, false);
        } else if (!connection.upgraded) {
          Error(index, "no handshake reply within the time-out");
        } else {
          Error(index, "no echo within the time-out");
        }
        return;
      case Role::TrickleHead:
      case Role::TrickleBody:
        // Still open at the limit: the server did not cut this client off.
        Count(slot.role == Role::TrickleHead ? kTrickleHeadSurvived : kTrickleBodySurvived);
        Finish(index, true);
        return;
      case Role::AbruptReply:
        Error(index, "mid-reply: the reply did not come within the time-out");
        return;
      case Role::Malformed:
        MalformedDone(index, false);
        return;
      case Role::Pipeline:
      case Role::AbruptRequest:
        Finish(index, true);
        return;
    }
  }

  // -- Well-behaved HTTP: keep-alive, Connection: close and the broadcast poster

  void SendRequest(size_t index, int64_t now) {
    Slot& slot = slots_[index];
    Connection& connection = *slot.connection;
    std::string request;
    if (slot.role == Role::Broadcast) {
      const std::string body = Format("bcast %llu", static_cast<unsigned long long>(slot.uses));
      request = Format(
          "POST /broadcast HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n"
          "Content-Type: text/plain\r\nContent-Length: %zu\r\n\r\n",
          body.size());
      request += body;
      connection.expected.clear();
    } else {
      const char* connectionHeader =
          slot.role == Role::KeepAlive ? "Connection: keep-alive" : "Connection: close";
      const uint64_t variant = slot.role == Role::KeepAlive ? connection.step : slot.uses;
      switch (variant % 3) {
        case 0:
          request =
              Format("GET /hello HTTP/1.1\r\nHost: 127.0.0.1\r\n%s\r\n\r\n", connectionHeader);
          connection.expected = "Hello, world!";
          break;
        case 1:
          request = Format("GET /echo?n=%llu HTTP/1.1\r\nHost: 127.0.0.1\r\n%s\r\n\r\n",
                           static_cast<unsigned long long>(variant), connectionHeader);
          connection.expected = "path=\"/echo\"";
          break;
        default: {
          const std::string body(64, static_cast<char>('a' + variant % 26));
          request = Format(
              "POST /echo HTTP/1.1\r\nHost: 127.0.0.1\r\n%s\r\nContent-Type: text/plain\r\n"
              "Content-Length: %zu\r\n\r\n",
              connectionHeader, body.size());
          request += body;
          connection.expected = "length=\"64\"";
          break;
        }
      }
    }
    ++connection.step;
    connection.awaiting = true;
    connection.deadline = now + settings_.Seconds("timeout");
    if (!Send(index, request)) Error(index, std::string("send: ") + std::strerror(error_));
  }

  void OnHttp(size_t index, uint32_t events, int64_t now) {
    Slot& slot = slots_[index];
    Connection& connection = *slot.connection;
    if ((events & EPOLLOUT) && !connection.out.empty()) {
      if (!Flush(connection)) {
        Error(index, std::string("send: ") + std::strerror(error_));
        return;
      }
      Watch(index);
    }
    if (!(events & (EPOLLIN | EPOLLRDHUP | EPOLLERR | EPOLLHUP))) return;
    const End end = Read(connection, kMaxKept + 1);
    if (end == End::Failed) {
      Error(index, connection.awaiting
                       ? std::string("waiting for the reply: ") + std::strerror(error_)
                       : std::string("between requests: ") + std::strerror(error_));
      return;
    }
    const bool ended = end == End::Closed;
    if (!connection.awaiting) {
      if (!connection.in.empty()) {
        Error(index, "bytes arrived that no request asked for");
      } else if (ended) {
        if (slot.role == Role::KeepAlive) {
          Error(index, "the server closed a keep-alive connection between requests");
        } else {
          Finish(index, false);  // the close that Connection: close asked for
        }
      }
      return;
    }
    if (connection.in.size() > kMaxKept) {
      Error(index, "reply larger than 4 MiB");
      return;
    }
    Reply reply;
    const Parse parse = ParseReply(connection.in, ended, reply);
    if (parse == Parse::Incomplete) return;
    if (parse == Parse::Bad) {
      Error(index, ended && connection.in.empty() ? "closed without a reply"
                                                  : "incomplete or unreadable reply");
      return;
    }
    connection.awaiting = false;
    connection.deadline = 0;
    connection.in.erase(0, reply.consumed);
    if (reply.status != 200) {
      Error(index, Format("status %d", reply.status));
      return;
    }
    if (slot.role == Role::Broadcast) {
      char* rest = nullptr;
      const unsigned long reached = std::strtoul(reply.body.c_str(), &rest, 10);
      if (reply.body.empty() || *rest != '\0') {
        Error(index, "the reply is not a number of clients");
        return;
      }
      Count(kBroadcastOk);
      Count(kBroadcastReached, reached);
    } else {
      const bool hello = connection.expected == "Hello, world!";
      if (hello ? reply.body != connection.expected
                : reply.body.find(connection.expected) == std::string::npos) {
        Error(index, "unexpected reply body");
        return;
      }
      Count(slot.role == Role::KeepAlive ? kKeepAliveOk : kCloseOk);
    }
    if (slot.role == Role::KeepAlive) {
      if (ended) {
        Error(index, "the server closed a keep-alive connection after the reply");
      } else if (connection.step >= static_cast<uint64_t>(settings_.Int("keepalive-requests"))) {
        Finish(index, false);  // a new connection now and then
      } else {
        connection.due = now + settings_.Milliseconds("keepalive-pause-ms");
      }
      return;
    }
    if (ended) {
      Finish(index, false);
    } else {
      connection.deadline = now + 2 * kSecond;  // for the server's close
    }
  }

  // -- WebSocket clients on /ws

  void SendFrame(size_t index, uint8_t opcode, std::string_view payload) {
    if (!Send(index, ClientFrame(opcode, payload, static_cast<uint32_t>(random_.Next()))))
      Error(index, std::string("send: ") + std::strerror(error_));
  }

  void WebSocketNext(size_t index, int64_t now) {
    Slot& slot = slots_[index];
    Connection& connection = *slot.connection;
    if (now >= connection.endOfLife) {
      // The server reads a close frame without acting on it (only text messages are delivered),
      // so, like a browser whose close is not answered, the client ends the connection itself
      // after a moment.
      connection.closing = true;
      connection.deadline = now + kSecond;
      SendFrame(index, 0x8, std::string("\x03\xE8", 2));  // 1000: normal closure
      return;
    }
    connection.expected =
        Format("echo %zu %llu ", index, static_cast<unsigned long long>(++connection.step));
    connection.expected.resize(48, '.');
    connection.awaiting = true;
    connection.deadline = now + settings_.Seconds("timeout");
    SendFrame(index, 0x1, connection.expected);
  }

  void OnWebSocket(size_t index, uint32_t events, int64_t now) {
    Connection& connection = *slots_[index].connection;
    if ((events & EPOLLOUT) && !connection.out.empty()) {
      if (!Flush(connection)) {
        Error(index, std::string("send: ") + std::strerror(error_));
        return;
      }
      Watch(index);
    }
    if (!(events & (EPOLLIN | EPOLLRDHUP | EPOLLERR | EPOLLHUP))) return;
    const End end = Read(connection, kMaxFrame + 16 + connection.in.size());
    if (end == End::Failed) {
      Error(index, std::string("receive: ") + std::strerror(error_));
      return;
    }
    if (!connection.upgraded) {
      const size_t headEnd = connection.in.find("\r\n\r\n");
      if (headEnd == std::string::npos) {
        if (end == End::Closed || connection.in.size() > 16384)
          Error(index, "the handshake reply is missing or too long");
        return;
      }
      const std::string_view head(connection.in.data(), headEnd);
      std::string_view accept;
      if (StatusOf(head) != 101 || !FindHeader(head, "Sec-WebSocket-Accept", accept) ||
          accept != connection.accept) {
        Error(index, Format("handshake refused (status %d) or wrong Sec-WebSocket-Accept",
                            StatusOf(head)));
        return;
      }
      connection.in.erase(0, headEnd + 4);
      connection.upgraded = true;
      connection.awaiting = false;
      connection.deadline = 0;
      connection.endOfLife = now + settings_.Seconds("ws-lifetime");
      connection.due = now + settings_.Milliseconds("ws-pause-ms");
      Count(kWsOpened);
    }
    Frame frame;
    while (slots_[index].connection) {
      const Parse parse = ParseFrame(connection.in, frame);
      if (parse == Parse::Incomplete) break;
      if (parse == Parse::Bad) {
        Error(index, "unreadable frame from the server");
        return;
      }
      connection.in.erase(0, frame.consumed);
      if (!OnFrame(index, frame, now)) return;
    }
    if (!slots_[index].connection) return;
    if (end == End::Closed) {
      if (connection.closing) {
        Finish(index, false);
      } else {
        Error(index, "the server closed the connection");
      }
    }
  }

  // False when the connection is gone.
  bool OnFrame(size_t index, Frame& frame, int64_t now) {
    Connection& connection = *slots_[index].connection;
    switch (frame.opcode) {
      case 0x9:  // ping: answered with the same payload (RFC 6455, 5.5.2)
        SendFrame(index, 0xA, frame.payload);
        return slots_[index].connection != nullptr;
      case 0xA:
        return true;
      case 0x8:
        if (connection.closing) {
          Finish(index, false);
        } else {
          Error(index, "the server closed the WebSocket");
        }
        return false;
      case 0x0:
        if (connection.fragmentOpcode == 0) {
          Error(index, "continuation frame without a start");
          return false;
        }
        connection.fragments += frame.payload;
        break;
      case 0x1:
      case 0x2:
        if (connection.fragmentOpcode != 0) {
          Error(index, "new message inside a fragmented one");
          return false;
        }
        connection.fragmentOpcode = frame.opcode;
        connection.fragments = std::move(frame.payload);
        break;
      default:
        Error(index, Format("unknown opcode %u", frame.opcode));
        return false;
    }
    if (connection.fragments.size() > kMaxFrame) {
      Error(index, "message larger than 1 MiB");
      return false;
    }
    if (!frame.fin) return true;
    const uint8_t opcode = connection.fragmentOpcode;
    connection.fragmentOpcode = 0;
    const std::string message = std::move(connection.fragments);
    connection.fragments.clear();
    if (opcode != 0x1) {
      Error(index, "binary message");
      return false;
    }
    if (message.compare(0, 6, "bcast ") == 0) {
      Count(kWsBroadcastsReceived);
      return true;
    }
    if (!connection.awaiting || message != connection.expected) {
      Error(index, "a message that is not the echo of the one sent");
      return false;
    }
    Count(kWsEchoes);
    connection.awaiting = false;
    connection.deadline = 0;
    if (!connection.closing) connection.due = now + settings_.Milliseconds("ws-pause-ms");
    return true;
  }

  // -- Attackers

  void FillPipeline(size_t index) {
    Connection& connection = *slots_[index].connection;
    const std::string request =
        "GET " + settings_.file + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: keep-alive\r\n\r\n";
    while (true) {
      if (connection.out.empty()) {
        if (connection.step >= connection.goal) break;
        const uint64_t batch = std::min<uint64_t>(32, connection.goal - connection.step);
        for (uint64_t i = 0; i < batch; ++i)
          connection.out += request;
        connection.step += batch;
        Count(kPipelineRequests, batch);
      }
      if (!Flush(connection)) {
        Count(kPipelineCut);  // the server closed it: a fair defence against a client that
        Finish(index, true);  // never reads
        return;
      }
      if (!connection.out.empty()) break;  // the socket is full
    }
    Watch(index);
  }

  void OnPipeline(size_t index, uint32_t events) {
    if (events & (EPOLLRDHUP | EPOLLERR | EPOLLHUP)) {
      Count(kPipelineCut);
      Finish(index, true);
      return;
    }
    if (events & EPOLLOUT) FillPipeline(index);
  }

  int64_t TricklePause() {
    const int64_t pause = settings_.Milliseconds("trickle-ms");
    return pause / 2 + random_.Between(0, pause);
  }

  // The i-th byte of an endless request head: a start line, then header lines of 60 bytes.
  static char TrickleHeadByte(uint64_t i) {
    static const std::string start =
        "GET /hello HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: keep-alive\r\n";
    static const std::string line = "X-Slow: " + std::string(50, 'a') + "\r\n";
    if (i < start.size()) return start[i];
    return line[(i - start.size()) % line.size()];
  }

  void Trickle(size_t index, int64_t now) {
    Slot& slot = slots_[index];
    Connection& connection = *slot.connection;
    if (!connection.out.empty()) {  // the head of the body trickler has not gone out yet
      connection.due = now + TricklePause();
      return;
    }
    const char byte = slot.role == Role::TrickleHead ? TrickleHeadByte(connection.step) : 'b';
    ++connection.step;
    if (!Send(index, std::string_view(&byte, 1))) {
      TrickleCut(index, now);
      return;
    }
    connection.due = now + TricklePause();
  }

  void TrickleCut(size_t index, int64_t now) {
    Slot& slot = slots_[index];
    const bool head = slot.role == Role::TrickleHead;
    Count(head ? kTrickleHeadCut : kTrickleBodyCut);
    (head ? headHolds_ : bodyHolds_).Add(now - slot.connection->opened);
    Finish(index, true);
  }

  void OnTrickleEvent(size_t index, int64_t now) {
    Connection& connection = *slots_[index].connection;
    if (!connection.out.empty() && !Flush(connection)) {
      TrickleCut(index, now);
      return;
    }
    Watch(index);
    // Any answer (a 408, a 400) or a close means the server reacted.
    const End end = Read(connection, 0);
    if (end != End::Open || connection.received > 0) TrickleCut(index, now);
  }

  void StartAbruptRequest(size_t index, int64_t now) {
    Slot& slot = slots_[index];
    Connection& connection = *slot.connection;
    connection.due = now + random_.Between(5, 100) * kMillisecond;
    std::string partial;
    switch (slot.uses % 3) {
      case 0: {  // part of a request head
        const std::string head =
            "GET /echo?abrupt=1 HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: keep-alive\r\n"
            "X-Padding: " +
            std::string(200, 'p') + "\r\n\r\n";
        partial = head.substr(0, static_cast<size_t>(random_.Between(1, head.size() - 1)));
        break;
      }
      case 1:  // a whole head and part of the declared body
        partial =
            "POST /echo HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: keep-alive\r\n"
            "Content-Type: text/plain\r\nContent-Length: 200000\r\n\r\n";
        partial += std::string(static_cast<size_t>(random_.Between(1, 150000)), 'q');
        break;
      default:  // nothing at all
        break;
    }
    if (!partial.empty() && !Send(index, partial)) {
      Count(kAbruptRequests);
      Finish(index, true);
    }
  }

  void OnAbrupt(size_t index, uint32_t events) {
    Slot& slot = slots_[index];
    Connection& connection = *slot.connection;
    if ((events & EPOLLOUT) && !connection.out.empty()) {
      if (!Flush(connection)) {
        if (slot.role == Role::AbruptRequest) {
          Count(kAbruptRequests);
          Finish(index, true);
        } else {
          Error(index, std::string("mid-reply: send: ") + std::strerror(error_));
        }
        return;
      }
      Watch(index);
    }
    if (!(events & (EPOLLIN | EPOLLRDHUP | EPOLLERR | EPOLLHUP))) return;
    const End end = Read(connection, 0);
    if (slot.role == Role::AbruptRequest) {
      if (end != End::Open) Finish(index, true);  // the server did not wait for the rest
      return;
    }
    if (connection.received >= connection.goal) {
      Count(kAbruptReplies);
      Finish(index, true);  // in the middle of the reply
    } else if (end != End::Open) {
      Error(index, "mid-reply: the server closed before the reply was under way");
    }
  }

  void StartMalformed(size_t index, int64_t now) {
    Connection& connection = *slots_[index].connection;
    connection.kind = static_cast<size_t>(malformedCounter_++ % malformed_.size());
    connection.deadline = now + settings_.Seconds("malformed-timeout");
    Count(kMalformedSent);
    ++malformedResults_[connection.kind].sent;
    // A failed send means the server closed while the request was still going out: a close.
    if (!Send(index, malformed_[connection.kind].bytes)) MalformedDone(index, true);
  }

  void OnMalformed(size_t index, uint32_t events) {
    Connection& connection = *slots_[index].connection;
    if ((events & EPOLLOUT) && !connection.out.empty()) {
      if (!Flush(connection)) {
        MalformedDone(index, true);
        return;
      }
      Watch(index);
    }
    if (!(events & (EPOLLIN | EPOLLRDHUP | EPOLLERR | EPOLLHUP))) return;
    if (Read(connection, kMalformedKept) != End::Open) MalformedDone(index, true);
  }

  void MalformedDone(size_t index, bool closed) {
    Connection& connection = *slots_[index].connection;
    MalformedResult& result = malformedResults_[connection.kind];
    const int status = StatusOf(connection.in);
    if (status) ++result.statuses[status];
    if (closed) {
      Count(kMalformedClosed);
      ++(status ? result.closedAfterReply : result.closedWithoutReply);
    } else {
      Count(kMalformedLeftOpen);
      ++(status || connection.received ? result.openAfterReply : result.openWithoutReply);
    }
    Finish(index, !closed);
  }

  // -- Reports

  void Report(int64_t elapsed, bool final) {
    std::string line = Format("{\"t\":%.3f", static_cast<double>(elapsed) / kSecond);
    for (size_t i = 0; i < kCounterCount; ++i)
      line +=
          Format(",\"%s\":%llu", kCounterNames[i], static_cast<unsigned long long>(counters_[i]));
    std::array<int, kRoleCount> open{};
    for (const Slot& slot : slots_)
      if (slot.connection) ++open[static_cast<size_t>(slot.role)];
    for (size_t role = 0; role < kRoleCount; ++role)
      line += Format(",\"open_%s\":%d", RoleName(static_cast<Role>(role)), open[role]);
    if (final) {
      line += ",\"final\":true,\"error_kinds\":{";
      bool first = true;
      for (const auto& entry : errorKinds_) {
        line += (first ? "" : ",") + JsonString(entry.first) +
                Format(":%llu", static_cast<unsigned long long>(entry.second));
        first = false;
      }
      line += "},\"malformed\":{";
      for (size_t kind = 0; kind < malformed_.size(); ++kind) {
        const MalformedResult& result = malformedResults_[kind];
        line += Format(
            "%s\"%s\":{\"sent\":%llu,\"closed_without_reply\":%llu,\"closed_after_reply\":%llu,"
            "\"open_after_reply\":%llu,\"open_without_reply\":%llu,\"statuses\":{",
            kind ? "," : "", malformed_[kind].name, static_cast<unsigned long long>(result.sent),
            static_cast<unsigned long long>(result.closedWithoutReply),
            static_cast<unsigned long long>(result.closedAfterReply),
            static_cast<unsigned long long>(result.openAfterReply),
            static_cast<unsigned long long>(result.openWithoutReply));
        bool firstStatus = true;
        for (const auto& status : result.statuses) {
          line += Format("%s\"%d\":%llu", firstStatus ? "" : ",", status.first,
                         static_cast<unsigned long long>(status.second));
          firstStatus = false;
        }
        line += "}}";
      }
      line += "}";
      const auto holds = [](const char* name, const HoldTimes& times) {
        return Format("\"%s\":{\"count\":%llu,\"mean_s\":%.3f,\"longest_s\":%.3f}", name,
                      static_cast<unsigned long long>(times.count),
                      times.count ? static_cast<double>(times.total) /
                                        static_cast<double>(times.count) / kSecond
                                  : 0.0,
                      static_cast<double>(times.longest) / kSecond);
      };
      line += ",\"trickle_cut_after\":{" + holds("head", headHolds_) + "," +
              holds("body", bodyHolds_) + "}";
      line += Format(",\"trickle_limit_s\":%g,\"pipeline_depth\":%d",
                     settings_.Get("trickle-limit"), settings_.Int("pipeline-depth"));
    }
    line += "}\n";
    std::fputs(line.c_str(), stdout);
    std::fflush(stdout);
  }

  const Settings& settings_;
  const sockaddr_in address_;
  Random random_;
  const std::vector<MalformedKind> malformed_;
  std::vector<MalformedResult> malformedResults_;
  uint64_t malformedCounter_ = 0;
  Fd epoll_;
  std::vector<epoll_event> events_;
  std::vector<Slot> slots_;
  std::array<uint64_t, kCounterCount> counters_{};
  std::map<std::string, uint64_t> errorKinds_;
  HoldTimes headHolds_;
  HoldTimes bodyHolds_;
  std::array<char, 65536> buffer_{};
  int error_ = 0;
};

// ---------------------------------------------------------------------------------------------
// The idle holder

class IdleHolder {
 public:
  explicit IdleHolder(const Settings& settings)
      : settings_(settings), address_(LoopbackAddress(settings.Int("port"))) {
    RaiseFileLimit(static_cast<rlim_t>(settings.Int("connections")) + 64);
    epoll_ = Fd(epoll_create1(EPOLL_CLOEXEC));
    if (!epoll_) Usage(std::string("epoll_create1: ") + std::strerror(errno));
  }

  void Run() {
    const int64_t started = NowNs();
    OpenAll();
    std::printf(
        "{\"event\":\"ready\",\"served\":%zu,\"failed\":%zu,\"unanswered\":%zu,\"seconds\":%.3f}\n",
        held_.size(), failed_, unanswered_, static_cast<double>(NowNs() - started) / kSecond);
    std::fflush(stdout);
    char line[64];
    while (!stopRequested && std::fgets(line, sizeof line, stdin)) {
      if (std::strncmp(line, "check", 5) == 0) {
        std::printf("{\"event\":\"held\",\"open\":%zu}\n", CountOpen());
        std::fflush(stdout);
      } else if (std::strncmp(line, "quit", 4) == 0) {
        break;
      }
    }
    held_.clear();
  }

 private:
  struct Pending {
    Fd fd;
    bool connected = false;
    std::string in;
    size_t sent = 0;
  };

  void OpenAll() {
    const size_t count = static_cast<size_t>(settings_.Int("connections"));
    const size_t batch = static_cast<size_t>(settings_.Int("batch"));
    const int64_t stall = settings_.Seconds("timeout");
    const std::string request =
        "GET /hello HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: keep-alive\r\n\r\n";
    std::map<int, Pending> pending;
    std::vector<epoll_event> events(256);
    char buffer[4096];
    size_t started = 0;
    int64_t lastProgress = NowNs();
    while (started < count || !pending.empty()) {
      while (started < count && pending.size() < batch) {
        ++started;
        Fd fd = StartConnect(address_);
        if (!fd) {
          ++failed_;
          continue;
        }
        epoll_event event{};
        event.events = EPOLLOUT | EPOLLIN;
        event.data.fd = fd.Get();
        epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, fd.Get(), &event);
        const int key = fd.Get();
        pending[key].fd = std::move(fd);
      }
      const int ready =
          epoll_wait(epoll_.Get(), events.data(), static_cast<int>(events.size()), 50);
      for (int i = 0; i < ready; ++i) {
        const auto found = pending.find(events[static_cast<size_t>(i)].data.fd);
        if (found == pending.end()) continue;
        Pending& connection = found->second;
        const uint32_t flags = events[static_cast<size_t>(i)].events;
        bool done = false, ok = false;
        if (!connection.connected && (flags & (EPOLLOUT | EPOLLERR | EPOLLHUP))) {
          int code = 0;
          socklen_t length = sizeof code;
          getsockopt(connection.fd.Get(), SOL_SOCKET, SO_ERROR, &code, &length);
          connection.connected = code == 0 && !(flags & (EPOLLERR | EPOLLHUP));
          done = !connection.connected;
        }
        if (!done && connection.connected && connection.sent < request.size()) {
          const ssize_t sent = send(connection.fd.Get(), request.data() + connection.sent,
                                    request.size() - connection.sent, MSG_NOSIGNAL);
          if (sent > 0) connection.sent += static_cast<size_t>(sent);
          if (sent < 0 && errno != EAGAIN && errno != EINTR) done = true;
          if (connection.sent == request.size()) {
            epoll_event event{};
            event.events = EPOLLIN;
            event.data.fd = connection.fd.Get();
            epoll_ctl(epoll_.Get(), EPOLL_CTL_MOD, connection.fd.Get(), &event);
          }
        }
        if (!done && (flags & (EPOLLIN | EPOLLHUP | EPOLLERR))) {
          const ssize_t got = recv(connection.fd.Get(), buffer, sizeof buffer, 0);
          if (got > 0) connection.in.append(buffer, static_cast<size_t>(got));
          if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) done = true;
          Reply reply;
          if (ParseReply(connection.in, false, reply) == Parse::Complete) {
            done = true;
            ok = reply.status == 200 && reply.consumed == connection.in.size() && got != 0;
          }
        }
        if (!done) continue;
        lastProgress = NowNs();
        epoll_ctl(epoll_.Get(), EPOLL_CTL_DEL, connection.fd.Get(), nullptr);
        if (ok) {
          held_.push_back(std::move(connection.fd));
        } else {
          ++failed_;
        }
        pending.erase(found);
      }
      if (NowNs() - lastProgress > stall) {
        unanswered_ = pending.size() + (count - started);
        return;  // the server stopped answering: the rest are reported as unanswered
      }
    }
  }

  // Connections the server has not closed: no end of stream, no reset, nothing unexpected.
  size_t CountOpen() {
    size_t open = 0;
    char byte = 0;
    for (const Fd& fd : held_) {
      const ssize_t got = recv(fd.Get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
      if (got < 0 && (errno == EAGAIN || errno == EINTR)) ++open;
    }
    return open;
  }

  const Settings& settings_;
  const sockaddr_in address_;
  Fd epoll_;
  std::vector<Fd> held_;
  size_t failed_ = 0;
  size_t unanswered_ = 0;
};

// ---------------------------------------------------------------------------------------------
// Self-test of the pure parts

void Check(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(std::string("self-test failed: ") + what);
}

void SelfTest() {
  // RFC 6455, 1.3.
  Check(WebSocketAccept("dGhlIHNhbXBsZSBub25jZQ==") == "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=", "accept");
  Check(Base64("") == "" && Base64("f") == "Zg==" && Base64("fo") == "Zm8=" &&
            Base64("foobar") == "Zm9vYmFy",
        "base64");
  Reply reply;
  const std::string fixed = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhelloHTTP/1.1";
  Check(ParseReply(fixed, false, reply) == Parse::Complete && reply.body == "hello" &&
            reply.consumed == fixed.size() - 8,
        "content-length reply");
  const std::string chunked =
      "HTTP/1.1 200 OK\r\ntransfer-encoding: chunked\r\n\r\n3\r\nabc\r\n2;x\r\nde\r\n0\r\n\r\n";
  for (size_t cut = 0; cut < chunked.size(); ++cut)
    Check(ParseReply(chunked.substr(0, cut), false, reply) == Parse::Incomplete, "chunk prefix");
  Check(ParseReply(chunked, false, reply) == Parse::Complete && reply.body == "abcde" &&
            reply.consumed == chunked.size(),
        "chunked reply");
  Check(ParseReply("HTTP/1.1 200 OK\r\n\r\nuntil end", true, reply) == Parse::Complete &&
            reply.body == "until end",
        "reply to the end");
  Check(ParseReply("garbage\r\n\r\n", false, reply) == Parse::Bad, "bad status line");
  // A masked client frame read back through the server-side parser, for every length form.
  for (size_t size : {size_t{0}, size_t{125}, size_t{126}, size_t{65535}, size_t{65536}}) {
    const std::string payload(size, 'x');
    const std::string frame = ClientFrame(0x1, payload, 0x01020304u);
    Frame parsed;
    Check(ParseFrame(frame.substr(0, frame.size() - 1), parsed) == Parse::Incomplete || size == 0,
          "frame prefix");
    Check(ParseFrame(frame, parsed) == Parse::Complete && parsed.payload == payload &&
              parsed.opcode == 0x1 && parsed.fin && parsed.consumed == frame.size(),
          "frame");
  }
  for (const MalformedKind& kind : MalformedKinds())
    Check(!kind.bytes.empty(), "malformed request");
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGTERM, RequestStop);
  std::signal(SIGINT, RequestStop);
  const std::string mode = argc > 1 ? argv[1] : "";
  try {
    if (mode == "self-test") {
      SelfTest();
      std::printf("self-test passed\n");
      return 0;
    }
    if (mode == "soak") {
      Settings settings({
          {"port", 0, 1, 65535},
          {"duration", 600, 0.1, 86400},
          {"timeout", 10, 0.1, 600},
          {"report-ms", 1000, 10, 60000},
          {"keepalive", 16, 0, 1000},
          {"keepalive-pause-ms", 100, 0, 60000},
          {"keepalive-requests", 200, 1, 1e9},
          {"close", 4, 0, 1000},
          {"close-pause-ms", 200, 0, 60000},
          {"websockets", 16, 0, 1000},
          {"ws-pause-ms", 200, 0, 60000},
          {"ws-lifetime", 30, 0.1, 86400},
          {"broadcast-ms", 1000, 0, 60000},
          {"pipeliners", 2, 0, 100},
          {"pipeline-depth", 256, 1, 100000},
          {"pipeline-lifetime", 30, 0.1, 86400},
          {"trickle-head", 8, 0, 1000},
          {"trickle-body", 8, 0, 1000},
          {"trickle-ms", 1000, 1, 60000},
          {"trickle-limit", 60, 0.1, 86400},
          {"abrupt", 4, 0, 1000},
          {"abrupt-pause-ms", 200, 0, 60000},
          {"malformed", 2, 0, 100},
          {"malformed-pause-ms", 250, 0, 60000},
          {"malformed-timeout", 5, 0.1, 600},
      });
      settings.Parse(argc, argv, 2);
      if (settings.Int("port") == 0) Usage("--port is required");
      Soak soak(settings);
      soak.Run();
      return 0;
    }
    if (mode == "idle") {
      Settings settings({
          {"port", 0, 1, 65535},
          {"connections", 10000, 1, 1000000},
          {"batch", 256, 1, 100000},
          {"timeout", 10, 0.1, 600},
      });
      settings.Parse(argc, argv, 2);
      if (settings.Int("port") == 0) Usage("--port is required");
      IdleHolder holder(settings);
      holder.Run();
      return 0;
    }
    Usage(mode.empty() ? "no mode given" : "unknown mode '" + mode + "'");
  } catch (const std::exception& error) {
    std::fprintf(stderr,
                 "veskan_soak_load: %s\nusage: veskan_soak_load soak|idle --port P "
                 "[--name value ...] | self-test (see the head of bench/soak/soakload.cpp)\n",
                 error.what());
    return 2;
  }
}
