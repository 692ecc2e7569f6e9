// One message's exchange with the server on a libcurl easy handle: the handle's options, the
// reply read through its callbacks, the retry decisions after each send, and the message filled
// in at the end.
#ifndef VESKAN_CLIENT_TRANSFER_H
#define VESKAN_CLIENT_TRANSFER_H

#include <veskan/Content.h>
#include <veskan/Header.h>
#include <veskan/HttpClient.h>
#include <veskan/Message.h>

#include "client/Curl.h"

#include <atomic>
#include <memory>
#include <string>

namespace Veskan {
namespace Detail {

// The client's settings as a transfer starts; later changes do not reach it.
struct ClientSettings {
  int timeOutSeconds = HttpClient::DEFAULT_REQUEST_TIME_OUT;
  bool noCertificatePrompt = false;
  int maxReplyBytes = HttpClient::DEFAULT_MAX_REPLY_BYTES;
  HttpClient::CredentialPrompt credentialPrompt;
  HttpClient::CertificatePrompt certificatePrompt;
  std::shared_ptr<DaemonMarshaller> marshaller;
};

// One exchange. Used by one thread at a time: the sending thread, or the client's worker.
//
// Sequence: Configure(easy), perform, Finished(result) — again from Configure while it answers
// Retry — then Complete().
class Transfer {
 public:
  enum class Next { Retry, Done };

  // `cancel` is the client's flag that stops every transfer; it must outlive this object.
  Transfer(std::shared_ptr<Message> message, std::string url, std::string method, bool direct,
           ClientSettings settings, const std::atomic<bool>& cancel);
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  // Adds a request header line ("Name: value"); false, and nothing added, when the name or value
  // holds CR or LF, which would begin another line.
  bool AddHeader(const StringBuffer& name, const StringBuffer& value);
  // Keeps libcurl from adding its own header `name` (such as "Accept" or "Expect").
  void LeaveOut(const char* name);
  // The request body: the bytes of `content` (null or empty: none). The content must not change
  // while the transfer runs.
  void SetBody(std::shared_ptr<Content> content);

  // Sets every option of `easy` for the next send; false when libcurl refuses one (out of
  // memory), and the transfer is then done with that error.
  bool Configure(CURL* easy);
  // After a send ended with `result`: Retry (call Configure and send again) when a prompt
  // answered a 401, 407 or certificate failure and retries are left, Done otherwise (always
  // once the client cancels).
  Next Finished(CURL* easy, CURLcode result);
  // Announces Sent; call before the first send.
  void AnnounceSent();
  // Ends the exchange as `result` (CURLE_OK: the reply as read) and announces Loaded.
  void Complete(CURLcode result);

  const std::shared_ptr<Message>& Subject() const { return message_; }
  // The result of the last send (CURLE_OK when a reply came).
  CURLcode LastResult() const { return lastResult_; }

 private:
  static size_t OnHeaderLine(char* data, size_t size, size_t count, void* self);
  static size_t OnBodyBytes(char* data, size_t size, size_t count, void* self);
  static int OnProgress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t);

  // The reply's status line or one of its header lines, without CR LF.
  bool ReadHeaderLine(const char* line, size_t length);
  // The empty line: a final reply's headers go into the message, which is announced Receiving.
  void EndOfHeaders();
  bool AskForCredentials(CURL* easy);
  bool AcceptUnverifiedCertificate(CURLcode result);

  std::shared_ptr<Message> message_;
  std::string url_;
  std::string method_;
  bool direct_;
  ClientSettings settings_;
  const std::atomic<bool>& cancel_;
  CurlHeaderList headers_;
  std::shared_ptr<Content> body_;

  int retries_ = 0;
  bool verifyPeer_ = true;
  std::string userName_;
  std::string password_;
  bool proxyCredentials_ = false;

  // The reply being read. Each status line starts a new one (interim, challenge and redirect
  // replies are read and replaced).
  int status_ = 0;
  Header::Collection replyHeaders_;
  std::shared_ptr<Content> replyContent_;
  std::size_t headerBytes_ = 0;
  bool receivingAnnounced_ = false;
  CURLcode lastResult_ = CURLE_OK;
};

}  // namespace Detail
}  // namespace Veskan

#endif
