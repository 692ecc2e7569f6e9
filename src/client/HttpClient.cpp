#include <veskan/HttpClient.h>

#include <veskan/Body.h>
#include <veskan/DaemonMarshaller.h>
#include <veskan/Logger.h>
#include <veskan/Url.h>

#include "client/Curl.h"
#include "client/Transfer.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Veskan {

using Detail::ClientSettings;
using Detail::CurlEasy;
using Detail::CurlMulti;
using Detail::Transfer;

namespace {

// The worker's longest wait between two turns when nothing happens.
constexpr int kPeriodMilliseconds = 1000;
// Easy handles kept for reuse; each keeps its connections open.
constexpr std::size_t kMaxIdleHandles = 64;

// The host as it stands in a URL: an IPv6 address in brackets.
StringBuffer UrlHost(const StringBuffer& host) {
  if (host.indexOf(u':') < 0 || host.startsWith(u"[")) return host;
  return StringBuffer(u"[") + host + u"]";
}

bool IsLocalHost(StringBuffer host) {
  if (host.startsWith(u"[") && host.endsWith(u"]")) host = host.tempSubString(1, host.length() - 2);
  return host == u"localhost" || host == u"127.0.0.1" || host == u"loopback" || host == u"::1";
}

}  // namespace

// Everything of a client; shared with its worker thread, so that a client dropped by a listener
// on that thread stays whole until the thread has finished.
class HttpClient::Engine : public std::enable_shared_from_this<HttpClient::Engine> {
 public:
  Engine() { Detail::StartCurl(); }
  // The last owner may be the worker itself, finishing after its client was dropped.
  ~Engine() {
    if (worker_.joinable()) {
      if (worker_.get_id() == std::this_thread::get_id())
        worker_.detach();
      else
        worker_.join();
    }
  }

  bool Connect(const char16_t* baseUrl);
  void Disconnect(bool waitForTransfers);
  bool Send(const std::shared_ptr<Message>& message, bool inBackground);

  ClientStates::Enumeration State() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return state_;
  }
  StringBuffer BaseUrl() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return baseText_;
  }
  // Changes the settings under the lock.
  template <typename Change>
  void ChangeSettings(Change change) {
    std::lock_guard<std::mutex> lock(mutex_);
    change(settings_);
  }
  int RequestTimeOut() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return settings_.timeOutSeconds;
  }

 private:
  // Prepares an opened message for sending: a missing "Host" (with the port when it is not the
  // scheme's default), the content sealed with its "Content-Type" (guessed when missing; sub-parts
  // joined into one multipart payload), "Content-Length", the cookies in "Cookie"; and the
  // transfer that will send it. Null, and the message untouched, when the client is not
  // Connected or the message is not Open.
  std::unique_ptr<Transfer> Prepare(const std::shared_ptr<Message>& message, bool inBackground);
  // A transfer on the calling thread, from Sent to Loaded; true when a reply came.
  bool ProcessMessages(Transfer& transfer);
  // Sends until the transfer is done (the first send and each retry a prompt allows) on a pooled
  // handle, and returns libcurl's last result. Named after the interface libcurl stands in for.
  CURLcode WinInetHttpRequest(Transfer& transfer);
  // The worker: drives every background transfer on the multi handle, waking at least once a
  // period, while the client is Connected and until its last background transfer is done.
  void PeriodicTimerThreadProc();

  CurlEasy TakeHandle();
  void GiveBack(CurlEasy easy);
  // One transfer less in flight.
  void Finished(bool inBackground);
  bool OnWorkerThread() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return workerId_ == std::this_thread::get_id();
  }

  // Connect and Disconnect one at a time; recursive for a listener run by Disconnect's event
  // loop while it waits.
  std::recursive_mutex lifecycle_;
  mutable std::mutex mutex_;
  std::condition_variable transfersDone_;  // inFlight_ went down
  ClientStates::Enumeration state_ = ClientStates::Disconnected;
  StringBuffer baseText_;
  // Worked out once per Connect rather than per request: the base URL in UTF-8, the "Host"
  // header's value, whether the server is this machine (no proxy).
  std::string baseUtf8_;
  StringBuffer hostHeader_;
  bool localHost_ = false;
  ClientSettings settings_;
  std::vector<CurlEasy> idleHandles_;
  std::deque<std::unique_ptr<Transfer>> queued_;  // background transfers not yet started
  int inFlight_ = 0;                              // prepared and not yet Loaded, both kinds
  int backgroundInFlight_ = 0;                    // the background ones among them
  std::atomic<bool> cancel_{false};
  CurlMulti multi_;
  std::thread worker_;  // read and replaced under lifecycle_
  std::thread::id workerId_;
};

bool HttpClient::Engine::Connect(const char16_t* baseUrl) {
  if (!baseUrl || OnWorkerThread()) return false;
  auto url = std::make_unique<Url>(baseUrl);
  if (!url->IsAbsolute || !url->HasHost || url->Host.isEmpty() ||
      (url->Scheme != Url::HttpScheme && url->Scheme != Url::HttpsScheme))
    return false;
  std::lock_guard<std::recursive_mutex> lifecycle(lifecycle_);
  if (State() == ClientStates::Connected) Disconnect(true);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    // Refused while a Disconnect of this thread, further out, is still waiting.
    if (state_ != ClientStates::Disconnected) return false;
    if (!multi_) multi_.reset(curl_multi_init());
    if (!multi_) return false;
    baseText_ = url->Text;
    if (baseText_.endsWith(u"/")) baseText_.truncate(baseText_.length() - 1);
    baseUtf8_ = baseText_.ToUTF8();
    hostHeader_ = UrlHost(url->Host);
    const int defaultPort =
        Schemes::DefaultPort(url->Scheme == Url::HttpsScheme ? Schemes::HTTPS : Schemes::HTTP);
    if (url->Port != defaultPort)
      hostHeader_ += StringBuffer(u":") + UTF8to16(std::to_string(url->Port).c_str());
    localHost_ = IsLocalHost(url->Host);
    cancel_ = false;
    state_ = ClientStates::Connected;
  }
  // A worker that one of its own listeners stopped may still be finishing.
  if (worker_.joinable()) worker_.join();
  Logger::Line(Logger::Severity::Trace, "Veskan::HttpClient::Connect") << " url: " << baseText_;
  worker_ = std::thread([engine = shared_from_this()] { engine->PeriodicTimerThreadProc(); });
  std::lock_guard<std::mutex> lock(mutex_);
  workerId_ = worker_.get_id();
  return true;
}

void HttpClient::Engine::Disconnect(bool waitForTransfers) {
  const auto stop = [this, waitForTransfers] {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ != ClientStates::Connected) return false;
    state_ = ClientStates::Disconnecting;
    if (!waitForTransfers) cancel_ = true;
    curl_multi_wakeup(multi_.get());
    return true;
  };
  // A listener on the worker thread cannot wait for the worker: the worker ends on its own
  // once its transfers are done, and the next Connect or the end of the client joins it.
  if (OnWorkerThread()) {
    stop();
    return;
  }
  std::lock_guard<std::recursive_mutex> lifecycle(lifecycle_);
  if (!stop()) return;  // disconnected already, or this thread's outer call is at it
  std::shared_ptr<DaemonMarshaller> marshaller;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    marshaller = settings_.marshaller;
    // Transfers on other threads may be handing a state to this thread's event loop.
    while (inFlight_ > 0) {
      if (DaemonMarshaller::CurrentThreadHasEventLoop()) {
        lock.unlock();
        DaemonMarshaller::RunEventLoopOnce();
        lock.lock();
      } else {
        transfersDone_.wait(lock);
      }
    }
  }
  if (worker_.joinable()) {
    if (marshaller)
      marshaller->Join(worker_);
    else
      worker_.join();
  }
  std::lock_guard<std::mutex> lock(mutex_);
  workerId_ = std::thread::id();
  state_ = ClientStates::Disconnected;
  cancel_ = false;
}

bool HttpClient::Engine::Send(const std::shared_ptr<Message>& message, bool inBackground) {
  std::unique_ptr<Transfer> transfer = Prepare(message, inBackground);
  if (!transfer) return false;
  transfer->AnnounceSent();
  if (!inBackground) return ProcessMessages(*transfer);
  std::lock_guard<std::mutex> lock(mutex_);
  queued_.push_back(std::move(transfer));
  curl_multi_wakeup(multi_.get());
  return true;
}

std::unique_ptr<Transfer> HttpClient::Engine::Prepare(const std::shared_ptr<Message>& message,
                                                      bool inBackground) {
  if (!message) return nullptr;
  // Counted in flight under the client's lock, so that Disconnect waits for it and the base URL
  // stays; the message itself (sealing may parse XML) is prepared without that lock.
  std::string baseUtf8;
  StringBuffer hostHeader;
  bool localHost = false;
  ClientSettings settings;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ != ClientStates::Connected) return nullptr;
    baseUtf8 = baseUtf8_;
    hostHeader = hostHeader_;
    localHost = localHost_;
    settings = settings_;
    ++inFlight_;
    if (inBackground) ++backgroundInFlight_;
  }
  std::unique_lock<std::recursive_mutex> messageLock = message->Lock();
  if (message->ReadyState != ReadyStates::Open || !message->Request || !message->Url ||
      message->Method > Methods::OPTIONS) {
    messageLock.unlock();
    Finished(inBackground);
    return nullptr;
  }
  Body& request = *message->Request;
  if (!request.Headers.Contains(Header::Host)) request.Headers[Header::Host] = hostHeader;
  request.FormatMultipartMessage();
  if (request.Content) {
    const Header::Collection& headers = request.Headers;
    StringBuffer type = headers[Header::ContentType];
    request.MediaType.SetTo(type.getTerminatedBuffer());
  }
  request.Headers[Header::ContentLength] =
      UTF8to16(std::to_string(request.Content ? request.Content->Size() : 0).c_str());
  request.Cookies.Write(Header::Cookie, request.Headers);

  std::string url = std::move(baseUtf8);
  const StringBuffer& target = message->Url->PathAndQuery;
  if (!target.startsWith(u"/")) url += '/';
  url += target.ToUTF8();
  auto transfer = std::make_unique<Transfer>(
      message, std::move(url), StringBuffer(Methods::ToString(message->Method)).ToUTF8(), localHost,
      std::move(settings), cancel_);
  for (const Header& header : request.Headers) {
    // Without cookies the "Cookie" header is empty: nothing to send.
    if (header.Value.isEmpty() && header.Name.caseCompare(Header::Cookie, 0) == 0) continue;
    if (!transfer->AddHeader(header.Name, header.Value))
      Logger::Line(Logger::Severity::Warning, "Veskan::HttpClient")
          << " header " << header.Name << " left out: it holds a line break";
  }
  // Keeps the connection for the next send: servers that close after every reply unless asked
  // not to (as this library's own does) would otherwise cost a new connection per request.
  if (!request.Headers.Contains(Header::Connection))
    transfer->AddHeader(StringBuffer(Header::Connection), StringBuffer(u"Keep-Alive"));
  // libcurl's own defaults would otherwise join the headers the host gave.
  static const std::pair<const char16_t*, const char*> kCurlDefaults[] = {
      {Header::Accept, "Accept"}, {Header::ContentType, "Content-Type"}, {u"Expect", "Expect"}};
  for (const auto& name : kCurlDefaults)
    if (!request.Headers.Contains(name.first)) transfer->LeaveOut(name.second);
  transfer->SetBody(request.Content);
  return transfer;
}

bool HttpClient::Engine::ProcessMessages(Transfer& transfer) {
  const CURLcode result = WinInetHttpRequest(transfer);
  transfer.Complete(result);
  Finished(false);
  return result == CURLE_OK;
}

CURLcode HttpClient::Engine::WinInetHttpRequest(Transfer& transfer) {
  CurlEasy easy = TakeHandle();
  if (!easy) return CURLE_OUT_OF_MEMORY;
  CURLcode result = CURLE_OK;
  do {
    result = transfer.Configure(easy.get()) ? curl_easy_perform(easy.get()) : CURLE_OUT_OF_MEMORY;
  } while (transfer.Finished(easy.get(), result) == Transfer::Next::Retry);
  GiveBack(std::move(easy));
  return result;
}

void HttpClient::Engine::PeriodicTimerThreadProc() {
  struct Running {
    std::unique_ptr<Transfer> transfer;
    CurlEasy easy;
  };
  std::vector<Running> running;
  CURLM* multi = multi_.get();
  const auto finish = [this](Transfer& transfer, CURLcode result) {
    transfer.Complete(result);
    Finished(true);
  };
  for (;;) {
    std::deque<std::unique_ptr<Transfer>> fresh;
    bool stopping = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      fresh.swap(queued_);
      stopping = state_ != ClientStates::Connected;
    }
    for (std::unique_ptr<Transfer>& transfer : fresh) {
      CurlEasy easy = cancel_ ? nullptr : TakeHandle();
      if (!easy || !transfer->Configure(easy.get()) ||
          curl_multi_add_handle(multi, easy.get()) != CURLM_OK) {
        finish(*transfer, cancel_ ? CURLE_ABORTED_BY_CALLBACK : CURLE_OUT_OF_MEMORY);
        if (easy) GiveBack(std::move(easy));
        continue;
      }
      running.push_back(Running{std::move(transfer), std::move(easy)});
    }
    if (cancel_) {
      for (Running& entry : running) {
        curl_multi_remove_handle(multi, entry.easy.get());
        finish(*entry.transfer, CURLE_ABORTED_BY_CALLBACK);
        GiveBack(std::move(entry.easy));
      }
      running.clear();
    }
    int active = 0;
    curl_multi_perform(multi, &active);
    int left = 0;
    while (CURLMsg* done = curl_multi_info_read(multi, &left)) {
      if (done->msg != CURLMSG_DONE) continue;
      CURL* easy = done->easy_handle;
      const CURLcode result = done->data.result;
      curl_multi_remove_handle(multi, easy);
      auto entry = std::find_if(running.begin(), running.end(),
                                [easy](const Running& r) { return r.easy.get() == easy; });
      if (entry == running.end()) continue;
      Transfer& transfer = *entry->transfer;
      if (transfer.Finished(easy, result) == Transfer::Next::Retry) {
        if (transfer.Configure(easy) && curl_multi_add_handle(multi, easy) == CURLM_OK) continue;
        finish(transfer, CURLE_OUT_OF_MEMORY);
      } else {
        finish(transfer, result);
      }
      GiveBack(std::move(entry->easy));
      running.erase(entry);
    }
    if (stopping && running.empty()) {
      // Background transfers prepared before the stop may not be queued yet.
      std::lock_guard<std::mutex> lock(mutex_);
      if (backgroundInFlight_ == 0) break;
      if (!queued_.empty()) continue;
    }
    curl_multi_poll(multi, nullptr, 0, kPeriodMilliseconds, nullptr);
  }
}

CurlEasy HttpClient::Engine::TakeHandle() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!idleHandles_.empty()) {
      CurlEasy easy = std::move(idleHandles_.back());
      idleHandles_.pop_back();
      // Options go back to their defaults; the handle's open connections stay.
      curl_easy_reset(easy.get());
      return easy;
    }
  }
  return CurlEasy(curl_easy_init());
}

void HttpClient::Engine::GiveBack(CurlEasy easy) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (idleHandles_.size() < kMaxIdleHandles) idleHandles_.push_back(std::move(easy));
}

void HttpClient::Engine::Finished(bool inBackground) {
  std::lock_guard<std::mutex> lock(mutex_);
  --inFlight_;
  if (inBackground) --backgroundInFlight_;
  transfersDone_.notify_all();
}

// The facade.

HttpClient::HttpClient() : engine_(std::make_shared<Engine>()) {}

HttpClient::~HttpClient() {
  engine_->Disconnect(false);
}

bool HttpClient::Connect(const char16_t* baseUrl) {
  return engine_->Connect(baseUrl);
}

bool HttpClient::Connect(const std::shared_ptr<Message>& message) {
  if (!message) return false;
  StringBuffer base;
  {
    std::unique_lock<std::recursive_mutex> lock = message->Lock();
    if (!message->Url) return false;
    const Url& url = *message->Url;
    base =
        StringBuffer(url.Scheme == Url::HttpsScheme ? u"https://" : u"http://") + UrlHost(url.Host);
    if (url.HasPort) base += StringBuffer(u":") + UTF8to16(std::to_string(url.Port).c_str());
  }
  return engine_->Connect(base.getTerminatedBuffer());
}

void HttpClient::Disconnect(bool waitForTransfers) {
  engine_->Disconnect(waitForTransfers);
}

bool HttpClient::Send(const std::shared_ptr<Message>& message, bool inBackground) {
  return engine_->Send(message, inBackground);
}

void HttpClient::Wait(int milliseconds) const {
  if (milliseconds > 0) std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

ClientStates::Enumeration HttpClient::State() const {
  return engine_->State();
}

StringBuffer HttpClient::BaseUrl() const {
  return engine_->BaseUrl();
}

void HttpClient::SetRequestTimeOut(int seconds) {
  engine_->ChangeSettings(
      [seconds](ClientSettings& settings) { settings.timeOutSeconds = seconds; });
}

int HttpClient::RequestTimeOut() const {
  return engine_->RequestTimeOut();
}

void HttpClient::SetNoCertificatePrompt(bool noPrompt) {
  engine_->ChangeSettings(
      [noPrompt](ClientSettings& settings) { settings.noCertificatePrompt = noPrompt; });
}

void HttpClient::SetMaxReplyBytes(int bytes) {
  engine_->ChangeSettings(
      [bytes](ClientSettings& settings) { settings.maxReplyBytes = bytes < 0 ? 0 : bytes; });
}

void HttpClient::SetCredentialPrompt(CredentialPrompt prompt) {
  engine_->ChangeSettings(
      [&prompt](ClientSettings& settings) { settings.credentialPrompt = std::move(prompt); });
}

void HttpClient::SetCertificatePrompt(CertificatePrompt prompt) {
  engine_->ChangeSettings(
      [&prompt](ClientSettings& settings) { settings.certificatePrompt = std::move(prompt); });
}

void HttpClient::SetMarshaller(std::shared_ptr<DaemonMarshaller> marshaller) {
  engine_->ChangeSettings(
      [&marshaller](ClientSettings& settings) { settings.marshaller = std::move(marshaller); });
}

}  // namespace Veskan
