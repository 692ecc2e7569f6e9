// TLS: the set-up of a secure server from certificate and key files and its error texts, a
// session driven in memory by an OpenSSL client, and a secure server with real peers on loopback
// (curl, openssl s_client, raw sockets that do not speak TLS).
#include <veskan/Client.h>
#include <veskan/Daemon.h>
#include <veskan/Server.h>
#include <veskan/TransportLayerSecurity.h>
#include <veskan/WSData.h>

#include "NetTestSupport.h"
#include "TestSupport.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

namespace Veskan {
namespace {

using Status = TransportLayerSecurity::StatusCodes;
using Testing::RawConnection;
using Testing::TemporaryFolder;

// Frees an OpenSSL object with `Free`.
template <auto Free>
struct Freer {
  template <typename T>
  void operator()(T* object) const {
    Free(object);
  }
};
using BioPtr = std::unique_ptr<BIO, Freer<BIO_free>>;
using KeyPtr = std::unique_ptr<EVP_PKEY, Freer<EVP_PKEY_free>>;
using X509Ptr = std::unique_ptr<X509, Freer<X509_free>>;

std::string Text(const StringBuffer& text) {
  return text.ToUTF8();
}

// What a memory BIO holds.
std::string Contents(BIO* bio) {
  char* data = nullptr;
  long size = BIO_get_mem_data(bio, &data);
  return std::string(data, static_cast<std::size_t>(size));
}

// A self-signed certificate for "localhost" and 127.0.0.1 on `key`.
X509Ptr SelfSigned(EVP_PKEY* key) {
  X509Ptr certificate(X509_new());
  X509* x = certificate.get();
  X509_set_version(x, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(x), 1);
  X509_gmtime_adj(X509_getm_notBefore(x), -3600);
  X509_gmtime_adj(X509_getm_notAfter(x), 24 * 3600);
  X509_set_pubkey(x, key);
  X509_NAME* name = X509_get_subject_name(x);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0);
  X509_set_issuer_name(x, name);
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, x, x, nullptr, nullptr, 0);
  std::unique_ptr<X509_EXTENSION, Freer<X509_EXTENSION_free>> names(
      X509V3_EXT_conf_nid(nullptr, &context, NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1"));
  if (!names || X509_add_ext(x, names.get(), -1) != 1) return nullptr;
  if (X509_sign(x, key, EVP_sha256()) == 0) return nullptr;
  return certificate;
}

// What `write` puts in a memory BIO: a certificate or a key, in PEM or DER.
template <typename Write>
std::string Written(Write write) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  write(bio.get());
  return Contents(bio.get());
}
std::string CertificatePem(X509* certificate) {
  return Written([=](BIO* bio) { PEM_write_bio_X509(bio, certificate); });
}
std::string KeyPem(EVP_PKEY* key) {
  return Written(
      [=](BIO* bio) { PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr); });
}

// Throw-away credentials, made once for the whole program: a 2048-bit RSA key with its
// certificate in PEM and DER, both in one PEM file, a second key that does not match, a
// certificate whose 512-bit key the default security level refuses, and a file that is neither.
struct Credentials {
  TemporaryFolder folder;
  StringBuffer certificatePem, keyPem, certificateDer, keyDer, combined, otherKey, weakCertificate,
      weakKey, junk, missing;
  bool made = false;

  Credentials() {
    KeyPtr key(EVP_RSA_gen(2048));
    KeyPtr other(EVP_RSA_gen(2048));
    KeyPtr weak(EVP_RSA_gen(512));
    if (!key || !other || !weak) return;
    X509Ptr certificate = SelfSigned(key.get());
    X509Ptr weakOne = SelfSigned(weak.get());
    if (!certificate || !weakOne) return;
    certificatePem = folder.WriteFile("cert.pem", CertificatePem(certificate.get()));
    keyPem = folder.WriteFile("key.pem", KeyPem(key.get()));
    certificateDer = folder.WriteFile(
        "cert.der", Written([&](BIO* bio) { i2d_X509_bio(bio, certificate.get()); }));
    keyDer =
        folder.WriteFile("key.der", Written([&](BIO* bio) { i2d_PrivateKey_bio(bio, key.get()); }));
    combined = folder.WriteFile("both.pem", CertificatePem(certificate.get()) + KeyPem(key.get()));
    otherKey = folder.WriteFile("other-key.pem", KeyPem(other.get()));
    weakCertificate = folder.WriteFile("weak-cert.pem", CertificatePem(weakOne.get()));
    weakKey = folder.WriteFile("weak-key.pem", KeyPem(weak.get()));
    junk = folder.WriteFile("junk.txt", "neither a certificate nor a key\n");
    missing = folder.File("missing.pem");
    made =
        !Testing::ReadWholeFile(keyDer).empty() && !Testing::ReadWholeFile(certificateDer).empty();
  }
};

const Credentials& TheCredentials() {
  static Credentials credentials;
  return credentials;
}

// Captures what is written to the server log (alert mode) for its lifetime.
class LogCapture {
 public:
  LogCapture() {
    Server::Log::SetAlertHandler(
        [this](const char16_t*, const char16_t* text, Server::Log::Enumeration) {
          std::lock_guard<std::mutex> lock(mutex_);
          lines_.push_back(Text(StringBuffer(text)));
        });
    Server::Log::Start(u"MessageBox", Server::Log::Information);
  }
  ~LogCapture() {
    Server::Log::Stop();
    Server::Log::SetAlertHandler(nullptr);
  }
  std::vector<std::string> Take() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> taken;
    taken.swap(lines_);
    return taken;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

std::string FileText(const StringBuffer& file, const std::string& reason) {
  return "A secure connection could not be created because file: " + Text(file) + " " + reason;
}

const std::string NoCertificate =
    "An attempt to start a secure server failed because no certificate file was specified.";
const std::string BadCertificate =
    "does not contain an SSL certificate in X.509 ASN.1 DER format or PEM format(or some error "
    "occurred reading it)";
const std::string BadKey =
    "does not contain an RSA private key in X.509 ASN.1 DER format or PEM format(or some error "
    "occurred reading it)";
const std::string Neither =
    "contains neither an SSL certificate in X.509 ASN.1 DER format nor an RSA private key in PEM "
    "format";
const std::string Mismatch =
    "certificate and private key don't match (or some error occurred reading it)";
const std::string Unusable = "seems perfectly fine but there was some error reading it";

class TlsSetUpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(TheCredentials().made);
    ASSERT_TRUE(Server::Log::AlertMode());
  }
  const Credentials& files_ = TheCredentials();
  LogCapture log_;
};

TEST_F(TlsSetUpTest, EachFailureIsLoggedWithItsText) {
  const struct {
    const char* name;
    const StringBuffer* certificate;  // null: no file named
    const StringBuffer* key;
    Status::Enumeration status;
    std::string text;
  } cases[] = {
      {"no certificate", nullptr, &files_.keyPem, Status::NoCertificate, NoCertificate},
      {"missing certificate file", &files_.missing, &files_.keyPem, Status::BadCertificate,
       FileText(files_.missing, BadCertificate)},
      {"missing file for both", &files_.missing, nullptr, Status::BadCertificate,
       FileText(files_.missing, BadCertificate)},
      {"certificate file is a key", &files_.keyPem, &files_.keyPem, Status::BadCertificate,
       FileText(files_.keyPem, BadCertificate)},
      {"certificate file is junk", &files_.junk, &files_.keyPem, Status::BadCertificate,
       FileText(files_.junk, BadCertificate)},
      {"key file is junk", &files_.certificatePem, &files_.junk, Status::BadKey,
       FileText(files_.junk, BadKey)},
      {"key file is a certificate", &files_.certificatePem, &files_.certificateDer, Status::BadKey,
       FileText(files_.certificateDer, BadKey)},
      {"one file holding no key", &files_.certificatePem, nullptr, Status::BadKey,
       FileText(files_.certificatePem, BadKey)},
      {"one file holding neither", &files_.junk, nullptr, Status::NoCertificateNorKey,
       FileText(files_.junk, Neither)},
      {"the same file holding neither", &files_.junk, &files_.junk, Status::NoCertificateNorKey,
       FileText(files_.junk, Neither)},
      {"another key", &files_.certificatePem, &files_.otherKey, Status::Mismatch,
       FileText(files_.otherKey, Mismatch)},
      {"a key too weak", &files_.weakCertificate, &files_.weakKey, Status::Unusable,
       FileText(files_.weakCertificate, Unusable)},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.name);
    StringBuffer certificate = test.certificate ? *test.certificate : StringBuffer();
    StringBuffer key = test.key ? *test.key : StringBuffer();
    Status::Enumeration status = Status::Ok;
    EXPECT_EQ(nullptr, TransportLayerSecurity::CreateServer(
                           test.certificate ? certificate.getTerminatedBuffer() : nullptr,
                           test.key ? key.getTerminatedBuffer() : nullptr, &status));
    EXPECT_EQ(test.status, status);
    EXPECT_EQ(std::vector<std::string>{test.text}, log_.Take());
  }
  // An empty name is no name.
  EXPECT_EQ(nullptr, TransportLayerSecurity::CreateServer(u"", u""));
  EXPECT_EQ(std::vector<std::string>{NoCertificate}, log_.Take());
}

TEST_F(TlsSetUpTest, ReadsPemAndDerAndRereadsAChangedFile) {
  const struct {
    const char* name;
    const StringBuffer* certificate;
    const StringBuffer* key;
  } cases[] = {
      {"PEM", &files_.certificatePem, &files_.keyPem},
      {"DER", &files_.certificateDer, &files_.keyDer},
      {"PEM certificate, DER key", &files_.certificatePem, &files_.keyDer},
      {"one file, no key named", &files_.combined, nullptr},
      {"one file named twice", &files_.combined, &files_.combined},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.name);
    StringBuffer key = test.key ? *test.key : StringBuffer();
    Status::Enumeration status = Status::SessionFailed;
    std::shared_ptr<TransportLayerSecurity> session = TransportLayerSecurity::CreateServer(
        StringBuffer(*test.certificate).getTerminatedBuffer(),
        test.key ? key.getTerminatedBuffer() : nullptr, &status);
    ASSERT_NE(nullptr, session);
    EXPECT_EQ(Status::Ok, status);
    EXPECT_EQ(Status::Ok, session->Status());
    EXPECT_TRUE(log_.Take().empty());
  }

  // The settings are kept per pair of files: a file is read again only once its modification
  // time has changed.
  TemporaryFolder folder;
  StringBuffer certificate =
      folder.WriteFile("cert.pem", Testing::ReadWholeFile(files_.certificatePem));
  StringBuffer key = folder.WriteFile("key.pem", Testing::ReadWholeFile(files_.keyPem));
  ASSERT_NE(nullptr, TransportLayerSecurity::CreateServer(certificate.getTerminatedBuffer(),
                                                          key.getTerminatedBuffer()));
  auto path = folder.Path() / "key.pem";
  auto time = std::filesystem::last_write_time(path);
  folder.WriteFile("key.pem", Testing::ReadWholeFile(files_.otherKey));
  std::filesystem::last_write_time(path, time);
  EXPECT_NE(nullptr, TransportLayerSecurity::CreateServer(certificate.getTerminatedBuffer(),
                                                          key.getTerminatedBuffer()))
      << "the same modification time: not read again";
  std::filesystem::last_write_time(path, time + std::chrono::seconds(1));
  Status::Enumeration status = Status::Ok;
  EXPECT_EQ(nullptr, TransportLayerSecurity::CreateServer(certificate.getTerminatedBuffer(),
                                                          key.getTerminatedBuffer(), &status));
  EXPECT_EQ(Status::Mismatch, status);
  EXPECT_EQ(std::vector<std::string>{FileText(key, Mismatch)}, log_.Take());
}

// An OpenSSL client in memory, talking to a server session through Incoming and Outgoing.
class MemoryPeer {
 public:
  MemoryPeer() : context_(SSL_CTX_new(TLS_client_method())) {
    SSL_CTX_set_verify(context_.get(), SSL_VERIFY_NONE, nullptr);
    ssl_.reset(SSL_new(context_.get()));
    BIO* in = BIO_new(BIO_s_mem());
    BIO* out = BIO_new(BIO_s_mem());
    BIO_set_mem_eof_return(in, -1);
    SSL_set_bio(ssl_.get(), in, out);  // the session owns both
    in_ = in;
    out_ = out;
    SSL_set_connect_state(ssl_.get());
  }
  SSL* Ssl() { return ssl_.get(); }
  // The bytes the client wants to send.
  std::string TakeWire() {
    std::string bytes = Contents(out_);
    BIO_reset(out_);
    return bytes;
  }
  void Give(const std::vector<char>& wire) {
    if (!wire.empty()) BIO_write(in_, wire.data(), static_cast<int>(wire.size()));
  }
  // Plaintext the client has received so far.
  std::string Read(bool& closed) {
    std::string text;
    char buffer[4096];
    std::size_t count = 0;
    while (SSL_read_ex(ssl_.get(), buffer, sizeof buffer, &count) == 1)
      text.append(buffer, count);
    closed = SSL_get_error(ssl_.get(), 0) == SSL_ERROR_ZERO_RETURN ||
             (SSL_get_shutdown(ssl_.get()) & SSL_RECEIVED_SHUTDOWN) != 0;
    ERR_clear_error();
    return text;
  }

 private:
  std::unique_ptr<SSL_CTX, Freer<SSL_CTX_free>> context_;
  std::unique_ptr<SSL, Freer<SSL_free>> ssl_;
  BIO* in_ = nullptr;   // owned by ssl_
  BIO* out_ = nullptr;  // owned by ssl_
};

TEST_F(TlsSetUpTest, SessionWorksOnBytesInAnyPiecesAndFailsOnGarbage) {
  StringBuffer certificate = files_.certificatePem;
  StringBuffer key = files_.keyPem;
  std::shared_ptr<TransportLayerSecurity> server = TransportLayerSecurity::CreateServer(
      certificate.getTerminatedBuffer(), key.getTerminatedBuffer());
  ASSERT_NE(nullptr, server);

  MemoryPeer client;
  std::vector<char> wire;
  std::vector<char> plain;
  // Written before the handshake: held and sent once it has finished.
  ASSERT_TRUE(server->Outgoing("early|", 6, wire));
  EXPECT_TRUE(wire.empty());
  bool done = false;
  for (int flight = 0; flight < 10 && !done; ++flight) {
    done = SSL_do_handshake(client.Ssl()) == 1;
    std::string bytes = client.TakeWire();
    // Fed in pieces of 7 bytes: records and handshake messages split anywhere.
    for (std::size_t at = 0; at < bytes.size(); at += 7) {
      ASSERT_TRUE(server->Incoming(bytes.data() + at, std::min<std::size_t>(7, bytes.size() - at),
                                   plain, wire));
    }
    client.Give(wire);
    wire.clear();
  }
  ASSERT_TRUE(done);
  EXPECT_TRUE(plain.empty());
  ASSERT_EQ(18, SSL_write(client.Ssl(), "GET / HTTP/1.1\r\n\r\n", 18));
  std::string request = client.TakeWire();
  ASSERT_TRUE(server->Incoming(request.data(), request.size(), plain, wire));
  EXPECT_EQ("GET / HTTP/1.1\r\n\r\n", std::string(plain.begin(), plain.end()));
  std::string reply(100000, 'r');  // several records
  ASSERT_TRUE(server->Outgoing(reply.data(), reply.size(), wire));
  server->Close(wire);
  client.Give(wire);
  bool closed = false;
  EXPECT_EQ("early|" + reply, client.Read(closed));
  EXPECT_TRUE(closed) << "close_notify follows the last reply";
  EXPECT_EQ(Status::Ok, server->Status());

  const struct {
    const char* name;
    std::string bytes;
  } garbage[] = {
      {"plain HTTP", "GET / HTTP/1.1\r\nHost: x\r\n\r\n"},
      {"a ClientHello record of junk",
       std::string("\x16\x03\x01\x00\x40\x01\x00\x00\x3c\x03\x03", 11) + std::string(58, '\xff')},
      {"a record longer than the protocol allows", std::string("\x16\x03\x01\xff\xff", 5)},
      {"an application record before the handshake", std::string("\x17\x03\x03\x00\x05hello", 10)},
  };
  for (const auto& test : garbage) {
    SCOPED_TRACE(test.name);
    std::shared_ptr<TransportLayerSecurity> session = TransportLayerSecurity::CreateServer(
        certificate.getTerminatedBuffer(), key.getTerminatedBuffer());
    ASSERT_NE(nullptr, session);
    plain.clear();
    wire.clear();
    EXPECT_FALSE(session->Incoming(test.bytes.data(), test.bytes.size(), plain, wire));
    EXPECT_TRUE(plain.empty());
    EXPECT_EQ(Status::SessionFailed, session->Status());
    EXPECT_FALSE(session->Outgoing("x", 1, wire)) << "a failed session stays failed";
  }
  EXPECT_TRUE(log_.Take().empty()) << "sessions fail quietly: the daemon closes the connection";
}

TEST_F(TlsSetUpTest, AServerWithoutUsableCredentialsDoesNotStart) {
  const struct {
    const char* name;
    StringBuffer certificate;
    StringBuffer key;
    std::string text;
  } cases[] = {
      {"a key that does not match", files_.certificatePem, files_.otherKey,
       FileText(files_.otherKey, Mismatch)},
      {"a key but no certificate", StringBuffer(), files_.keyPem, NoCertificate},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.name);
    StringBuffer certificate = test.certificate;
    StringBuffer key = test.key;
    auto server = std::make_shared<Server>(true, certificate.getTerminatedBuffer(),
                                           key.getTerminatedBuffer());
    EXPECT_TRUE(server->IsSecure());
    EXPECT_FALSE(server->Start(u"http://localhost:0/", false));
    EXPECT_EQ(ServerStates::Stopped, server->State());
    EXPECT_EQ(0, server->Port());
    EXPECT_EQ(std::vector<std::string>{test.text}, log_.Take());
  }
  EXPECT_TRUE(Daemon::WaitForAllThreads(10));
}

// A secure server with real peers: curl and openssl s_client, which trust the test's certificate,
// and raw sockets. It answers with the request, and with BigBody for /big.
class TlsServerTest : public Testing::ServerFixture {
 protected:
  void SetUp() override {
    ASSERT_TRUE(files_.made);
    handler_ = [](const std::shared_ptr<Client>&, const std::shared_ptr<Message>& message, bool&) {
      Testing::AnswerWithTheRequest(message);
      auto lock = message->Lock();
      if (message->Url->Path != StringBuffer(u"/big")) return;
      const std::string body = BigBody();
      message->Reply->Content = std::make_shared<Content>(
          reinterpret_cast<const unsigned char*>(body.data()), static_cast<int>(body.size()));
    };
    StartServer(true, Server::Limits(), files_.certificatePem, files_.keyPem);
    ASSERT_TRUE(server_->IsSecure());
    base_ = "https://127.0.0.1:" + std::to_string(port_);
  }

  static std::string BigBody() {
    std::string body;
    for (int i = 0; body.size() < 300000; ++i)
      body += std::to_string(i) + ",";
    return body;
  }

  // The connections of `reasons` closed for a protocol violation.
  static int Refused(const std::vector<SocketExceptions::Enumeration>& reasons) {
    return static_cast<int>(
        std::count(reasons.begin(), reasons.end(), SocketExceptions::HTTPProtocolViolation));
  }

  std::string Curl(const std::string& arguments) {
    return Testing::RunCommand("curl -s --max-time 30 --cacert '" + Text(files_.certificatePem) +
                               "' " + arguments);
  }

  // openssl s_client with `options`, stdin from `input` (printf's escapes); its exit status in
  // `exitStatus`.
  std::string SecureClient(const std::string& options, const std::string& input, int& exitStatus) {
    return Testing::RunCommand("printf '" + input +
                                   "' | timeout 30 openssl s_client -connect 127.0.0.1:" +
                                   std::to_string(port_) + " " + options,
                               &exitStatus);
  }

  const Credentials& files_ = TheCredentials();
  std::string base_;
};

TEST_F(TlsServerTest, ServesCurlAndOpenSslWithKeepAlive) {
  EXPECT_EQ("GET /plain?q=1|", Curl("'" + base_ + "/plain?q=1'"));
  EXPECT_EQ("GET /name|", Curl("--resolve localhost:" + std::to_string(port_) +
                               ":127.0.0.1 https://localhost:" + std::to_string(port_) + "/name"))
      << "the certificate's name is checked";
  EXPECT_EQ("POST /form|a=1&b=2", Curl("-d 'a=1&b=2' " + base_ + "/form"));
  EXPECT_EQ(BigBody(), Curl(base_ + "/big"));

  // Three requests over one TLS connection.
  const int before = Read(seen_.connected);
  EXPECT_EQ("GET /one|GET /two|GET /three|", Curl("-H 'Connection: keep-alive' " + base_ + "/one " +
                                                  base_ + "/two " + base_ + "/three"));
  EXPECT_TRUE(WaitFor([&] { return seen_.connected == before + 1; }));

  int exitStatus = -1;
  std::string answer =
      SecureClient("-quiet", "GET /s HTTP/1.1\\r\\nHost: x\\r\\n\\r\\n", exitStatus);
  EXPECT_EQ(0u, answer.find("HTTP/1.1 200 OK\r\n")) << answer;
  EXPECT_EQ("GET /s|", Testing::BodyOf(answer));
  EXPECT_EQ(0, exitStatus) << "the server ended the session with close_notify";
}

TEST_F(TlsServerTest, CarriesWebSocketFrames) {
  // Echo once, then close: the client's session ends with the connection.
  server_->WebSocketMessage.connect([this](const std::shared_ptr<Server>&,
                                           const std::shared_ptr<Client>& client,
                                           const std::shared_ptr<WSData>& data) {
    if (data->Method != Methods::WEBSOCKETMESSAGE) return;
    for (const StringBuffer& message : data->Messages)
      client->WriteThroughWebSocket(message);
    server_->CloseWebSocket(client);
  });
  int exitStatus = -1;
  // A masked text frame "wss" (a zero masking key), in printf's octal escapes.
  std::string answer = SecureClient(
      "-quiet",
      "GET /ws HTTP/1.1\\r\\nHost: x\\r\\nUpgrade: websocket\\r\\nConnection: Upgrade\\r\\n"
      "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\\r\\nSec-WebSocket-Version: 13\\r\\n\\r\\n"
      "\\201\\203\\000\\000\\000\\000wss",
      exitStatus);
  EXPECT_EQ(0u, answer.find("HTTP/1.1 101 Switching Protocols\r\n")) << answer;
  EXPECT_NE(std::string::npos, answer.find(std::string("\x81\x03wss\x88\x02\x03\xe8", 9)))
      << answer;
}

TEST_F(TlsServerTest, SpeaksTls12And13Only) {
  const std::pair<const char*, const char*> accepted[] = {{"-tls1_2", "TLSv1.2"},
                                                          {"-tls1_3", "TLSv1.3"}};
  for (const auto& [option, protocol] : accepted) {
    SCOPED_TRACE(option);
    int exitStatus = -1;
    std::string output = SecureClient(option, "", exitStatus);
    EXPECT_EQ(0, exitStatus);
    EXPECT_NE(std::string::npos, output.find(std::string("New, ") + protocol + ", Cipher is "))
        << output;
  }
  // The client is allowed the old versions (security level 0), so that the refusal is the
  // server's.
  for (const char* option : {"-tls1_1", "-tls1"}) {
    SCOPED_TRACE(option);
    const int refused = Refused(Read(seen_.closeReasons));
    int exitStatus = 0;
    SecureClient(std::string(option) + " -cipher DEFAULT:@SECLEVEL=0", "", exitStatus);
    EXPECT_NE(0, exitStatus);
    EXPECT_TRUE(WaitFor([&] { return Refused(seen_.closeReasons) == refused + 1; }));
  }
}

TEST_F(TlsServerTest, DropsPeersThatDoNotSpeakTlsAndServesTheOthers) {
  std::mt19937 random(20240601);
  std::string noise(300, '\0');
  for (char& byte : noise)
    byte = static_cast<char>(random() & 0xff);
  noise[0] = '\x42';  // not a record type
  const std::string peers[] = {
      "GET / HTTP/1.1\r\nHost: x\r\nConnection: keep-alive\r\n\r\n",
      noise,
      std::string("\x16\x03\x01\x00\x40\x01\x00\x00\x3c\x03\x03", 11) + std::string(58, '\xff'),
  };
  std::vector<std::unique_ptr<RawConnection>> bad;
  for (std::size_t i = 0; i < 3; ++i)
    bad.push_back(std::make_unique<RawConnection>(port_));
  ASSERT_TRUE(WaitFor([this] { return seen_.connected == 3; }));
  for (std::size_t i = 0; i < bad.size(); ++i)
    ASSERT_TRUE(bad[i]->Send(peers[i]));
  EXPECT_EQ("GET /meanwhile|", Curl(base_ + "/meanwhile"));
  for (std::size_t i = 0; i < bad.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(std::string::npos, bad[i]->ReadUntilClosed().find("HTTP/1.1"))
        << "no plain HTTP from a secure port";
  }
  EXPECT_TRUE(WaitFor([this] { return Refused(seen_.closeReasons) == 3; }));
  EXPECT_EQ("GET /after|", Curl(base_ + "/after"));
}

}  // namespace
}  // namespace Veskan
