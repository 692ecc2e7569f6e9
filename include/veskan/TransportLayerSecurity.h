// TransportLayerSecurity, the TLS session of one connection: the daemon passes every byte the
// connection receives and sends through it.
#ifndef VESKAN_TRANSPORTLAYERSECURITY_H
#define VESKAN_TRANSPORTLAYERSECURITY_H

#include <veskan/Export.h>

#include <cstddef>
#include <memory>
#include <vector>

namespace Veskan {

// One side of a TLS session (RFC 8446, RFC 5246), working on bytes only: the encrypted bytes
// received are handed to Incoming, the plaintext to send to Outgoing, and whatever the session
// produces for the wire is appended to a buffer that the caller sends.
//
// Server sessions accept TLS 1.2 and 1.3 only, with OpenSSL's default cipher lists and security
// level, the RFC 7919 Diffie-Hellman groups, no renegotiation and no compression.
//
// Thread safety: CreateServer may be called from any thread. One session is used by one thread at
// a time (the daemon calls it with its connection's lock held).
class VESKAN_API TransportLayerSecurity {
 public:
  // Why a set-up or a session failed.
  class VESKAN_API StatusCodes {
   public:
    enum Enumeration : int {
      Ok = 0,
      NoCertificate = 1,        // no certificate file was named
      BadCertificate = 2,       // the certificate file holds no certificate
      BadKey = 3,               // the key file holds no private key
      NoCertificateNorKey = 4,  // one file named for both holds neither
      Mismatch = 5,             // the key does not belong to the certificate
      Unusable = 6,             // read, but refused (a key too weak for the security level)
      DhError = 7,              // the Diffie-Hellman groups could not be set
      SessionFailed = 8,        // the peer broke the protocol, or the session failed
    };
    // "Ok", "NoCertificate", ...; "##invalid value##" for other values.
    static const char16_t* ToString(Enumeration value);
  };

  virtual ~TransportLayerSecurity();

  // A server session for one accepted connection, with the certificate (chain) in
  // `certificateFile` and its private key in `keyFile`, each in PEM or DER form. A null or empty
  // `keyFile`, or the same name, reads the key from the certificate file (PEM holding both).
  // Files are read once per process and kept (with the settings built from them) until one of
  // them changes on disk, so that a session costs no file access.
  // Null when the set-up fails: the reason is written to Server::Log (Error) and the Logger, and
  // stored in `*status` when `status` is given (Ok on success).
  static std::shared_ptr<TransportLayerSecurity> CreateServer(
      const char16_t* certificateFile, const char16_t* keyFile,
      StatusCodes::Enumeration* status = nullptr);

  // Called with bytes received from the socket: appends the plaintext they yield to `plain` and
  // the bytes the session must send back (handshake records, alerts, tickets) to `wire`. False
  // once the session has failed (a protocol error, garbage, a refused version): the connection
  // must be closed.
  virtual bool Incoming(const char* data, std::size_t length, std::vector<char>& plain,
                        std::vector<char>& wire) = 0;
  // Called with plaintext to send: appends the encrypted bytes to `wire`. Plaintext given before
  // the handshake has finished is kept and sent once it has. False once the session has failed.
  virtual bool Outgoing(const char* data, std::size_t length, std::vector<char>& wire) = 0;
  // Called after the last plaintext of the connection: appends the close_notify alert to `wire`
  // (RFC 8446 section 6.1), so that the peer can tell the end from a cut connection. Nothing
  // before the handshake has finished or after a failure; later plaintext is refused.
  virtual void Close(std::vector<char>& wire) = 0;
  // Ok, or SessionFailed once Incoming or Outgoing has returned false.
  virtual StatusCodes::Enumeration Status() const = 0;

 protected:
  TransportLayerSecurity() = default;
  TransportLayerSecurity(const TransportLayerSecurity&) = delete;
  TransportLayerSecurity& operator=(const TransportLayerSecurity&) = delete;
};

}  // namespace Veskan

#endif
