// TransportLayerSecurity on OpenSSL: the server set-up from certificate and key files, the
// process-wide cache of contexts, and the per-connection session on memory BIOs.
#include <veskan/Logger.h>
#include <veskan/TransportLayerSecurity.h>

#include "net/EngineLog.h"
#include "net/TlsContext.h"

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <algorithm>
#include <climits>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <utility>

namespace Veskan {

namespace {

using Status = TransportLayerSecurity::StatusCodes;

struct SslFree {
  void operator()(SSL* ssl) const { SSL_free(ssl); }
};
struct BioFree {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
struct X509Free {
  void operator()(X509* certificate) const { X509_free(certificate); }
};
struct KeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using SslPtr = std::unique_ptr<SSL, SslFree>;
using BioPtr = std::unique_ptr<BIO, BioFree>;
using X509Ptr = std::unique_ptr<X509, X509Free>;
using KeyPtr = std::unique_ptr<EVP_PKEY, KeyFree>;
using ContextPtr = std::unique_ptr<SSL_CTX, Detail::TlsContext::Free>;

// The set-up's texts, as administrators know them from the system's event log.
constexpr const char16_t* NoCertificateText =
    u"An attempt to start a secure server failed because no certificate file was specified.";
constexpr const char16_t* FileText = u"A secure connection could not be created because file: ";
constexpr const char16_t* BadCertificateText =
    u"does not contain an SSL certificate in X.509 ASN.1 DER format or PEM format(or some error "
    u"occurred reading it)";
constexpr const char16_t* BadKeyText =
    u"does not contain an RSA private key in X.509 ASN.1 DER format or PEM format(or some error "
    u"occurred reading it)";
constexpr const char16_t* NeitherText =
    u"contains neither an SSL certificate in X.509 ASN.1 DER format nor an RSA private key in PEM "
    u"format";
constexpr const char16_t* MismatchText =
    u"certificate and private key don't match (or some error occurred reading it)";
constexpr const char16_t* UnusableText =
    u"seems perfectly fine but there was some error reading it";
constexpr const char16_t* DhErrorText = u"DH ERROR";

// Certificate and key files are a few kilobytes; anything far larger is not one.
constexpr std::uintmax_t MaxFileBytes = 1024 * 1024;
// Plaintext written before the handshake has finished, kept until it has.
constexpr std::size_t MaxPendingBytes = 1024 * 1024;
// Plaintext is encrypted in pieces of this size, and the records drained after each, so that a
// large reply is not held twice.
constexpr std::size_t WritePiece = 64 * 1024;

// The texts of OpenSSL's error queue of this thread, which it empties.
std::string TakeOpenSslErrors() {
  std::string text;
  char line[256];
  for (unsigned long error = ERR_get_error(); error != 0; error = ERR_get_error()) {
    ERR_error_string_n(error, line, sizeof line);
    if (!text.empty()) text += "; ";
    text += line;
  }
  return text;
}

// Never asks for a pass phrase: an encrypted key cannot be used by an unattended server.
int NoPassPhrase(char*, int, int, void*) {
  return -1;
}

bool ReadFileBytes(const std::filesystem::path& path, std::string& bytes) {
  std::error_code error;
  std::uintmax_t size = std::filesystem::file_size(path, error);
  if (error || size > MaxFileBytes) return false;
  std::ifstream file(path, std::ios::binary);
  if (!file) return false;
  bytes.assign(static_cast<std::size_t>(size), '\0');
  file.read(bytes.data(), static_cast<std::streamsize>(size));
  return static_cast<std::uintmax_t>(file.gcount()) == size;
}

BioPtr MemoryBio(const std::string& bytes) {
  return BioPtr(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
}

// The first certificate of `bytes` and, in PEM, the chain certificates behind it; PEM first,
// then DER.
X509Ptr ReadCertificate(const std::string& bytes, std::vector<X509Ptr>& chain) {
  BioPtr pem = MemoryBio(bytes);
  if (!pem) return nullptr;
  X509Ptr leaf(PEM_read_bio_X509(pem.get(), nullptr, NoPassPhrase, nullptr));
  if (leaf) {
    while (X509* next = PEM_read_bio_X509(pem.get(), nullptr, NoPassPhrase, nullptr))
      chain.emplace_back(next);
    ERR_clear_error();  // the end of the file is reported as an error
    return leaf;
  }
  ERR_clear_error();
  const unsigned char* der = reinterpret_cast<const unsigned char*>(bytes.data());
  leaf.reset(d2i_X509(nullptr, &der, static_cast<long>(bytes.size())));
  ERR_clear_error();
  return leaf;
}

// The private key of `bytes` (PKCS #8 or the algorithm's own form); PEM first, then DER.
KeyPtr ReadKey(const std::string& bytes) {
  BioPtr pem = MemoryBio(bytes);
  if (!pem) return nullptr;
  KeyPtr key(PEM_read_bio_PrivateKey(pem.get(), nullptr, NoPassPhrase, nullptr));
  if (!key) {
    ERR_clear_error();
    const unsigned char* der = reinterpret_cast<const unsigned char*>(bytes.data());
    key.reset(d2i_AutoPrivateKey(nullptr, &der, static_cast<long>(bytes.size())));
  }
  ERR_clear_error();
  return key;
}

// The outcome of a set-up: the context, or the failure and the file it concerns.
struct SetUp {
  std::shared_ptr<Detail::TlsContext> context;
  Status::Enumeration status = Status::Ok;
  StringBuffer file;
  std::string detail;  // OpenSSL's reasons, for the Logger
};

SetUp Fail(Status::Enumeration status, const StringBuffer& file) {
  SetUp failed;
  failed.status = status;
  failed.file = file;
  failed.detail = TakeOpenSslErrors();
  return failed;
}

// Reads the files and builds the context. `keyFile` may name the certificate file.
SetUp BuildServerContext(const StringBuffer& certificateFile, const StringBuffer& keyFile) {
  const bool oneFile = keyFile == certificateFile;
  ERR_clear_error();
  std::string certificateBytes;
  std::vector<X509Ptr> chain;
  X509Ptr certificate;
  bool readable =
      ReadFileBytes(std::filesystem::u8path(certificateFile.ToUTF8()), certificateBytes);
  if (readable) certificate = ReadCertificate(certificateBytes, chain);
  KeyPtr key;
  if (oneFile) {
    key = ReadKey(certificateBytes);
    // One file named for both (or no key file): the file is expected to hold both, and when it
    // was read but holds neither, that is what is reported, rather than only the missing
    // certificate. A file that cannot be read at all is reported as no certificate.
    if (readable && !certificate && !key) {
      return Fail(Status::NoCertificateNorKey, certificateFile);
    }
    if (!certificate) return Fail(Status::BadCertificate, certificateFile);
    if (!key) return Fail(Status::BadKey, keyFile);
  } else {
    if (!certificate) return Fail(Status::BadCertificate, certificateFile);
    std::string keyBytes;
    if (ReadFileBytes(std::filesystem::u8path(keyFile.ToUTF8()), keyBytes)) key = ReadKey(keyBytes);
    if (!key) return Fail(Status::BadKey, keyFile);
  }

  ContextPtr context(SSL_CTX_new(TLS_server_method()));
  if (!context) return Fail(Status::Unusable, certificateFile);
  SSL_CTX* raw = context.get();
  // TLS 1.2 and 1.3 only: the older versions are broken (RFC 8996). OpenSSL's default security
  // level refuses them as well; the floor holds also where a configuration lowers the level.
  // Renegotiation is off (a client could make the server redo its most expensive step at will),
  // so is compression (CRIME). Idle connections give their record buffers back.
  if (SSL_CTX_set_min_proto_version(raw, TLS1_2_VERSION) != 1) {
    return Fail(Status::Unusable, certificateFile);
  }
  SSL_CTX_set_options(raw, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
  SSL_CTX_set_mode(raw, SSL_MODE_RELEASE_BUFFERS);

  // Refused here although read: a key too weak for the security level, typically.
  if (SSL_CTX_use_certificate(raw, certificate.get()) != 1) {
    return Fail(Status::Unusable, certificateFile);
  }
  for (const X509Ptr& link : chain) {
    if (SSL_CTX_add1_chain_cert(raw, link.get()) != 1) {
      return Fail(Status::Unusable, certificateFile);
    }
  }
  if (SSL_CTX_use_PrivateKey(raw, key.get()) != 1) {
    // OpenSSL refuses a key of the certificate's type that does not match it here already.
    bool matches = X509_check_private_key(certificate.get(), key.get()) == 1;
    return Fail(matches ? Status::Unusable : Status::Mismatch, keyFile);
  }
  if (SSL_CTX_check_private_key(raw) != 1) return Fail(Status::Mismatch, keyFile);
  // Finite-field Diffie-Hellman with the RFC 7919 groups sized to the certificate's strength;
  // parameters are never generated at run time.
  if (SSL_CTX_set_dh_auto(raw, 1) != 1) return Fail(Status::DhError, StringBuffer());

  SetUp built;
  built.context = std::make_shared<Detail::TlsContext>(std::move(context));
  return built;
}

StringBuffer SetUpText(Status::Enumeration status, const StringBuffer& file) {
  const char16_t* reason = nullptr;
  switch (status) {
    case Status::Ok:
    case Status::SessionFailed:
      return StringBuffer();
    case Status::NoCertificate:
      return StringBuffer(NoCertificateText);
    case Status::DhError:
      return StringBuffer(DhErrorText);
    case Status::BadCertificate:
      reason = BadCertificateText;
      break;
    case Status::BadKey:
      reason = BadKeyText;
      break;
    case Status::NoCertificateNorKey:
      reason = NeitherText;
      break;
    case Status::Mismatch:
      reason = MismatchText;
      break;
    case Status::Unusable:
      reason = UnusableText;
      break;
  }
  return StringBuffer(FileText) + file + u" " + reason;
}

// The cache of contexts, by certificate and key file, with the files' modification times when
// they were read.
struct CacheEntry {
  std::shared_ptr<Detail::TlsContext> context;
  std::filesystem::file_time_type certificateTime;
  std::filesystem::file_time_type keyTime;
};
using CacheKey = std::pair<std::string, std::string>;

struct ContextCache {
  std::mutex mutex;
  std::map<CacheKey, CacheEntry> entries;
};

ContextCache& TheContextCache() {
  // OpenSSL is initialised first, so that its clean-up at exit runs after the cache has freed
  // its contexts.
  static const bool initialised = OPENSSL_init_ssl(0, nullptr) == 1;
  static ContextCache cache;
  (void)initialised;
  return cache;
}

std::filesystem::file_time_type ModificationTime(const StringBuffer& file) {
  std::error_code error;
  auto time = std::filesystem::last_write_time(std::filesystem::u8path(file.ToUTF8()), error);
  return error ? std::filesystem::file_time_type::min() : time;
}

// A session of a TLS server on one connection. The encrypted bytes pass through two memory BIOs,
// so that the session never touches the socket: the daemon moves the bytes.
class TransportLayerSecurityServerImpl final : public TransportLayerSecurity {
 public:
  // `ssl` is a fresh server session, without BIOs.
  static std::shared_ptr<TransportLayerSecurity> Create(SslPtr ssl) {
    BioPtr in(BIO_new(BIO_s_mem()));
    BioPtr out(BIO_new(BIO_s_mem()));
    if (!ssl || !in || !out) return nullptr;
    // An empty memory BIO reports "retry", not end of file, so that the session waits for more.
    BIO_set_mem_eof_return(in.get(), -1);
    BIO_set_mem_eof_return(out.get(), -1);
    SSL_set_accept_state(ssl.get());
    SSL_set_bio(ssl.get(), in.get(), out.get());  // the session owns both BIOs from here on
    BIO* inBio = in.release();
    BIO* outBio = out.release();
    return std::make_shared<TransportLayerSecurityServerImpl>(std::move(ssl), inBio, outBio);
  }

  TransportLayerSecurityServerImpl(SslPtr ssl, BIO* in, BIO* out)
      : ssl_(std::move(ssl)), in_(in), out_(out) {}

  bool Incoming(const char* data, std::size_t length, std::vector<char>& plain,
                std::vector<char>& wire) override {
    if (failed_) return false;
    // Nothing follows the peer's close_notify (RFC 8446 section 6.1): what still arrives is not
    // read, and so not kept either.
    if (peerClosed_) return true;
    ERR_clear_error();
    // The input BIO keeps only what does not make a whole record yet: every record in it is read
    // below, and OpenSSL refuses records above the protocol's maximum length.
    while (length > 0) {
      int piece = static_cast<int>(std::min<std::size_t>(length, INT_MAX));
      if (BIO_write(in_, data, piece) != piece) return Fail();
      data += piece;
      length -= static_cast<std::size_t>(piece);
    }
    if (!SSL_is_init_finished(ssl_.get())) {
      int result = SSL_do_handshake(ssl_.get());
      if (result != 1) {
        int error = SSL_get_error(ssl_.get(), result);
        if (error != SSL_ERROR_WANT_READ) return Fail();
        Drain(wire);
        return true;
      }
      if (!pending_.empty()) {
        std::vector<char> held;
        held.swap(pending_);
        if (!Write(held.data(), held.size(), wire)) return false;
      }
    }
    char buffer[16384];
    for (;;) {
      std::size_t count = 0;
      int result = SSL_read_ex(ssl_.get(), buffer, sizeof buffer, &count);
      if (result == 1) {
        plain.insert(plain.end(), buffer, buffer + count);
        continue;
      }
      int error = SSL_get_error(ssl_.get(), result);
      if (error == SSL_ERROR_WANT_READ) break;
      if (error == SSL_ERROR_ZERO_RETURN) {
        peerClosed_ = true;
        break;
      }
      return Fail();
    }
    Drain(wire);
    return true;
  }

  bool Outgoing(const char* data, std::size_t length, std::vector<char>& wire) override {
    if (failed_) return false;
    if (!SSL_is_init_finished(ssl_.get())) {
      if (length > MaxPendingBytes - pending_.size()) return Fail();
      pending_.insert(pending_.end(), data, data + length);
      return true;
    }
    return Write(data, length, wire);
  }

  void Close(std::vector<char>& wire) override {
    if (failed_ || closed_ || !SSL_is_init_finished(ssl_.get())) return;
    closed_ = true;
    ERR_clear_error();
    SSL_shutdown(ssl_.get());  // sends close_notify; the peer's is not awaited
    ERR_clear_error();
    Drain(wire);
  }

  StatusCodes::Enumeration Status() const override {
    return failed_ ? StatusCodes::SessionFailed : StatusCodes::Ok;
  }

 private:
  bool Write(const char* data, std::size_t length, std::vector<char>& wire) {
    ERR_clear_error();
    while (length > 0) {
      std::size_t written = 0;
      // A memory BIO takes everything: the write completes or the session has failed.
      if (SSL_write_ex(ssl_.get(), data, std::min(length, WritePiece), &written) != 1) {
        return Fail();
      }
      data += written;
      length -= written;
      Drain(wire);
    }
    return true;
  }

  // Moves the records the session produced to `wire`.
  void Drain(std::vector<char>& wire) {
    for (std::size_t pending = BIO_ctrl_pending(out_); pending > 0;
         pending = BIO_ctrl_pending(out_)) {
      std::size_t before = wire.size();
      int piece = static_cast<int>(std::min<std::size_t>(pending, INT_MAX));
      wire.resize(before + static_cast<std::size_t>(piece));
      int count = BIO_read(out_, wire.data() + before, piece);
      wire.resize(before + static_cast<std::size_t>(std::max(count, 0)));
      if (count <= 0) return;
    }
  }

  bool Fail() {
    failed_ = true;
    pending_.clear();
    pending_.shrink_to_fit();
    if (Logger::IsEnabled(Logger::Severity::Debug)) {
      Logger::Line(Logger::Severity::Debug, "Veskan::TransportLayerSecurityServerImpl")
          << " session failed: " << TakeOpenSslErrors();
    } else {
      ERR_clear_error();
    }
    return false;
  }

  SslPtr ssl_;
  BIO* in_;   // encrypted bytes received; owned by ssl_
  BIO* out_;  // encrypted bytes to send; owned by ssl_
  std::vector<char> pending_;
  bool failed_ = false;
  bool peerClosed_ = false;
  bool closed_ = false;  // close_notify sent
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// TransportLayerSecurity

TransportLayerSecurity::~TransportLayerSecurity() = default;

const char16_t* TransportLayerSecurity::StatusCodes::ToString(Enumeration value) {
  switch (value) {
    case Ok:
      return u"Ok";
    case NoCertificate:
      return u"NoCertificate";
    case BadCertificate:
      return u"BadCertificate";
    case BadKey:
      return u"BadKey";
    case NoCertificateNorKey:
      return u"NoCertificateNorKey";
    case Mismatch:
      return u"Mismatch";
    case Unusable:
      return u"Unusable";
    case DhError:
      return u"DhError";
    case SessionFailed:
      return u"SessionFailed";
  }
  return u"##invalid value##";
}

std::shared_ptr<TransportLayerSecurity> TransportLayerSecurity::CreateServer(
    const char16_t* certificateFile, const char16_t* keyFile, StatusCodes::Enumeration* status) {
  StatusCodes::Enumeration outcome = StatusCodes::Ok;
  std::shared_ptr<Detail::TlsContext> context = Detail::TlsContext::AcquireServer(
      StringBuffer(certificateFile), StringBuffer(keyFile), outcome);
  std::shared_ptr<TransportLayerSecurity> session = context ? context->NewSession() : nullptr;
  if (context && !session) outcome = StatusCodes::SessionFailed;
  if (status != nullptr) *status = outcome;
  return session;
}

// ---------------------------------------------------------------------------------------------
// Detail::TlsContext

namespace Detail {

void TlsContext::Free::operator()(ssl_ctx_st* context) const {
  SSL_CTX_free(context);
}

TlsContext::TlsContext(std::unique_ptr<ssl_ctx_st, Free> context) : context_(std::move(context)) {}

std::shared_ptr<TransportLayerSecurity> TlsContext::NewSession() const {
  return TransportLayerSecurityServerImpl::Create(SslPtr(SSL_new(context_.get())));
}

std::shared_ptr<TlsContext> TlsContext::AcquireServer(const StringBuffer& certificateFile,
                                                      const StringBuffer& keyFile,
                                                      Status::Enumeration& status) {
  static const char* const Method = "Veskan::TransportLayerSecurity::CreateServer";
  if (certificateFile.isEmpty()) {
    status = Status::NoCertificate;
    EngineLog(Logger::Severity::Error, Method, SetUpText(status, StringBuffer()));
    return nullptr;
  }
  const StringBuffer& keySource = keyFile.isEmpty() ? certificateFile : keyFile;
  const CacheKey key(certificateFile.ToUTF8(), keySource.ToUTF8());
  const auto certificateTime = ModificationTime(certificateFile);
  const auto keyTime = ModificationTime(keySource);

  ContextCache& cache = TheContextCache();
  {
    std::lock_guard<std::mutex> lock(cache.mutex);
    auto found = cache.entries.find(key);
    if (found != cache.entries.end() && found->second.certificateTime == certificateTime &&
        found->second.keyTime == keyTime) {
      status = Status::Ok;
      return found->second.context;
    }
  }
  // Built without the lock: reading files must not hold up servers using other files.
  SetUp built = BuildServerContext(certificateFile, keySource);
  status = built.status;
  {
    std::lock_guard<std::mutex> lock(cache.mutex);
    if (built.context) {
      cache.entries[key] = CacheEntry{built.context, certificateTime, keyTime};
    } else {
      cache.entries.erase(key);
    }
  }
  if (!built.context) {
    if (!built.detail.empty()) Logger::Line(Logger::Severity::Debug, Method) << " " << built.detail;
    EngineLog(Logger::Severity::Error, Method, SetUpText(built.status, built.file));
  }
  return built.context;
}

void ReleaseTlsThreadState() {
  OPENSSL_thread_stop();
}

}  // namespace Detail

}  // namespace Veskan
