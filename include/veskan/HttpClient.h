// HttpClient: sends Message exchanges to one server and fills in their replies.
#ifndef VESKAN_HTTPCLIENT_H
#define VESKAN_HTTPCLIENT_H

#include <veskan/Export.h>
#include <veskan/Message.h>
#include <veskan/StringBuffer.h>
#include <veskan/Vocabulary.h>

#include <functional>
#include <memory>

namespace Veskan {

class DaemonMarshaller;

// The client side of the system: a host connects it to a base URL such as
// "http://localhost:8080" and sends opened messages, whose URL's path and query are appended to
// that base. Each Send prepares the request (a missing "Host" and "Content-Type" filled in, the
// content sealed, "Content-Length" set, the cookies written into "Cookie", which is left off the
// wire when empty), transfers it with libcurl, and fills in StatusCode and Reply: the reply's
// header lines with trimmed values, its content sealed with its "Content-Type". The message is
// announced Sent when the transfer starts, Receiving when the reply's headers have arrived and
// Loaded at the end, through the marshaller given to SetMarshaller when there is one.
//
// A transfer that fails ends Loaded as well, with status 504 for a time-out and 500 for anything
// else, and a "text/plain" reply holding libcurl's error number in decimal (7: connection
// refused, 28: time-out, 23: reply larger than the limit, 42: cancelled by Disconnect(false)).
//
// A 401 or 407 asks the credential prompt, when one is installed, and sends again with what it
// answers (libcurl answers Basic, Digest, NTLM or Negotiate challenges), at most MAX_RETRY_COUNT
// times. A certificate that does not verify is accepted without verification when the no-prompt
// flag is set, or when the certificate prompt, if installed, says so; otherwise the transfer
// fails. Without prompts nothing is asked and nothing is retried.
//
// Connections are kept and reused between transfers to the same server: a request without a
// "Connection" header of its own asks the server to keep it ("Connection: Keep-Alive"). Requests
// to "localhost", "127.0.0.1", "loopback" and "::1" never go through a proxy; others use the
// proxy the environment names (http_proxy, https_proxy, no_proxy).
//
// Thread safety: every operation may be called from any thread. Settings take effect for the
// transfers that start afterwards. Listeners of a background transfer run on the client's worker
// thread (or the marshaller's); they must not call Disconnect(true) of their own client, which
// would wait for themselves (it then returns without waiting).
class VESKAN_API HttpClient : public std::enable_shared_from_this<HttpClient> {
 public:
  // Seconds a transfer may wait for the server (to connect, or for the next bytes) before it
  // fails with 504.
  static constexpr int DEFAULT_REQUEST_TIME_OUT = 30;
  // Sends after a credential or certificate prompt, at most.
  static constexpr int MAX_RETRY_COUNT = 3;
  // Reply bytes (content) a transfer accepts before it fails with 500, unless set otherwise.
  static constexpr int DEFAULT_MAX_REPLY_BYTES = 64 * 1024 * 1024;

  // What a credential prompt is told.
  struct CredentialRequest {
    int StatusCode = 0;  // 401 (the server asks) or 407 (the proxy asks)
    StringBuffer Url;    // the request's full URL
    StringBuffer Realm;  // the first challenge header's value, as the server sent it
    int Attempt = 0;     // 1 on the first prompt of a transfer
  };
  // What a credential prompt answers.
  struct Credentials {
    StringBuffer UserName;
    StringBuffer Password;
  };
  // Returns true with `credentials` filled in to send again, false to accept the 401 or 407.
  using CredentialPrompt = std::function<bool(const CredentialRequest&, Credentials& credentials)>;
  // Told libcurl's error number and the URL of a certificate that does not verify; returns true
  // to send again without verifying the certificate, false to fail.
  using CertificatePrompt = std::function<bool(int error, const StringBuffer& url)>;

  HttpClient();
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;
  // Disconnect(false).
  virtual ~HttpClient();

  // Sets the server: an "http://" or "https://" URL with a host; a path in it is kept as a
  // prefix of every request's target. The state becomes Connected and the worker thread starts.
  // A client that is connected already is disconnected first (waiting for its transfers). False,
  // and nothing changed, for any other text.
  bool Connect(const char16_t* baseUrl);
  // Connect with the scheme, host and port of the message's URL.
  bool Connect(const std::shared_ptr<Message>& message);
  // Stops: true waits for the transfers in flight, false cancels them (they end Loaded with 500
  // and libcurl's number 42). The worker thread ends; the state becomes Disconnected. Later
  // Sends are refused until the next Connect.
  void Disconnect(bool waitForTransfers);

  // Prepares and transfers an opened message (ReadyState Open). `inBackground` false: on the
  // calling thread; returns when the message is Loaded: true when a reply came from the server,
  // false when the transfer failed. `inBackground` true: hands the message to the worker thread,
  // which drives every background transfer of this client at once, and returns true at once.
  // False without a transfer when the client is not Connected or the message is null or not
  // Open.
  bool Send(const std::shared_ptr<Message>& message, bool inBackground);

  // Sleeps for `milliseconds` (nothing for 0 or less).
  void Wait(int milliseconds) const;

  ClientStates::Enumeration State() const;
  // The base URL given to Connect, "" before.
  StringBuffer BaseUrl() const;

  // The time-out in seconds; 0 or less waits without end.
  void SetRequestTimeOut(int seconds);
  int RequestTimeOut() const;
  // Accept certificates that do not verify without asking (the prompt is then not called).
  void SetNoCertificatePrompt(bool noPrompt);
  // The largest reply content accepted, in bytes (at least 0).
  void SetMaxReplyBytes(int bytes);
  // The prompts; an empty function removes one.
  void SetCredentialPrompt(CredentialPrompt prompt);
  void SetCertificatePrompt(CertificatePrompt prompt);
  // Ready-state changes are delivered through `marshaller` (null: on the transferring thread).
  // Disconnect(true) keeps the marshaller's event loop running while it waits.
  void SetMarshaller(std::shared_ptr<DaemonMarshaller> marshaller);

  class Engine;

 private:
  std::shared_ptr<Engine> engine_;
};

}  // namespace Veskan

#endif
