// Helpers::EmailFileAsAttachment: one mail, its whole SMTP conversation composed at once and
// handed to the local mail relay.
#include <veskan/ByteBuffer.h>
#include <veskan/Helpers.h>
#include <veskan/Timepoint.h>

#include "sys/Resolver.h"
#include "sys/Socket.h"

#include <chrono>
#include <mutex>
#include <string>

namespace Veskan {

namespace {

constexpr int RelayTimeoutMs = 10000;
constexpr int Base64LineLength = 998;  // the longest line SMTP allows

std::mutex relayMutex;
std::string relayHost = "localhost";
int relayPort = 25;

std::string Utf8(const char16_t* text) {
  return text ? StringBuffer(text).ToUTF8() : std::string();
}

// The body with every line that starts with a dot given a second one, so that no line of it can
// end the message early.
std::string DotStuffed(const std::string& body) {
  std::string stuffed;
  stuffed.reserve(body.size());
  bool lineStart = true;
  for (const char c : body) {
    if (lineStart && c == '.') stuffed += '.';
    stuffed += c;
    lineStart = c == '\n';
  }
  return stuffed;
}

// "Tue, 24 Nov 2026 08:15:30 GMT": the RFC 1123 time stamp without its fraction of a second,
// which mail dates do not have.
std::string MailDate() {
  std::string date = CurrentTimestamp(0, TimestampStyles::Rfc1123).ToUTF8();
  const std::size_t fraction = date.find('.');
  const std::size_t space = date.find(' ', fraction == std::string::npos ? 0 : fraction);
  if (fraction != std::string::npos && space != std::string::npos)
    date.erase(fraction, space - fraction);
  return date;
}

std::string Conversation(const char16_t* senderName, const char16_t* senderAddress,
                         const char16_t* recipientName, const char16_t* recipientAddress,
                         const char16_t* subject, const char16_t* body, const ByteBuffer* file,
                         const char16_t* fileName, const char16_t* mediaType) {
  const std::string boundary = file ? NewId().ToUTF8() : std::string();
  const std::string host = Sys::HostName();
  std::string mail = "HELO " + (host.empty() ? std::string("localhost") : host) +
                     "\r\nMAIL FROM:<" + Utf8(senderAddress) + ">\r\nRCPT TO:<" +
                     Utf8(recipientAddress) + ">\r\nDATA\r\nMIME-Version: 1.0\r\n";
  mail += file ? "Content-Type: multipart/mixed; boundary=" + boundary
               : std::string("Content-Type: text/plain");
  mail += "\r\nSubject: " + Utf8(subject) + "\r\nFrom: " + Utf8(senderName) + " <" +
          Utf8(senderAddress) + ">\r\nTo: " + Utf8(recipientName) + " <" + Utf8(recipientAddress) +
          ">\r\nDate: " + MailDate() + "\r\n\r\n";
  if (file) {
    mail += "\r\n\r\n--" + boundary + "\r\nContent-Type: text/plain\r\n\r\n" +
            DotStuffed(Utf8(body)) + "\r\n";
    mail +=
        "\r\n--" + boundary + "\r\nContent-Type: " +
        (mediaType && *mediaType ? Utf8(mediaType) : std::string("application/octet-stream")) +
        "\r\nContent-Transfer-Encoding: base64\r\nContent-Disposition: attachment; filename=\"" +
        Utf8(fileName) + "\"\r\n\r\n" + Encode64(*file, 0, -1, Base64LineLength).ToUTF8() +
        "\r\n--" + boundary + "--\r\n";
  } else {
    mail += DotStuffed(Utf8(body));
  }
  if (mail.size() < 2 || mail.compare(mail.size() - 2, 2, "\r\n") != 0) mail += "\r\n";
  return mail + ".\r\n";
}

// Reads the relay's replies until `count` final ones came (a final line has a space, or
// nothing, after its code); their codes in order, fewer when the relay closed or went quiet.
std::vector<int> Replies(int socket, std::size_t count,
                         std::chrono::steady_clock::time_point deadline) {
  std::vector<int> codes;
  std::string pending;
  char chunk[1024];
  while (codes.size() < count) {
    std::size_t end;
    while (codes.size() < count && (end = pending.find("\r\n")) != std::string::npos) {
      const std::string line = pending.substr(0, end);
      pending.erase(0, end + 2);
      if (line.size() >= 3 && (line.size() == 3 || line[3] == ' '))
        codes.push_back(std::atoi(line.substr(0, 3).c_str()));
    }
    if (codes.size() >= count) break;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    Sys::Poller poller;
    poller.Add(socket, true, false);
    if (left.count() <= 0 || poller.Wait(static_cast<int>(left.count())) <= 0) break;
    int error = 0;
    const long got = Sys::SocketCalls::Receive(socket, chunk, sizeof chunk, error);
    if (got == 0 || (got < 0 && !Sys::SocketCalls::WouldBlock(error))) break;
    if (got > 0) pending.append(chunk, static_cast<std::size_t>(got));
    if (pending.size() > 64 * 1024) break;  // no relay talks this much
  }
  return codes;
}

bool SendAll(int socket, const std::string& bytes, std::chrono::steady_clock::time_point deadline) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    int error = 0;
    const long count =
        Sys::SocketCalls::Send(socket, bytes.data() + sent, bytes.size() - sent, error);
    if (count > 0) {
      sent += static_cast<std::size_t>(count);
      continue;
    }
    if (count < 0 && !Sys::SocketCalls::WouldBlock(error)) return false;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    Sys::Poller poller;
    poller.Add(socket, false, true);
    if (left.count() <= 0 || poller.Wait(static_cast<int>(left.count())) <= 0) return false;
  }
  return true;
}

}  // namespace

void Helpers::SetMailRelay(const char* host, int port) {
  std::lock_guard<std::mutex> lock(relayMutex);
  relayHost = host && *host ? host : "localhost";
  relayPort = port;
}

bool Helpers::EmailFileAsAttachment(const char16_t* senderName, const char16_t* senderAddress,
                                    const char16_t* recipientName, const char16_t* recipientAddress,
                                    const char16_t* subject, const char16_t* body,
                                    const char16_t* filePath, const char16_t* fileName,
                                    const char16_t* mediaType) {
  ByteBuffer file;
  const bool attached = filePath && *filePath;
  if (attached) {
    file = BytesFromFile(filePath);
    if (file.Size() == 0 && !FileExists(StringBuffer(filePath))) return false;
  }
  const std::string mail =
      Conversation(senderName, senderAddress, recipientName, recipientAddress, subject, body,
                   attached ? &file : nullptr, fileName, mediaType);
  Sys::SocketAddress relay;
  {
    std::lock_guard<std::mutex> lock(relayMutex);
    const std::string host = relayHost == "localhost" ? "127.0.0.1" : relayHost;
    if (!Sys::SocketAddress::FromDotted(host.c_str(), relay.address)) return false;
    relay.port = relayPort;
  }
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(RelayTimeoutMs);
  int error = 0;
  Sys::Socket socket = Sys::Socket::OpenTcp(error);
  if (!socket.IsOpen() || !Sys::SocketCalls::Connect(socket.Get(), relay, error)) return false;
  if (!SendAll(socket.Get(), mail, deadline)) return false;
  // The greeting, then one reply for each of HELO, MAIL, RCPT, DATA and the message.
  const std::vector<int> codes = Replies(socket.Get(), 6, deadline);
  const int expected[] = {2, 2, 2, 2, 3, 2};
  if (codes.size() != 6) return false;
  for (std::size_t i = 0; i < codes.size(); ++i)
    if (codes[i] / 100 != expected[i]) return false;
  return true;
}

}  // namespace Veskan
