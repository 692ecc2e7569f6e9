// The settings a TLS server's sessions share: its certificate, key and protocol settings, built
// once per pair of files and process.
#ifndef VESKAN_NET_TLSCONTEXT_H
#define VESKAN_NET_TLSCONTEXT_H

#include <veskan/StringBuffer.h>
#include <veskan/TransportLayerSecurity.h>

#include <memory>

struct ssl_ctx_st;  // OpenSSL's SSL_CTX

namespace Veskan {
namespace Detail {

// An OpenSSL server context. Immutable once built.
//
// Thread safety: every operation may be called from any thread.
class TlsContext {
 public:
  // The context for `certificateFile` and `keyFile` (see TransportLayerSecurity::CreateServer for
  // the forms accepted). Taken from a process-wide cache while neither file has changed on disk;
  // otherwise the files are read and the context built. Null on failure: the reason is written
  // to Server::Log (Error) and the Logger, and given in `status`.
  static std::shared_ptr<TlsContext> AcquireServer(
      const StringBuffer& certificateFile, const StringBuffer& keyFile,
      TransportLayerSecurity::StatusCodes::Enumeration& status);

  // A new server session on this context: one SSL_new. Null when OpenSSL has no memory for it.
  std::shared_ptr<TransportLayerSecurity> NewSession() const;

  struct Free {
    void operator()(ssl_ctx_st* context) const;
  };
  explicit TlsContext(std::unique_ptr<ssl_ctx_st, Free> context);

 private:
  std::unique_ptr<ssl_ctx_st, Free> context_;
};

// Frees what the TLS library keeps for the calling thread (its error queue). A daemon thread
// calls it as it ends: the library would otherwise free it only after the thread is counted as
// ended, and a process exiting in that moment would lose it.
void ReleaseTlsThreadState();

}  // namespace Detail
}  // namespace Veskan

#endif
