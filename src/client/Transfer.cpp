#include "client/Transfer.h"

#include <veskan/Body.h>
#include <veskan/DaemonMarshaller.h>
#include <veskan/Logger.h>

#include "http/Pooled.h"

#include <cstring>
#include <exception>
#include <string>

namespace Veskan {
namespace Detail {

namespace {

// Header bytes a transfer reads, all replies of it together (interim, challenge and redirect
// replies included), before it gives up: a server that sends an endless header block costs a
// bounded amount.
constexpr std::size_t kMaxHeaderBytes = 256 * 1024;
constexpr long kMaxRedirects = 10;

bool IsCertificateError(CURLcode result) {
  return result == CURLE_PEER_FAILED_VERIFICATION || result == CURLE_SSL_ISSUER_ERROR ||
         result == CURLE_SSL_INVALIDCERTSTATUS;
}

bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}

StringBuffer Trimmed(const char* begin, const char* end) {
  while (begin < end && IsBlank(*begin))
    ++begin;
  while (end > begin && IsBlank(end[-1]))
    --end;
  return UTF8to16(begin, 0, static_cast<int>(end - begin));
}

}  // namespace

Transfer::Transfer(std::shared_ptr<Message> message, std::string url, std::string method,
                   bool direct, ClientSettings settings, const std::atomic<bool>& cancel)
    : message_(std::move(message)),
      url_(std::move(url)),
      method_(std::move(method)),
      direct_(direct),
      settings_(std::move(settings)),
      cancel_(cancel) {}

bool Transfer::AddHeader(const StringBuffer& name, const StringBuffer& value) {
  // "Name:" alone would tell libcurl to leave its own header of that name out; "Name;" sends
  // the header with an empty value.
  std::string line = name.ToUTF8();
  if (value.isEmpty()) {
    line += ';';
  } else {
    line += ": ";
    line += value.ToUTF8();
  }
  return line.find_first_of("\r\n") == std::string::npos && headers_.Append(line);
}

void Transfer::LeaveOut(const char* name) {
  headers_.Append(std::string(name) + ":");
}

void Transfer::SetBody(std::shared_ptr<Content> content) {
  body_ = content && content->Size() > 0 ? std::move(content) : nullptr;
}

bool Transfer::Configure(CURL* easy) {
  status_ = 0;
  replyHeaders_.Clear();
  replyContent_.reset();
  headerBytes_ = 0;

  bool ok = true;
  auto set = [&](CURLoption option, auto value) {
    ok = ok && curl_easy_setopt(easy, option, value) == CURLE_OK;
  };
  set(CURLOPT_URL, url_.c_str());
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  set(CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  set(CURLOPT_FOLLOWLOCATION, 1L);
  set(CURLOPT_MAXREDIRS, kMaxRedirects);
  set(CURLOPT_NOSIGNAL, 1L);
  // An empty proxy is no proxy; otherwise libcurl takes the environment's.
  if (direct_) set(CURLOPT_PROXY, "");
  set(CURLOPT_HTTPHEADER, headers_.Get());

  if (body_) {
    set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body_->Size()));
    set(CURLOPT_POSTFIELDS, static_cast<const char*>(*body_));
    if (method_ != "POST") set(CURLOPT_CUSTOMREQUEST, method_.c_str());
  } else if (method_ == "POST") {
    set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(0));
    set(CURLOPT_POSTFIELDS, "");
  } else {
    set(CURLOPT_HTTPGET, 1L);
    if (method_ != "GET") set(CURLOPT_CUSTOMREQUEST, method_.c_str());
  }

  // The time-out bounds the connection's set-up and every wait for the server's next bytes;
  // a reply that keeps arriving may take as long as it needs.
  if (settings_.timeOutSeconds > 0) {
    set(CURLOPT_CONNECTTIMEOUT, static_cast<long>(settings_.timeOutSeconds));
    set(CURLOPT_LOW_SPEED_LIMIT, 1L);
    set(CURLOPT_LOW_SPEED_TIME, static_cast<long>(settings_.timeOutSeconds));
  }
  set(CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(settings_.maxReplyBytes));

  set(CURLOPT_SSL_VERIFYPEER, verifyPeer_ ? 1L : 0L);
  set(CURLOPT_SSL_VERIFYHOST, verifyPeer_ ? 2L : 0L);
  if (!userName_.empty() || !password_.empty()) {
    if (proxyCredentials_) {
      set(CURLOPT_PROXYAUTH, static_cast<unsigned long>(CURLAUTH_ANY));
      set(CURLOPT_PROXYUSERNAME, userName_.c_str());
      set(CURLOPT_PROXYPASSWORD, password_.c_str());
    } else {
      set(CURLOPT_HTTPAUTH, static_cast<unsigned long>(CURLAUTH_ANY));
      set(CURLOPT_USERNAME, userName_.c_str());
      set(CURLOPT_PASSWORD, password_.c_str());
    }
  }

  set(CURLOPT_HEADERFUNCTION, &Transfer::OnHeaderLine);
  set(CURLOPT_HEADERDATA, static_cast<void*>(this));
  set(CURLOPT_WRITEFUNCTION, &Transfer::OnBodyBytes);
  set(CURLOPT_WRITEDATA, static_cast<void*>(this));
  set(CURLOPT_XFERINFOFUNCTION, &Transfer::OnProgress);
  set(CURLOPT_XFERINFODATA, static_cast<void*>(this));
  set(CURLOPT_NOPROGRESS, 0L);
  set(CURLOPT_PRIVATE, static_cast<void*>(this));
  if (!ok) lastResult_ = CURLE_OUT_OF_MEMORY;
  return ok;
}

Transfer::Next Transfer::Finished(CURL* easy, CURLcode result) {
  lastResult_ = result;
  if (cancel_.load()) return Next::Done;
  if (result == CURLE_OK) {
    long code = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &code);
    status_ = static_cast<int>(code);
    if ((status_ == 401 || status_ == 407) && retries_ < HttpClient::MAX_RETRY_COUNT &&
        AskForCredentials(easy)) {
      ++retries_;
      return Next::Retry;
    }
    return Next::Done;
  }
  if (IsCertificateError(result) && verifyPeer_ && retries_ < HttpClient::MAX_RETRY_COUNT &&
      AcceptUnverifiedCertificate(result)) {
    ++retries_;
    verifyPeer_ = false;
    return Next::Retry;
  }
  return Next::Done;
}

bool Transfer::AskForCredentials(CURL*) {
  if (!settings_.credentialPrompt) return false;
  HttpClient::CredentialRequest request;
  request.StatusCode = status_;
  request.Url = UTF8to16(url_.c_str());
  const Header::Collection& headers = replyHeaders_;
  request.Realm = headers[status_ == 401 ? Header::WWWAuthenticate : u"Proxy-Authenticate"];
  request.Attempt = retries_ + 1;
  HttpClient::Credentials credentials;
  try {
    if (!settings_.credentialPrompt(request, credentials)) return false;
  } catch (const std::exception& error) {
    Logger::Line(Logger::Severity::Error, "Veskan::HttpClient")
        << " the credential prompt failed: " << error.what();
    return false;
  }
  userName_ = credentials.UserName.ToUTF8();
  password_ = credentials.Password.ToUTF8();
  proxyCredentials_ = status_ == 407;
  return true;
}

bool Transfer::AcceptUnverifiedCertificate(CURLcode result) {
  if (settings_.noCertificatePrompt) return true;
  if (!settings_.certificatePrompt) return false;
  try {
    return settings_.certificatePrompt(static_cast<int>(result), UTF8to16(url_.c_str()));
  } catch (const std::exception& error) {
    Logger::Line(Logger::Severity::Error, "Veskan::HttpClient")
        << " the certificate prompt failed: " << error.what();
    return false;
  }
}

void Transfer::AnnounceSent() {
  std::unique_lock<std::recursive_mutex> lock = message_->Lock();
  Message::UnlockAndNotifyReadyStateChanged(settings_.marshaller.get(), message_, ReadyStates::Sent,
                                            lock);
}

void Transfer::Complete(CURLcode result) {
  lastResult_ = result;
  std::unique_lock<std::recursive_mutex> lock = message_->Lock();
  if (!message_->Reply) message_->Reply = Detail::NewBody();
  Body& reply = *message_->Reply;
  if (result == CURLE_OK) {
    message_->StatusCode = status_;
    reply.Headers = std::move(replyHeaders_);
    if (replyContent_) {
      const Header::Collection& headers = reply.Headers;
      StringBuffer type = headers[Header::ContentType];
      replyContent_->Sealed(type.getTerminatedBuffer());
      if (!type.isEmpty()) reply.MediaType.SetTo(type.getTerminatedBuffer());
    }
    reply.Content = replyContent_;
  } else {
    Logger::Line(Logger::Severity::Warning, "Veskan::HttpClient")
        << " " << method_.c_str() << " " << url_.c_str() << " failed: libcurl "
        << static_cast<int>(result) << " (" << curl_easy_strerror(result) << ")";
    message_->StatusCode = result == CURLE_OPERATION_TIMEDOUT ? 504 : 500;
    reply.Headers.Clear();
    reply.Headers[Header::ContentType] = Content::Types::TextPlain;
    StringBuffer number = UTF8to16(std::to_string(static_cast<int>(result)).c_str());
    reply.Content = std::make_shared<Content>(number.getTerminatedBuffer());
    reply.Content->Sealed(Content::Types::TextPlain);
    reply.MediaType.SetTo(Content::Types::TextPlain);
  }
  Message::UnlockAndNotifyReadyStateChanged(settings_.marshaller.get(), message_,
                                            ReadyStates::Loaded, lock);
}

size_t Transfer::OnHeaderLine(char* data, size_t size, size_t count, void* self) {
  const size_t length = size * count;
  Transfer& transfer = *static_cast<Transfer*>(self);
  transfer.headerBytes_ += length;
  if (transfer.headerBytes_ > kMaxHeaderBytes) return 0;
  size_t end = length;
  while (end > 0 && (data[end - 1] == '\n' || data[end - 1] == '\r'))
    --end;
  return transfer.ReadHeaderLine(data, end) ? length : 0;
}

bool Transfer::ReadHeaderLine(const char* line, size_t length) {
  if (length == 0) {
    EndOfHeaders();
    return true;
  }
  const char* end = line + length;
  if (length >= 5 && std::memcmp(line, "HTTP/", 5) == 0) {
    // A new reply begins: whatever an earlier one of this transfer left is replaced.
    const char* space = static_cast<const char*>(std::memchr(line, ' ', length));
    status_ = 0;
    for (const char* digit = space ? space + 1 : end; digit < end && *digit >= '0' && *digit <= '9';
         ++digit)
      status_ = status_ * 10 + (*digit - '0');
    replyHeaders_.Clear();
    replyContent_.reset();
    return true;
  }
  const char* colon = static_cast<const char*>(std::memchr(line, ':', length));
  if (!colon || IsBlank(line[0])) return true;  // not a header line of the collection's form
  replyHeaders_.AddAnother(Header(Trimmed(line, colon), Trimmed(colon + 1, end)));
  return true;
}

void Transfer::EndOfHeaders() {
  // Interim replies (1xx) are followed by the real one.
  if (status_ < 200 || receivingAnnounced_) return;
  receivingAnnounced_ = true;
  std::unique_lock<std::recursive_mutex> lock = message_->Lock();
  message_->StatusCode = status_;
  if (message_->Reply) message_->Reply->Headers = replyHeaders_;
  Message::UnlockAndNotifyReadyStateChanged(settings_.marshaller.get(), message_,
                                            ReadyStates::Receiving, lock);
}

size_t Transfer::OnBodyBytes(char* data, size_t size, size_t count, void* self) {
  const size_t length = size * count;
  Transfer& transfer = *static_cast<Transfer*>(self);
  if (!transfer.replyContent_) transfer.replyContent_ = std::make_shared<Content>();
  Content& content = *transfer.replyContent_;
  // Returning less than was given fails the transfer (CURLE_WRITE_ERROR).
  if (length > static_cast<size_t>(transfer.settings_.maxReplyBytes - content.Size())) return 0;
  content.Append(data, static_cast<int>(length));
  return length;
}

int Transfer::OnProgress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return static_cast<Transfer*>(self)->cancel_.load() ? 1 : 0;
}

}  // namespace Detail
}  // namespace Veskan
