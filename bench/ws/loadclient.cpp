// ws_loadclient: the bounded WebSocket load client of the WebSocket benchmark (bench/ws).
//
//   ws_loadclient echo      --port P [--connections 50] [--size 32] [--warmup 2] [--duration 10]
//                           [--max-messages 20000000]
//   ws_loadclient broadcast --port P [--connections 1000] [--size 32] [--rounds 20]
//                           [--warmup-rounds 1] [--pause-ms 200]
//   ws_loadclient self-test
//   common options: [--host 127.0.0.1 (loopback only)] [--path /ws] [--batch 256] [--timeout 10]
//
// One thread, one epoll set, non-blocking sockets and a small RFC 6455 client side of its own:
// the HTTP upgrade with Sec-WebSocket-Key and version 13 (the server's Sec-WebSocket-Accept is
// checked), masked frames out, unmasked frames in with 7-bit, 16-bit and 64-bit lengths,
// fragmented messages, ping and close.
//
// echo: every connection keeps one text message in flight: send it, wait for the echo, compare,
// send the next. Round trips are counted and timed after the warm-up, until the duration ends or
// the message cap is reached.
// broadcast: all connections are upgraded (in batches), then each round posts a text body to
// POST /broadcast on a separate plain HTTP connection and times the span from that request to
// the moment every connection has received the body as a text message. The reply must be 200
// text/plain holding the number of connections.
//
// Prints one JSON line on stdout (also on failure, with "ok": false and "error"); progress and
// errors go to stderr. Exit status: 0 done, 1 failed (time-out, wrong data, lost connection),
// 2 usage or local error, 3 the server refused the upgrade (it does not serve the path).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitRefused = 3;

constexpr uint64_t kMaxMessage = 16u << 20;  // larger frames from the server are an error
constexpr size_t kMaxHandshake = 16384;
constexpr int kConnectAttempts = 3;
constexpr uint32_t kHttpTag = 0xFFFFFFFFu;  // epoll tag of the plain HTTP connection

class Failure : public std::runtime_error {
 public:
  Failure(int code, const std::string& what) : std::runtime_error(what), code_(code) {}
  int code() const { return code_; }

 private:
  int code_;
};

[[noreturn]] void Fail(const std::string& what, int code = kExitFailed) {
  throw Failure(code, what);
}

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
  char text[512];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  return text;
}

std::string ErrnoText(int error) {
  return std::strerror(error);
}

// An owned descriptor.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd& operator=(Fd&& other) noexcept {
    if (this != &other) {
      reset();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() { reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  void reset() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
};

int64_t NowNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

int64_t CpuNs() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

double Ms(int64_t ns) {
  return static_cast<double>(ns) / 1e6;
}

// ---------------------------------------------------------------------------------------------
// SHA-1 and base64, for the Sec-WebSocket-Accept check

uint32_t Rotl(uint32_t value, int bits) {
  return (value << bits) | (value >> (32 - bits));
}

std::array<uint8_t, 20> Sha1(std::string_view data) {
  uint32_t h[5] = {0x67452301u, 0xEFCDAB89u, 0x98BADCFEu, 0x10325476u, 0xC3D2E1F0u};
  std::string message(data);
  const uint64_t bits = static_cast<uint64_t>(data.size()) * 8;
  message.push_back('\x80');
  while (message.size() % 64 != 56)
    message.push_back('\0');
  for (int i = 7; i >= 0; --i)
    message.push_back(static_cast<char>((bits >> (i * 8)) & 0xFF));
  for (size_t offset = 0; offset < message.size(); offset += 64) {
    uint32_t w[80];
    for (int i = 0; i < 16; ++i) {
      const auto* p = reinterpret_cast<const uint8_t*>(message.data() + offset + 4 * i);
      w[i] = (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
    }
    for (int i = 16; i < 80; ++i)
      w[i] = Rotl(w[i - 3] ^ w[i - 8] ^ w[i - 14] ^ w[i - 16], 1);
    uint32_t a = h[0], b = h[1], c = h[2], d = h[3], e = h[4];
    for (int i = 0; i < 80; ++i) {
      uint32_t f, k;
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
      const uint32_t next = Rotl(a, 5) + f + e + k + w[i];
      e = d;
      d = c;
      c = Rotl(b, 30);
      b = a;
      a = next;
    }
    h[0] += a;
    h[1] += b;
    h[2] += c;
    h[3] += d;
    h[4] += e;
  }
  std::array<uint8_t, 20> digest{};
  for (int i = 0; i < 20; ++i)
    digest[i] = static_cast<uint8_t>(h[i / 4] >> (24 - 8 * (i % 4)));
  return digest;
}

std::string Base64(const uint8_t* data, size_t size) {
  static const char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (size_t i = 0; i < size; i += 3) {
    const uint32_t chunk = (uint32_t{data[i]} << 16) |
                           (i + 1 < size ? uint32_t{data[i + 1]} << 8 : 0) |
                           (i + 2 < size ? uint32_t{data[i + 2]} : 0);
    text.push_back(kAlphabet[(chunk >> 18) & 63]);
    text.push_back(kAlphabet[(chunk >> 12) & 63]);
    text.push_back(i + 1 < size ? kAlphabet[(chunk >> 6) & 63] : '=');
    text.push_back(i + 2 < size ? kAlphabet[chunk & 63] : '=');
  }
  return text;
}

std::string AcceptFor(const std::string& key) {
  const auto digest = Sha1(key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11");
  return Base64(digest.data(), digest.size());
}

// xorshift64*: mask keys and handshake keys need to vary, not to be secret.
class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed ? seed : 0x9E3779B97F4A7C15ull) {}
  uint64_t Next() {
    state_ ^= state_ >> 12;
    state_ ^= state_ << 25;
    state_ ^= state_ >> 27;
    return state_ * 0x2545F4914F6CDD1Dull;
  }

 private:
  uint64_t state_;
};

// ---------------------------------------------------------------------------------------------
// Small text helpers

char Lower(char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string LowerCopy(std::string_view text) {
  std::string lowered(text);
  for (char& c : lowered)
    c = Lower(c);
  return lowered;
}

std::string_view Trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
    text.remove_prefix(1);
  while (!text.empty() &&
         (text.back() == ' ' || text.back() == '\t' || text.back() == '\r' || text.back() == '\n'))
    text.remove_suffix(1);
  return text;
}

struct HttpHead {
  int status = 0;
  std::string statusLine;
  std::vector<std::pair<std::string, std::string>> headers;  // names lower-cased

  const std::string* Find(std::string_view name) const {
    for (const auto& header : headers)
      if (header.first == name) return &header.second;
    return nullptr;
  }
};

// Parses the head up to (not including) the blank line.
bool ParseHead(std::string_view head, HttpHead& out) {
  size_t lineEnd = head.find("\r\n");
  out.statusLine = std::string(head.substr(0, lineEnd));
  if (out.statusLine.compare(0, 5, "HTTP/") != 0) return false;
  const size_t space = out.statusLine.find(' ');
  if (space == std::string::npos) return false;
  out.status = std::atoi(out.statusLine.c_str() + space + 1);
  while (lineEnd != std::string_view::npos) {
    const size_t start = lineEnd + 2;
    lineEnd = head.find("\r\n", start);
    std::string_view line = head.substr(
        start, lineEnd == std::string_view::npos ? std::string_view::npos : lineEnd - start);
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    out.headers.emplace_back(LowerCopy(Trim(line.substr(0, colon))),
                             std::string(Trim(line.substr(colon + 1))));
  }
  return out.status > 0;
}

bool HasToken(std::string_view list, std::string_view token) {
  while (!list.empty()) {
    const size_t comma = list.find(',');
    if (LowerCopy(Trim(list.substr(0, comma))) == token) return true;
    if (comma == std::string_view::npos) break;
    list.remove_prefix(comma + 1);
  }
  return false;
}

std::string Printable(std::string_view text, size_t limit = 80) {
  std::string out;
  for (char c : text.substr(0, limit)) {
    out.push_back(c >= 0x20 && c < 0x7F ? c : '?');
  }
  if (text.size() > limit) out += "...";
  return out;
}

std::string JsonString(std::string_view text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') {
      out.push_back('\\');
      out.push_back(c);
    } else if (static_cast<unsigned char>(c) < 0x20) {
      out += Format("\\u%04x", static_cast<unsigned>(static_cast<unsigned char>(c)));
    } else {
      out.push_back(c);
    }
  }
  return out + "\"";
}

// A text payload of exactly `size` bytes that starts with the given words; reuses `payload`.
// Rewrites the 20-digit counter that FillPayload put after "TAG A " (at `position`), as far as
// the payload reaches: cheaper than formatting the whole payload for every message.
void SetCounter(std::string& payload, size_t position, unsigned long long value) {
  char digits[20];
  for (int i = 19; i >= 0; --i) {
    digits[i] = static_cast<char>('0' + value % 10);
    value /= 10;
  }
  for (size_t i = 0; i < 20 && position + i < payload.size(); ++i)
    payload[position + i] = digits[i];
}

void FillPayload(std::string& payload, const char* tag, unsigned a, unsigned long long b,
                 size_t size) {
  char text[96];
  const int length = std::snprintf(text, sizeof text, "%s %u %020llu ", tag, a, b);
  payload.assign(text, std::min<size_t>(static_cast<size_t>(std::max(length, 0)), size));
  payload.resize(size, '.');
}

// ---------------------------------------------------------------------------------------------
// Latency histogram: log-linear buckets, 128 per power of two (under 1 % error), fixed memory.

class Histogram {
 public:
  void Add(int64_t ns) {
    const uint64_t value = ns < 0 ? 0 : static_cast<uint64_t>(ns);
    ++counts_[Index(value)];
    ++total_;
    max_ = std::max(max_, value);
  }
  uint64_t Count() const { return total_; }
  double MaxMs() const { return static_cast<double>(max_) / 1e6; }

  // Nearest-rank percentile, reported at the middle of its bucket.
  double PercentileMs(double percent) const {
    if (total_ == 0) return 0;
    uint64_t rank = static_cast<uint64_t>(percent / 100.0 * static_cast<double>(total_) + 0.999999);
    rank = std::max<uint64_t>(1, std::min(rank, total_));
    uint64_t seen = 0;
    for (size_t i = 0; i < counts_.size(); ++i) {
      seen += counts_[i];
      if (seen >= rank) return std::min(Middle(i), static_cast<double>(max_)) / 1e6;
    }
    return MaxMs();
  }

 private:
  static constexpr int kSubBits = 7;
  static constexpr uint64_t kSub = 1u << kSubBits;
  static constexpr size_t kBuckets = (64 - kSubBits + 1) * kSub;

  static size_t Index(uint64_t value) {
    if (value < kSub) return static_cast<size_t>(value);
    const int top = 63 - __builtin_clzll(value);
    const int shift = top - kSubBits;
    return static_cast<size_t>((shift + 1) * kSub + ((value >> shift) - kSub));
  }
  static double Middle(size_t index) {
    if (index < kSub) return static_cast<double>(index);
    const uint64_t shift = index / kSub - 1;
    const uint64_t low = (kSub + index % kSub) << shift;
    return static_cast<double>(low) + static_cast<double>((uint64_t{1} << shift) - 1) / 2.0;
  }

  std::vector<uint64_t> counts_ = std::vector<uint64_t>(kBuckets, 0);
  uint64_t total_ = 0;
  uint64_t max_ = 0;
};

// Nearest-rank percentile of a small sample, in ms.
double PercentileMs(std::vector<int64_t> samples, double percent) {
  if (samples.empty()) return 0;
  std::sort(samples.begin(), samples.end());
  size_t rank =
      static_cast<size_t>(percent / 100.0 * static_cast<double>(samples.size()) + 0.999999);
  rank = std::max<size_t>(1, std::min(rank, samples.size()));
  return Ms(samples[rank - 1]);
}

// ---------------------------------------------------------------------------------------------
// Options

struct Options {
  std::string mode;
  std::string host = "127.0.0.1";
  int port = 0;
  std::string path = "/ws";
  int connections = 0;  // mode default when 0
  size_t size = 32;
  double warmup = 2.0;
  double duration = 10.0;
  uint64_t maxMessages = 20000000;
  int rounds = 20;
  int warmupRounds = 1;
  int pauseMs = 200;
  int batch = 256;
  double timeout = 10.0;
};

[[noreturn]] void Usage(const std::string& problem) {
  Fail(problem +
           "\nusage: ws_loadclient echo|broadcast --port P [--host H] [--path /ws] "
           "[--connections N] [--size BYTES] [--warmup S] [--duration S] [--max-messages N] "
           "[--rounds N] [--warmup-rounds N] [--pause-ms MS] [--batch N] [--timeout S]\n"
           "       ws_loadclient self-test",
       kExitUsage);
}

Options ParseOptions(int argc, char** argv) {
  Options options;
  if (argc < 2) Usage("no mode given");
  options.mode = argv[1];
  if (options.mode != "echo" && options.mode != "broadcast" && options.mode != "self-test")
    Usage("unknown mode '" + options.mode + "'");
  for (int i = 2; i < argc; ++i) {
    const std::string name = argv[i];
    if (i + 1 >= argc) Usage("option " + name + " needs a value");
    const char* value = argv[++i];
    char* end = nullptr;
    errno = 0;
    const double number = std::strtod(value, &end);
    const bool numeric = end != value && *end == '\0' && errno == 0 && number >= 0;
    auto needNumber = [&](double low, double high) {
      if (!numeric || number < low || number > high)
        Usage(Format("option %s: '%s' is not a number from %g to %g", name.c_str(), value, low,
                     high));
      return number;
    };
    if (name == "--host") {
      options.host = value;
    } else if (name == "--path") {
      options.path = value;
      if (options.path.empty() || options.path[0] != '/') Usage("--path must start with '/'");
    } else if (name == "--port") {
      options.port = static_cast<int>(needNumber(1, 65535));
    } else if (name == "--connections") {
      options.connections = static_cast<int>(needNumber(1, 1000000));
    } else if (name == "--size") {
      options.size = static_cast<size_t>(needNumber(1, 8 << 20));
    } else if (name == "--warmup") {
      options.warmup = needNumber(0, 3600);
    } else if (name == "--duration") {
      options.duration = needNumber(0.1, 3600);
    } else if (name == "--max-messages") {
      options.maxMessages = static_cast<uint64_t>(needNumber(1, 1e12));
    } else if (name == "--rounds") {
      options.rounds = static_cast<int>(needNumber(1, 100000));
    } else if (name == "--warmup-rounds") {
      options.warmupRounds = static_cast<int>(needNumber(0, 1000));
    } else if (name == "--pause-ms") {
      options.pauseMs = static_cast<int>(needNumber(0, 60000));
    } else if (name == "--batch") {
      options.batch = static_cast<int>(needNumber(1, 100000));
    } else if (name == "--timeout") {
      options.timeout = needNumber(0.1, 3600);
    } else {
      Usage("unknown option " + name);
    }
  }
  if (options.mode != "self-test" && options.port == 0) Usage("--port is required");
  if (options.connections == 0) options.connections = options.mode == "echo" ? 50 : 1000;
  return options;
}

// Raises the soft open-file limit to the hard one and checks that `needed` descriptors fit.
void RaiseFileLimit(rlim_t needed) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) Fail("getrlimit: " + ErrnoText(errno), kExitUsage);
  if (limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    getrlimit(RLIMIT_NOFILE, &limit);
  }
  if (limit.rlim_cur != RLIM_INFINITY && limit.rlim_cur < needed) {
    Fail(Format("the open-file limit is %llu but this run needs %llu descriptors: raise the hard "
                "limit (ulimit -Hn) or use fewer connections",
                static_cast<unsigned long long>(limit.rlim_cur),
                static_cast<unsigned long long>(needed)),
         kExitUsage);
  }
}

// ---------------------------------------------------------------------------------------------
// The client

enum class State { Idle, Connecting, Upgrading, Open, Closing, Closed };

struct Connection {
  Fd fd;
  State state = State::Idle;
  uint32_t index = 0;
  int attempts = 0;
  bool watchingWrite = false;
  std::string accept;  // the Sec-WebSocket-Accept value the server must answer
  std::string in;      // received bytes not parsed yet
  std::string out;     // bytes the socket has not taken yet
  size_t outStart = 0;
  std::string fragments;  // a fragmented message being assembled
  uint8_t fragmentOpcode = 0;
  // echo
  std::string expected;
  int64_t sentAt = 0;
  unsigned long long sequence = 0;
  size_t counterAt = 0;  // where the sequence number sits in `expected`
  bool inFlight = false;
  // broadcast
  int lastRound = -1;
};

struct Message {
  uint8_t opcode;
  const char* data;
  size_t size;
};

class Client {
 public:
  explicit Client(const Options& options)
      : options_(options),
        random_(static_cast<uint64_t>(NowNs()) ^ (static_cast<uint64_t>(getpid()) << 32)),
        buffer_(256 * 1024),
        events_(1024) {
    epoll_ = Fd(epoll_create1(EPOLL_CLOEXEC));
    if (!epoll_) Fail("epoll_create1: " + ErrnoText(errno), kExitUsage);
    std::memset(&address_, 0, sizeof address_);
    address_.sin_family = AF_INET;
    address_.sin_port = htons(static_cast<uint16_t>(options.port));
    if (inet_pton(AF_INET, options.host.c_str(), &address_.sin_addr) != 1)
      Fail("--host must be an IPv4 address, not '" + options.host + "'", kExitUsage);
    // A load generator for this machine only: loopback addresses (127.0.0.0/8).
    if ((ntohl(address_.sin_addr.s_addr) >> 24) != 127)
      Fail("--host must be a loopback address (127.x.x.x), not '" + options.host + "'", kExitUsage);
  }

  // Connects and upgrades `count` connections, at most options_.batch at a time.
  void OpenAll(int count) {
    const int64_t started = NowNs();
    connections_.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
      auto connection = std::make_unique<Connection>();
      connection->index = static_cast<uint32_t>(i);
      connections_.push_back(std::move(connection));
    }
    const int64_t stallLimit = static_cast<int64_t>(options_.timeout * 1e9);
    const int64_t totalLimit = stallLimit + static_cast<int64_t>(count) * 10000000;  // +10 ms each
    int next = 0, pending = 0, open = 0;
    int64_t lastProgress = NowNs();
    while (open < count) {
      while (next < count && pending < options_.batch) {
        StartConnect(*connections_[static_cast<size_t>(next++)]);
        ++pending;
      }
      const int ready = Wait(50);
      for (int i = 0; i < ready; ++i) {
        const epoll_event& event = events_[static_cast<size_t>(i)];
        Connection& connection = *connections_[event.data.u32];
        const State before = connection.state;
        if (connection.state == State::Connecting) {
          FinishConnect(connection);
        } else if (connection.state == State::Upgrading) {
          if (event.events & EPOLLOUT) Flush(connection);
          if (event.events & (EPOLLIN | EPOLLERR | EPOLLHUP)) ReadUpgrade(connection);
        } else if (connection.state == State::Open) {
          Service(connection, event.events, [&](Connection& from, const Message&) {
            Fail(Format("connection %u received a message before any was asked for", from.index));
          });
        }
        if (connection.state != before) lastProgress = NowNs();
        if (before != State::Open && connection.state == State::Open) {
          --pending;
          ++open;
        }
      }
      const int64_t now = NowNs();
      if (now - lastProgress > stallLimit || now - started > totalLimit) {
        Fail(
            Format("connection set-up timed out after %.1f s: %d of %d connections upgraded, %d "
                   "waiting for the server (does it answer on %s:%d%s?)",
                   Ms(now - started) / 1000, open, count, pending, options_.host.c_str(),
                   options_.port, options_.path.c_str()));
      }
    }
    setupNs_ = NowNs() - started;
  }

  // Sends a close frame on every open connection and waits (bounded) for the server to close.
  void CloseAll(double seconds) {
    int closing = 0;
    for (auto& connection : connections_) {
      if (connection->state != State::Open) {
        connection->fd.reset();
        connection->state = State::Closed;
        continue;
      }
      const char code[2] = {'\x03', '\xE8'};  // 1000, normal closure
      try {
        SendFrame(*connection, 0x8, code, sizeof code);
        connection->state = State::Closing;
        ++closing;
      } catch (const Failure&) {
        connection->fd.reset();
        connection->state = State::Closed;
      }
    }
    const int64_t deadline = NowNs() + static_cast<int64_t>(seconds * 1e9);
    while (closing > 0 && NowNs() < deadline) {
      const int ready = Wait(20);
      for (int i = 0; i < ready; ++i) {
        const epoll_event& event = events_[static_cast<size_t>(i)];
        if (event.data.u32 == kHttpTag) continue;
        Connection& connection = *connections_[event.data.u32];
        if (connection.state != State::Closing) continue;
        if (event.events & EPOLLOUT) {
          try {
            Flush(connection);
          } catch (const Failure&) {
          }
        }
        // Edge-triggered: read until the socket is empty, or the end shows no new event.
        for (int reads = 0; reads < 64; ++reads) {
          const ssize_t got = recv(connection.fd.get(), buffer_.data(), buffer_.size(), 0);
          if (got > 0) continue;
          if (got < 0 && errno == EINTR) continue;
          if (got < 0 && errno == EAGAIN) break;
          connection.fd.reset();
          connection.state = State::Closed;
          --closing;
          break;
        }
      }
    }
    for (auto& connection : connections_)
      connection->fd.reset();
  }

  // echo mode; appends its JSON fields to `json`.
  void RunEcho(std::string& json) {
    OpenAll(options_.connections);
    const int64_t start = NowNs();
    const int64_t measureFrom = start + static_cast<int64_t>(options_.warmup * 1e9);
    const int64_t measureUntil = measureFrom + static_cast<int64_t>(options_.duration * 1e9);
    bool measuring = false, stopping = false;
    int64_t windowStart = 0, windowEnd = 0, cpuStart = 0;
    uint64_t measured = 0;
    int64_t nextStallCheck = 0;
    Histogram latency;

    auto sendNext = [&](Connection& connection, int64_t now) {
      if (connection.sequence == 0) {
        FillPayload(connection.expected, "echo", connection.index, 0, options_.size);
        connection.counterAt = Format("echo %u ", connection.index).size();
      }
      SetCounter(connection.expected, connection.counterAt, ++connection.sequence);
      connection.inFlight = true;
      connection.sentAt = now;
      SendFrame(connection, 0x1, connection.expected.data(), connection.expected.size());
    };
    auto onMessage = [&](Connection& connection, const Message& message) {
      if (!connection.inFlight)
        Fail(Format("connection %u received a message it did not ask for", connection.index));
      if (message.opcode != 0x1 || message.size != connection.expected.size() ||
          std::memcmp(message.data, connection.expected.data(), message.size) != 0) {
        Fail(
            Format("the echo on connection %u differs from the message sent: got %s%zu bytes "
                   "\"%s\", sent \"%s\"",
                   connection.index, message.opcode == 0x1 ? "" : "a binary message of ",
                   message.size, Printable(std::string_view(message.data, message.size)).c_str(),
                   Printable(connection.expected).c_str()));
      }
      connection.inFlight = false;
      const int64_t now = NowNs();  // the echo's arrival and the next message's departure
      if (measuring && !stopping) {
        latency.Add(now - connection.sentAt);
        ++measured;
        if (measured >= options_.maxMessages) stopping = true;
      }
      if (!stopping) sendNext(connection, now);
    };

    for (auto& connection : connections_)
      sendNext(*connection, NowNs());
    while (true) {
      const int64_t now = NowNs();
      if (!measuring && now >= measureFrom) {
        measuring = true;
        windowStart = now;
        cpuStart = CpuNs();
      }
      if (measuring && (now >= measureUntil || stopping)) {
        windowEnd = now;
        break;
      }
      const int64_t boundary = measuring ? measureUntil : measureFrom;
      const int timeoutMs =
          static_cast<int>(std::clamp<int64_t>((boundary - now) / 1000000, 0, 100));
      const int ready = Wait(timeoutMs);
      for (int i = 0; i < ready; ++i) {
        const epoll_event& event = events_[static_cast<size_t>(i)];
        Service(*connections_[event.data.u32], event.events, onMessage);
      }
      // A connection whose echo never comes would quietly lower the rate: give up after the
      // time-out.
      if (now >= nextStallCheck) {
        CheckEchoStall(now);
        nextStallCheck = now + 100000000;
      }
    }
    const int64_t cpu = CpuNs() - cpuStart;
    const int64_t window = std::max<int64_t>(windowEnd - windowStart, 1);
    CloseAll(1.0);

    json += Format(
        "\"connections\":%d,\"size\":%zu,\"setup_s\":%.3f,\"warmup_s\":%.3f,\"duration_s\":%.3f,"
        "\"round_trips\":%llu,\"round_trips_per_s\":%.1f,\"p50_ms\":%.4f,\"p99_ms\":%.4f,"
        "\"max_ms\":%.4f,\"capped\":%s,\"client_cpu_percent\":%.1f",
        options_.connections, options_.size, Ms(setupNs_) / 1000, options_.warmup,
        Ms(window) / 1000, static_cast<unsigned long long>(measured),
        static_cast<double>(measured) * 1e9 / static_cast<double>(window), latency.PercentileMs(50),
        latency.PercentileMs(99), latency.MaxMs(),
        measured >= options_.maxMessages ? "true" : "false",
        100.0 * static_cast<double>(cpu) / static_cast<double>(window));
  }

  // broadcast mode; appends its JSON fields to `json`.
  void RunBroadcast(std::string& json) {
    const int count = options_.connections;
    OpenAll(count);
    std::vector<int64_t> times, cpuTimes;
    int round = -1;
    int received = 0;
    int64_t roundStart = 0, allReceived = 0;
    std::string expected;
    auto onMessage = [&](Connection& connection, const Message& message) {
      if (round < 0 || !expected.size())
        Fail(Format("connection %u received a message between broadcasts", connection.index));
      if (message.opcode != 0x1 || message.size != expected.size() ||
          std::memcmp(message.data, expected.data(), message.size) != 0) {
        Fail(Format("connection %u received \"%s\" (%zu bytes%s) instead of broadcast %d",
                    connection.index,
                    Printable(std::string_view(message.data, message.size)).c_str(), message.size,
                    message.opcode == 0x1 ? "" : ", binary", round));
      }
      if (connection.lastRound == round)
        Fail(Format("connection %u received broadcast %d twice", connection.index, round));
      connection.lastRound = round;
      if (++received == count) allReceived = NowNs();
    };

    const int total = options_.warmupRounds + options_.rounds;
    int reported = -1;
    for (round = 0; round < total; ++round) {
      FillPayload(expected, "broadcast", static_cast<unsigned>(round),
                  static_cast<unsigned long long>(count), options_.size);
      received = 0;
      allReceived = 0;
      Fd http = ConnectHttp();
      std::string request = Format("POST /broadcast HTTP/1.1\r\nHost: %s:%d\r\n",
                                   options_.host.c_str(), options_.port);
      request += Format("Content-Type: text/plain\r\nContent-Length: %zu\r\n", expected.size());
      request += "Connection: close\r\n\r\n" + expected;
      const int64_t cpuBefore = CpuNs();
      roundStart = NowNs();
      const int64_t deadline = roundStart + static_cast<int64_t>(options_.timeout * 1e9);
      size_t requestSent = 0;
      std::string reply;
      bool replyDone = false;
      // The request goes out at once; a remainder (not expected for a few bytes) waits for
      // EPOLLOUT.
      const ssize_t first = send(http.get(), request.data(), request.size(), MSG_NOSIGNAL);
      if (first < 0 && errno != EAGAIN && errno != EINTR)
        Fail("POST /broadcast: send: " + ErrnoText(errno));
      if (first > 0) requestSent = static_cast<size_t>(first);
      WatchHttp(http.get(), requestSent < request.size() ? EPOLLOUT | EPOLLIN : EPOLLIN);
      while (received < count || !replyDone) {
        if (NowNs() > deadline) {
          Fail(
              Format("broadcast %d: after %.1f s %d of %d connections received it; the reply "
                     "to POST /broadcast %s",
                     round, options_.timeout, received, count,
                     replyDone ? ("was \"" + Printable(reply) + "\"").c_str()
                               : (reply.empty() ? "did not come" : "was incomplete")));
        }
        const int ready = Wait(20);
        for (int i = 0; i < ready; ++i) {
          const epoll_event& event = events_[static_cast<size_t>(i)];
          if (event.data.u32 != kHttpTag) {
            Service(*connections_[event.data.u32], event.events, onMessage);
            continue;
          }
          if (replyDone) continue;
          if ((event.events & EPOLLOUT) && requestSent < request.size()) {
            const ssize_t sent = send(http.get(), request.data() + requestSent,
                                      request.size() - requestSent, MSG_NOSIGNAL);
            if (sent < 0 && errno != EAGAIN && errno != EINTR)
              Fail("POST /broadcast: send: " + ErrnoText(errno));
            if (sent > 0) requestSent += static_cast<size_t>(sent);
            if (requestSent == request.size()) WatchHttp(http.get(), EPOLLIN);
          }
          if (event.events & (EPOLLIN | EPOLLERR | EPOLLHUP)) {
            replyDone = ReadReply(http, reply);
            if (replyDone) epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, http.get(), nullptr);
          }
        }
      }
      const int64_t elapsed = allReceived - roundStart;
      const int64_t cpu = CpuNs() - cpuBefore;
      CheckReply(reply, count);
      http.reset();
      if (round >= options_.warmupRounds) {
        times.push_back(elapsed);
        cpuTimes.push_back(cpu);
      }
      if (round / 5 != reported) {
        reported = round / 5;
        std::fprintf(stderr, "broadcast %d to %d connections: %.2f ms\n", round, count,
                     Ms(elapsed));
      }
      // The pause: nothing may arrive, pings are still answered.
      expected.clear();
      const int64_t pauseUntil = NowNs() + int64_t{options_.pauseMs} * 1000000;
      for (int64_t now = NowNs(); now < pauseUntil; now = NowNs()) {
        const int ready =
            Wait(static_cast<int>(std::max<int64_t>(1, (pauseUntil - now) / 1000000)));
        for (int i = 0; i < ready; ++i) {
          const epoll_event& event = events_[static_cast<size_t>(i)];
          if (event.data.u32 != kHttpTag)
            Service(*connections_[event.data.u32], event.events, onMessage);
        }
      }
    }
    CloseAll(2.0);

    std::string list;
    for (int64_t time : times)
      list += Format("%s%.3f", list.empty() ? "" : ",", Ms(time));
    int64_t cpuTotal = 0, timeTotal = 0;
    for (size_t i = 0; i < times.size(); ++i) {
      cpuTotal += cpuTimes[i];
      timeTotal += times[i];
    }
    json += Format(
        "\"connections\":%d,\"size\":%zu,\"setup_s\":%.3f,\"rounds\":%d,\"warmup_rounds\":%d,"
        "\"pause_ms\":%d,\"p50_ms\":%.3f,\"p99_ms\":%.3f,\"min_ms\":%.3f,\"max_ms\":%.3f,"
        "\"reached\":%d,\"client_cpu_percent\":%.1f,\"times_ms\":[",
        count, options_.size, Ms(setupNs_) / 1000, options_.rounds, options_.warmupRounds,
        options_.pauseMs, PercentileMs(times, 50), PercentileMs(times, 99), PercentileMs(times, 0),
        PercentileMs(times, 100), count,
        timeTotal > 0 ? 100.0 * static_cast<double>(cpuTotal) / static_cast<double>(timeTotal) : 0);
    json += list + "]";
  }

  // Feeds hand-made server frames through the parser, split into pieces of many sizes: 7-bit,
  // 16-bit and 64-bit lengths and a message in three fragments.
  void SelfTestFrames() {
    auto frame = [](uint8_t first, const std::string& payload) {
      std::string bytes(1, static_cast<char>(first));
      const uint64_t size = payload.size();
      if (size < 126) {
        bytes.push_back(static_cast<char>(size));
      } else if (size <= 0xFFFF) {
        bytes.push_back(static_cast<char>(126));
        for (int i = 1; i >= 0; --i)
          bytes.push_back(static_cast<char>((size >> (8 * i)) & 0xFF));
      } else {
        bytes.push_back(static_cast<char>(127));
        for (int i = 7; i >= 0; --i)
          bytes.push_back(static_cast<char>((size >> (8 * i)) & 0xFF));
      }
      return bytes + payload;
    };
    const std::string small(125, 'a'), medium(300, 'b'), large(70000, 'c');
    const std::string stream = frame(0x81, small) + frame(0x81, medium) + frame(0x82, large) +
                               frame(0x01, "frag") + frame(0x00, "ment") + frame(0x80, "ed") +
                               frame(0x81, "");
    const std::vector<std::pair<uint8_t, std::string>> expected = {
        {0x1, small}, {0x1, medium}, {0x2, large}, {0x1, "fragmented"}, {0x1, ""}};
    for (size_t piece :
         {size_t{1}, size_t{2}, size_t{3}, size_t{127}, size_t{4096}, stream.size()}) {
      Connection connection;
      connection.state = State::Open;
      size_t seen = 0;
      auto onMessage = [&](Connection&, const Message& message) {
        if (seen >= expected.size() || message.opcode != expected[seen].first ||
            std::string(message.data, message.size) != expected[seen].second)
          Fail(Format("frame parser: message %zu wrong with pieces of %zu bytes", seen, piece));
        ++seen;
      };
      for (size_t at = 0; at < stream.size(); at += piece)
        Consume(connection, stream.data() + at, std::min(piece, stream.size() - at), onMessage);
      if (seen != expected.size() || !connection.in.empty())
        Fail(Format("frame parser: %zu of %zu messages with pieces of %zu bytes", seen,
                    expected.size(), piece));
    }
  }

  int Upgraded() const {
    int open = 0;
    for (const auto& connection : connections_)
      if (connection->state == State::Open || connection->state == State::Closing) ++open;
    return open;
  }

 private:
  int Wait(int timeoutMs) {
    const int ready =
        epoll_wait(epoll_.get(), events_.data(), static_cast<int>(events_.size()), timeoutMs);
    if (ready < 0) {
      if (errno == EINTR) return 0;
      Fail("epoll_wait: " + ErrnoText(errno));
    }
    return ready;
  }

  // WebSocket connections are edge-triggered: a level-triggered descriptor is polled once more
  // after every event, which costs the client about as much as a recv call. Readers therefore
  // read until a short read (all there was) or EAGAIN, and re-arm when they stop early.
  void Watch(Connection& connection, uint32_t events, int operation) {
    epoll_event event{};
    event.events = events | EPOLLET;
    event.data.u32 = connection.index;
    if (epoll_ctl(epoll_.get(), operation, connection.fd.get(), &event) != 0)
      Fail("epoll_ctl: " + ErrnoText(errno));
    connection.watchingWrite = (events & EPOLLOUT) != 0;
  }

  void WatchHttp(int fd, uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.u32 = kHttpTag;
    if (epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, fd, &event) != 0 &&
        (errno != ENOENT || epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) != 0))
      Fail("epoll_ctl: " + ErrnoText(errno));
  }

  Fd NewSocket() {
    Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd) {
      if (errno == EMFILE || errno == ENFILE)
        Fail("out of descriptors: " + ErrnoText(errno), kExitUsage);
      Fail("socket: " + ErrnoText(errno));
    }
    const int one = 1;
    setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
  }

  void StartConnect(Connection& connection) {
    connection.fd = NewSocket();
    connection.in.clear();
    connection.out.clear();
    connection.outStart = 0;
    ++connection.attempts;
    if (connect(connection.fd.get(), reinterpret_cast<const sockaddr*>(&address_),
                sizeof address_) != 0 &&
        errno != EINPROGRESS) {
      RetryOrFail(connection, errno, "connect");
      return;
    }
    connection.state = State::Connecting;
    Watch(connection, EPOLLOUT, EPOLL_CTL_ADD);
  }

  void RetryOrFail(Connection& connection, int error, const char* step) {
    const bool transient = error == ECONNRESET || error == ECONNREFUSED || error == ETIMEDOUT ||
                           error == EPIPE || error == EAGAIN || error == ECONNABORTED;
    if (transient && connection.attempts < kConnectAttempts) {
      if (++retries_ <= 3)
        std::fprintf(stderr, "connection %u: %s: %s, trying again%s\n", connection.index, step,
                     ErrnoText(error).c_str(), retries_ == 3 ? " (further retries not shown)" : "");
      connection.fd.reset();  // closing the descriptor also removes it from the epoll set
      StartConnect(connection);
      return;
    }
    Fail(Format("connection %u to %s:%d: %s: %s (after %d attempts)", connection.index,
                options_.host.c_str(), options_.port, step, ErrnoText(error).c_str(),
                connection.attempts));
  }

  void FinishConnect(Connection& connection) {
    int error = 0;
    socklen_t length = sizeof error;
    if (getsockopt(connection.fd.get(), SOL_SOCKET, SO_ERROR, &error, &length) != 0) error = errno;
    if (error != 0) {
      RetryOrFail(connection, error, "connect");
      return;
    }
    uint8_t nonce[16];
    const uint64_t first = random_.Next(), second = random_.Next();
    std::memcpy(nonce, &first, 8);
    std::memcpy(nonce + 8, &second, 8);
    const std::string key = Base64(nonce, sizeof nonce);
    connection.accept = AcceptFor(key);
    const std::string request = Format(
        "GET %s HTTP/1.1\r\nHost: %s:%d\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
        "Sec-WebSocket-Key: %s\r\nSec-WebSocket-Version: 13\r\n\r\n",
        options_.path.c_str(), options_.host.c_str(), options_.port, key.c_str());
    connection.state = State::Upgrading;
    Watch(connection, EPOLLIN, EPOLL_CTL_MOD);
    SendRaw(connection, request.data(), request.size());
  }

  void ReadUpgrade(Connection& connection) {
    while (true) {
      const ssize_t got = recv(connection.fd.get(), buffer_.data(), buffer_.size(), 0);
      if (got > 0) {
        connection.in.append(buffer_.data(), static_cast<size_t>(got));
        if (connection.in.size() > kMaxHandshake &&
            connection.in.find("\r\n\r\n") == std::string::npos)
          Fail(Format("connection %u: the reply to the upgrade has no end after %zu bytes",
                      connection.index, connection.in.size()));
        continue;
      }
      if (got < 0 && errno == EINTR) continue;
      if (got < 0 && errno == EAGAIN) break;
      const int error = got == 0 ? 0 : errno;
      if (connection.in.empty()) {
        // Reset before any reply: the listen queue may have overflowed; try once more.
        RetryOrFail(connection, error == 0 ? ECONNRESET : error, "upgrade");
        return;
      }
      if (connection.in.find("\r\n\r\n") != std::string::npos) break;
      Fail(
          Format("connection %u: the server closed the connection in the middle of its reply "
                 "to the upgrade: \"%s\"",
                 connection.index, Printable(connection.in).c_str()));
    }
    const size_t end = connection.in.find("\r\n\r\n");
    if (end == std::string::npos) return;
    HttpHead head;
    if (!ParseHead(std::string_view(connection.in).substr(0, end), head))
      Fail(Format("connection %u: unreadable reply to the upgrade: \"%s\"", connection.index,
                  Printable(connection.in).c_str()));
    if (head.status != 101) {
      Fail(Format("the server answered \"%s\" to the WebSocket upgrade on %s",
                  Printable(head.statusLine).c_str(), options_.path.c_str()),
           kExitRefused);
    }
    const std::string* upgrade = head.Find("upgrade");
    const std::string* connectionHeader = head.Find("connection");
    const std::string* accept = head.Find("sec-websocket-accept");
    if (!upgrade || LowerCopy(*upgrade) != "websocket")
      Fail("101 reply without \"Upgrade: websocket\"");
    if (!connectionHeader || !HasToken(*connectionHeader, "upgrade"))
      Fail("101 reply without \"Connection: Upgrade\"");
    if (!accept || *accept != connection.accept)
      Fail(Format("wrong Sec-WebSocket-Accept: \"%s\", expected \"%s\"",
                  accept ? Printable(*accept).c_str() : "(none)", connection.accept.c_str()));
    if (head.Find("sec-websocket-extensions"))
      Fail("the server agreed to an extension this client did not offer");
    connection.in.erase(0, end + 4);  // any frame bytes that followed the reply stay
    connection.state = State::Open;
    if (!connection.in.empty()) {
      const size_t used = ParseFrames(connection, connection.in.data(), connection.in.size(),
                                      [&](Connection& from, const Message&) {
                                        Fail(
                                            Format("connection %u received a message right "
                                                   "after the upgrade",
                                                   from.index));
                                      });
      connection.in.erase(0, used);
    }
  }

  // Handles readiness of an open connection: flushes pending output, reads and parses frames.
  template <typename OnMessage>
  void Service(Connection& connection, uint32_t events, OnMessage&& onMessage) {
    if (connection.state != State::Open) return;
    if (events & EPOLLOUT) Flush(connection);
    if (!(events & (EPOLLIN | EPOLLERR | EPOLLHUP))) return;
    for (int reads = 0; reads < 64; ++reads) {
      const ssize_t got = recv(connection.fd.get(), buffer_.data(), buffer_.size(), 0);
      if (got > 0) {
        const size_t size = static_cast<size_t>(got);
        Consume(connection, buffer_.data(), size, onMessage);
        if (size < buffer_.size()) return;  // a short read took everything there was
        continue;
      }
      if (got < 0 && errno == EINTR) continue;
      if (got < 0 && errno == EAGAIN) return;
      Fail(Format("connection %u: the server %s", connection.index,
                  got == 0 ? "closed the connection"
                           : ("reset the connection: " + ErrnoText(errno)).c_str()));
    }
    // Stopped with data left: re-arming reports the descriptor again if it is still readable.
    Watch(connection, connection.watchingWrite ? EPOLLIN | EPOLLOUT : EPOLLIN, EPOLL_CTL_MOD);
  }

  // Parses what arrived, straight from the read buffer unless part of a frame waits in `in`.
  template <typename OnMessage>
  void Consume(Connection& connection, const char* data, size_t size, OnMessage&& onMessage) {
    if (connection.in.empty()) {
      const size_t used = ParseFrames(connection, data, size, onMessage);
      if (used < size) connection.in.assign(data + used, size - used);
      return;
    }
    connection.in.append(data, size);
    const size_t used =
        ParseFrames(connection, connection.in.data(), connection.in.size(), onMessage);
    connection.in.erase(0, used);
  }

  // Parses complete frames from data; returns the number of bytes used.
  template <typename OnMessage>
  size_t ParseFrames(Connection& connection, const char* data, size_t size, OnMessage&& onMessage) {
    size_t position = 0;
    while (size - position >= 2) {
      const auto* bytes = reinterpret_cast<const uint8_t*>(data + position);
      const bool fin = (bytes[0] & 0x80) != 0;
      const uint8_t opcode = bytes[0] & 0x0F;
      if (bytes[0] & 0x70)
        Fail(Format("connection %u: a frame with reserved bits set (no extension was agreed)",
                    connection.index));
      if (bytes[1] & 0x80)
        Fail(Format("connection %u: a masked frame from the server", connection.index));
      uint64_t length = bytes[1] & 0x7F;
      size_t header = 2;
      if (length == 126) {
        if (size - position < 4) break;
        length = (uint64_t{bytes[2]} << 8) | bytes[3];
        header = 4;
        if (length < 126) Fail("a 16-bit frame length below 126");
      } else if (length == 127) {
        if (size - position < 10) break;
        length = 0;
        for (int i = 2; i < 10; ++i)
          length = (length << 8) | bytes[i];
        header = 10;
        if (length >> 63) Fail("a 64-bit frame length with the top bit set");
        if (length <= 0xFFFF) Fail("a 64-bit frame length below 65,536");
      }
      if (length > kMaxMessage)
        Fail(Format("connection %u: a frame of %" PRIu64 " bytes, more than this client takes",
                    connection.index, length));
      if (size - position - header < length) break;
      const char* payload = data + position + header;
      position += header + static_cast<size_t>(length);
      HandleFrame(connection, fin, opcode, payload, static_cast<size_t>(length), onMessage);
    }
    return position;
  }

  template <typename OnMessage>
  void HandleFrame(Connection& connection, bool fin, uint8_t opcode, const char* payload,
                   size_t length, OnMessage&& onMessage) {
    if (opcode >= 0x8) {
      if (!fin || length > 125)
        Fail(Format("connection %u: a fragmented or long control frame", connection.index));
      if (opcode == 0x8) {
        const unsigned code = length >= 2
                                  ? (static_cast<unsigned>(static_cast<uint8_t>(payload[0])) << 8) |
                                        static_cast<uint8_t>(payload[1])
                                  : 1005;
        Fail(
            Format("connection %u: the server closed the WebSocket (code %u%s%s)", connection.index,
                   code, length > 2 ? ": " : "",
                   length > 2 ? Printable(std::string_view(payload + 2, length - 2)).c_str() : ""));
      }
      if (opcode == 0x9) SendFrame(connection, 0xA, payload, length);  // ping: pong
      if (opcode != 0x9 && opcode != 0xA)
        Fail(Format("connection %u: unknown control opcode %u", connection.index, opcode));
      return;
    }
    if (opcode == 0x0) {
      if (connection.fragmentOpcode == 0)
        Fail(Format("connection %u: a continuation frame without a message", connection.index));
      connection.fragments.append(payload, length);
      if (connection.fragments.size() > kMaxMessage)
        Fail(Format("connection %u: a message larger than this client takes", connection.index));
      if (fin) {
        std::string whole;
        whole.swap(connection.fragments);
        const uint8_t first = connection.fragmentOpcode;
        connection.fragmentOpcode = 0;
        onMessage(connection, Message{first, whole.data(), whole.size()});
      }
      return;
    }
    if (opcode != 0x1 && opcode != 0x2)
      Fail(Format("connection %u: unknown opcode %u", connection.index, opcode));
    if (connection.fragmentOpcode != 0)
      Fail(Format("connection %u: a new message inside a fragmented one", connection.index));
    if (fin) {
      onMessage(connection, Message{opcode, payload, length});
    } else {
      connection.fragmentOpcode = opcode;
      connection.fragments.assign(payload, length);
    }
  }

  // Sends one masked frame.
  void SendFrame(Connection& connection, uint8_t opcode, const char* payload, size_t length) {
    frame_.resize(14 + length);
    auto* out = reinterpret_cast<uint8_t*>(frame_.data());
    size_t header = 0;
    out[header++] = static_cast<uint8_t>(0x80 | opcode);
    if (length < 126) {
      out[header++] = static_cast<uint8_t>(0x80 | length);
    } else if (length <= 0xFFFF) {
      out[header++] = 0x80 | 126;
      out[header++] = static_cast<uint8_t>(length >> 8);
      out[header++] = static_cast<uint8_t>(length);
    } else {
      out[header++] = 0x80 | 127;
      for (int i = 7; i >= 0; --i)
        out[header++] = static_cast<uint8_t>(uint64_t{length} >> (8 * i));
    }
    const uint32_t maskWord = static_cast<uint32_t>(random_.Next() >> 16);
    uint8_t mask[4];
    std::memcpy(mask, &maskWord, 4);
    std::memcpy(out + header, mask, 4);
    header += 4;
    for (size_t i = 0; i < length; ++i)
      out[header + i] = static_cast<uint8_t>(payload[i]) ^ mask[i & 3];
    SendRaw(connection, frame_.data(), header + length);
  }

  void SendRaw(Connection& connection, const char* data, size_t size) {
    if (connection.outStart < connection.out.size()) {  // earlier bytes still wait
      connection.out.append(data, size);
      return;
    }
    connection.out.clear();
    connection.outStart = 0;
    size_t sent = 0;
    while (sent < size) {
      const ssize_t done = send(connection.fd.get(), data + sent, size - sent, MSG_NOSIGNAL);
      if (done > 0) {
        sent += static_cast<size_t>(done);
        continue;
      }
      if (done < 0 && errno == EINTR) continue;
      if (done < 0 && errno == EAGAIN) break;
      Fail(Format("connection %u: send: %s", connection.index, ErrnoText(errno).c_str()));
    }
    if (sent < size) {
      connection.out.assign(data + sent, size - sent);
      if (!connection.watchingWrite) Watch(connection, EPOLLIN | EPOLLOUT, EPOLL_CTL_MOD);
    }
  }

  void Flush(Connection& connection) {
    while (connection.outStart < connection.out.size()) {
      const ssize_t done = send(connection.fd.get(), connection.out.data() + connection.outStart,
                                connection.out.size() - connection.outStart, MSG_NOSIGNAL);
      if (done > 0) {
        connection.outStart += static_cast<size_t>(done);
        continue;
      }
      if (done < 0 && errno == EINTR) continue;
      if (done < 0 && errno == EAGAIN) return;
      Fail(Format("connection %u: send: %s", connection.index, ErrnoText(errno).c_str()));
    }
    connection.out.clear();
    connection.outStart = 0;
    if (connection.watchingWrite) Watch(connection, EPOLLIN, EPOLL_CTL_MOD);
  }

  void CheckEchoStall(int64_t now) {
    const int64_t limit = static_cast<int64_t>(options_.timeout * 1e9);
    for (const auto& connection : connections_) {
      if (connection->inFlight && now - connection->sentAt > limit)
        Fail(Format("connection %u: no echo within %.1f s", connection->index, options_.timeout));
    }
  }

  // A plain HTTP connection, connected before the round's clock starts.
  Fd ConnectHttp() {
    Fd fd = NewSocket();
    if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address_), sizeof address_) != 0) {
      if (errno != EINPROGRESS) Fail("POST /broadcast: connect: " + ErrnoText(errno));
      pollfd poller{fd.get(), POLLOUT, 0};
      const int ready = poll(&poller, 1, static_cast<int>(options_.timeout * 1000));
      if (ready <= 0) Fail("POST /broadcast: connect timed out");
      int error = 0;
      socklen_t length = sizeof error;
      getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &length);
      if (error != 0) Fail("POST /broadcast: connect: " + ErrnoText(error));
    }
    return fd;
  }

  // Reads what is there; returns true once the reply is complete (by length, chunks or EOF).
  bool ReadReply(Fd& http, std::string& reply) {
    while (true) {
      const ssize_t got = recv(http.get(), buffer_.data(), buffer_.size(), 0);
      if (got > 0) {
        reply.append(buffer_.data(), static_cast<size_t>(got));
        if (reply.size() > (1u << 20)) Fail("POST /broadcast: reply larger than 1 MiB");
        if (ReplyComplete(reply)) return true;
        continue;
      }
      if (got < 0 && errno == EINTR) continue;
      if (got < 0 && errno == EAGAIN) return false;
      if (reply.empty())
        Fail(Format("POST /broadcast: the server closed the connection without a reply%s",
                    got < 0 ? (": " + ErrnoText(errno)).c_str() : ""));
      return true;  // end of the body at EOF
    }
  }

  static bool ReplyComplete(const std::string& reply) {
    const size_t end = reply.find("\r\n\r\n");
    if (end == std::string::npos) return false;
    HttpHead head;
    if (!ParseHead(std::string_view(reply).substr(0, end), head)) return false;
    if (const std::string* length = head.Find("content-length"))
      return reply.size() >= end + 4 + std::strtoull(length->c_str(), nullptr, 10);
    if (const std::string* coding = head.Find("transfer-encoding"))
      if (HasToken(*coding, "chunked"))
        return reply.find("\r\n0\r\n\r\n", end) != std::string::npos ||
               reply.compare(end + 4, 5, "0\r\n\r\n") == 0;
    return false;
  }

  static std::string ReplyBody(const std::string& reply, const HttpHead& head, size_t bodyStart) {
    std::string body = reply.substr(bodyStart);
    if (const std::string* length = head.Find("content-length"))
      return body.substr(0, std::strtoull(length->c_str(), nullptr, 10));
    const std::string* coding = head.Find("transfer-encoding");
    if (!coding || !HasToken(*coding, "chunked")) return body;
    std::string decoded;
    size_t position = 0;
    while (position < body.size()) {
      const size_t lineEnd = body.find("\r\n", position);
      if (lineEnd == std::string::npos) break;
      const size_t chunk = std::strtoull(body.c_str() + position, nullptr, 16);
      if (chunk == 0) break;
      decoded += body.substr(lineEnd + 2, chunk);
      position = lineEnd + 2 + chunk + 2;
    }
    return decoded;
  }

  void CheckReply(const std::string& reply, int count) {
    const size_t end = reply.find("\r\n\r\n");
    HttpHead head;
    if (end == std::string::npos || !ParseHead(std::string_view(reply).substr(0, end), head))
      Fail("POST /broadcast: unreadable reply \"" + Printable(reply) + "\"");
    const std::string body = ReplyBody(reply, head, end + 4);
    if (head.status != 200)
      Fail(Format("POST /broadcast answered \"%s\" (body \"%s\")",
                  Printable(head.statusLine).c_str(), Printable(body).c_str()));
    const std::string* type = head.Find("content-type");
    if (!type || LowerCopy(*type).compare(0, 10, "text/plain") != 0)
      Fail(Format("POST /broadcast answered with Content-Type \"%s\", not text/plain",
                  type ? Printable(*type).c_str() : "(none)"));
    const std::string_view countText = Trim(body);
    if (countText != std::to_string(count))
      Fail(Format("POST /broadcast reports \"%s\" clients reached; %d are connected",
                  Printable(countText).c_str(), count));
  }

  const Options options_;
  Random random_;
  Fd epoll_;
  sockaddr_in address_{};
  std::vector<char> buffer_;
  std::string frame_;
  std::vector<epoll_event> events_;
  std::vector<std::unique_ptr<Connection>> connections_;
  int64_t setupNs_ = 0;
  int retries_ = 0;
};

// ---------------------------------------------------------------------------------------------

void SelfTest() {
  auto hex = [](const std::array<uint8_t, 20>& digest) {
    std::string text;
    for (uint8_t byte : digest)
      text += Format("%02x", byte);
    return text;
  };
  if (hex(Sha1("abc")) != "a9993e364706816aba3e25717850c26c9cd0d89d") Fail("SHA-1 of \"abc\"");
  if (hex(Sha1("")) != "da39a3ee5e6b4b0d3255bfef95601890afd80709") Fail("SHA-1 of \"\"");
  if (hex(Sha1(std::string(1000, 'a'))) != "291e9a6c66994949b57ba5e650361e98fc36b1ba")
    Fail("SHA-1 of 1000 'a'");
  if (AcceptFor("dGhlIHNhbXBsZSBub25jZQ==") != "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=")
    Fail("Sec-WebSocket-Accept of the RFC 6455 example");
  Histogram histogram;
  for (int i = 1; i <= 1000; ++i)
    histogram.Add(int64_t{i} * 1000);
  const double p50 = histogram.PercentileMs(50), p99 = histogram.PercentileMs(99);
  if (p50 < 0.495 || p50 > 0.505 || p99 < 0.985 || p99 > 0.995)
    Fail(Format("histogram percentiles %.4f %.4f", p50, p99));
  if (PercentileMs({5000000, 1000000, 3000000}, 50) != 3.0) Fail("sample percentile");
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  std::string mode = argc > 1 ? argv[1] : "";
  std::string json;
  int status = kExitOk;
  std::unique_ptr<Client> client;
  try {
    const Options options = ParseOptions(argc, argv);
    if (options.mode == "self-test") {
      SelfTest();
      Options loopback = options;
      loopback.port = 1;
      Client(loopback).SelfTestFrames();
      std::printf("{\"mode\":\"self-test\",\"ok\":true}\n");
      return kExitOk;
    }
    RaiseFileLimit(static_cast<rlim_t>(options.connections) + 64);
    client = std::make_unique<Client>(options);
    if (options.mode == "echo") {
      client->RunEcho(json);
    } else {
      client->RunBroadcast(json);
    }
    json = "{\"mode\":" + JsonString(mode) + ",\"ok\":true," + json + "}";
  } catch (const Failure& failure) {
    status = failure.code();
    std::fprintf(stderr, "ws_loadclient: %s\n", failure.what());
    json = "{\"mode\":" + JsonString(mode) + ",\"ok\":false,\"exit\":" + std::to_string(status) +
           ",\"upgraded\":" + std::to_string(client ? client->Upgraded() : 0) +
           ",\"error\":" + JsonString(failure.what()) + "}";
  } catch (const std::exception& error) {
    status = kExitUsage;
    std::fprintf(stderr, "ws_loadclient: %s\n", error.what());
    json = "{\"mode\":" + JsonString(mode) +
           ",\"ok\":false,\"exit\":2,\"error\":" + JsonString(error.what()) + "}";
  }
  std::printf("%s\n", json.c_str());
  return status;
}
