#include "net/Authorization.h"

#include <veskan/Body.h>
#include <veskan/ByteBuffer.h>
#include <veskan/Client.h>
#include <veskan/Logger.h>
#include <veskan/Message.h>

#include "http/Pooled.h"
#include "net/Connection.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cctype>
#include <cstdlib>
#include <exception>

namespace Veskan {
namespace Detail {

namespace {

std::string Hex(const unsigned char* bytes, std::size_t length) {
  static const char digits[] = "0123456789abcdef";
  std::string text;
  text.reserve(length * 2);
  for (std::size_t index = 0; index < length; ++index) {
    text += digits[bytes[index] >> 4];
    text += digits[bytes[index] & 15];
  }
  return text;
}

std::string HexDigest(const EVP_MD* algorithm, const std::string& text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (!EVP_Digest(text.data(), text.size(), digest, &length, algorithm, nullptr))
    return std::string();
  return Hex(digest, length);
}

std::string RandomHex(std::size_t bytes) {
  std::vector<unsigned char> random(bytes);
  if (RAND_bytes(random.data(), static_cast<int>(bytes)) != 1) return std::string();
  return Hex(random.data(), bytes);
}

// Compares in a time that does not depend on where the texts differ.
bool SameSecret(const std::string& a, const std::string& b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

std::string LowerCase(std::string text) {
  for (char& c : text)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}

// A token68 of Base64 (RFC 7617): the alphabet, then at most two "=", then nothing but blanks.
// The decoder would skip anything else, so "dXN~lcj..." would pass for "dXNlcj...".
bool IsBase64Token(const std::string& text) {
  std::size_t at = 0;
  const auto inAlphabet = [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '/';
  };
  while (at < text.size() && inAlphabet(text[at]))
    ++at;
  if (at == 0) return false;
  for (int padding = 0; padding < 2 && at < text.size() && text[at] == '='; ++padding)
    ++at;
  while (at < text.size() && IsBlank(text[at]))
    ++at;
  return at == text.size();
}

}  // namespace

bool ParseAuthParameters(const std::string& text, std::map<std::string, std::string>& parameters) {
  std::size_t at = 0;
  const std::size_t end = text.size();
  while (at < end) {
    while (at < end && (IsBlank(text[at]) || text[at] == ','))
      ++at;
    if (at == end) break;
    const std::size_t nameStart = at;
    while (at < end && text[at] != '=' && !IsBlank(text[at]) && text[at] != ',')
      ++at;
    std::string name = LowerCase(text.substr(nameStart, at - nameStart));
    while (at < end && IsBlank(text[at]))
      ++at;
    if (name.empty() || at == end || text[at] != '=') return false;
    ++at;
    while (at < end && IsBlank(text[at]))
      ++at;
    std::string value;
    if (at < end && text[at] == '"') {
      for (++at;; ++at) {
        if (at == end) return false;  // the quoted string never ends
        if (text[at] == '"') break;
        if (text[at] == '\\' && at + 1 < end) ++at;
        value += text[at];
      }
      ++at;
    } else {
      const std::size_t valueStart = at;
      while (at < end && text[at] != ',' && !IsBlank(text[at]))
        ++at;
      value = text.substr(valueStart, at - valueStart);
    }
    // A parameter given twice makes the header ambiguous.
    if (!parameters.emplace(std::move(name), std::move(value)).second) return false;
    while (at < end && IsBlank(text[at]))
      ++at;
    if (at < end && text[at] != ',') return false;
  }
  return true;
}

Authenticator::Authenticator(StringBuffer realm, Server::CredentialLookup lookup)
    : realm_(std::move(realm)),
      realmUtf8_(realm_.ToUTF8()),
      lookup_(std::move(lookup)),
      opaque_(RandomHex(16)) {}

bool Authenticator::Lookup(const std::string& user, const FixedUser* fixed,
                           Server::Credential& credential) {
  const StringBuffer userName = UTF8to16(user.c_str(), 0, static_cast<int>(user.size()));
  if (fixed) {
    if (userName != fixed->userName) return false;
    credential.Password = fixed->password;
    return true;
  }
  if (!lookup_) return false;
  try {
    return lookup_(userName, credential);
  } catch (const std::exception& error) {
    Logger::Line(Logger::Severity::Error, "Veskan::Client::Authorized")
        << " the credential lookup failed: " << error.what();
    return false;
  }
}

Authenticator::Verdict Authenticator::Check(const StringBuffer& authorization,
                                            const StringBuffer& method, const StringBuffer& target,
                                            const FixedUser* fixed, std::int64_t now) {
  const std::string header = authorization.ToUTF8();
  const std::size_t space = header.find(' ');
  if (space == std::string::npos) return Verdict::Refused;
  const std::string scheme = LowerCase(header.substr(0, space));
  std::size_t rest = space;
  while (rest < header.size() && IsBlank(header[rest]))
    ++rest;
  if (scheme == "basic") return CheckBasic(header.substr(rest), fixed);
  if (scheme == "digest")
    return CheckDigest(header.substr(rest), method.ToUTF8(), target.ToUTF8(), fixed, now);
  return Verdict::Refused;
}

Authenticator::Verdict Authenticator::CheckBasic(const std::string& encoded,
                                                 const FixedUser* fixed) {
  if (!IsBase64Token(encoded)) return Verdict::Refused;
  StringBuffer text = UTF8to16(encoded.c_str());
  const ByteBuffer decoded = Decode64(text.getTerminatedBuffer());
  const std::string pair(static_cast<const char*>(decoded),
                         static_cast<std::size_t>(decoded.Size()));
  const std::size_t colon = pair.find(':');
  if (colon == std::string::npos) return Verdict::Refused;
  Server::Credential credential;
  if (!Lookup(pair.substr(0, colon), fixed, credential) || credential.Password.isEmpty())
    return Verdict::Refused;
  return SameSecret(credential.Password.ToUTF8(), pair.substr(colon + 1)) ? Verdict::Accepted
                                                                          : Verdict::Refused;
}

Authenticator::Verdict Authenticator::CheckDigest(const std::string& text,
                                                  const std::string& method,
                                                  const std::string& target, const FixedUser* fixed,
                                                  std::int64_t now) {
  std::map<std::string, std::string> p;
  if (!ParseAuthParameters(text, p)) return Verdict::Refused;
  const std::string algorithm = p.count("algorithm") ? LowerCase(p["algorithm"]) : "md5";
  const EVP_MD* hash = algorithm == "md5"       ? EVP_md5()
                       : algorithm == "sha-256" ? EVP_sha256()
                                                : nullptr;
  if (!hash || p["realm"] != realmUtf8_ || p["qop"] != "auth" || p["uri"] != target ||
      p["username"].empty() || p["nonce"].empty() || p["cnonce"].empty() || p["nc"].size() != 8 ||
      (p.count("userhash") && LowerCase(p["userhash"]) == "true"))
    return Verdict::Refused;
  char* countEnd = nullptr;
  const std::uint64_t count = std::strtoull(p["nc"].c_str(), &countEnd, 16);
  if (*countEnd != '\0' || count == 0) return Verdict::Refused;

  Server::Credential credential;
  if (!Lookup(p["username"], fixed, credential)) return Verdict::Refused;
  std::string secret;
  if (!credential.Password.isEmpty())
    secret = HexDigest(hash, p["username"] + ":" + realmUtf8_ + ":" + credential.Password.ToUTF8());
  else
    secret = hash == EVP_md5() ? credential.DigestMD5 : credential.DigestSHA256;
  if (secret.empty()) return Verdict::Refused;
  const std::string expected =
      HexDigest(hash, secret + ":" + p["nonce"] + ":" + p["nc"] + ":" + p["cnonce"] +
                          ":auth:" + HexDigest(hash, method + ":" + target));
  if (!SameSecret(expected, LowerCase(p["response"]))) return Verdict::Refused;

  // The credentials are right; now the nonce: ours, fresh, and a count not used before.
  std::lock_guard<std::mutex> lock(mutex_);
  auto nonce = nonces_.find(p["nonce"]);
  if (nonce == nonces_.end() || now - nonce->second.issued > kNonceLifetimeSeconds)
    return Verdict::Stale;
  if (count <= nonce->second.lastCount) return Verdict::Refused;
  nonce->second.lastCount = count;
  return Verdict::Accepted;
}

std::string Authenticator::IssueNonce(std::int64_t now) {
  std::string nonce = RandomHex(16);
  std::lock_guard<std::mutex> lock(mutex_);
  if (nonces_.size() >= kMaxNonces) {
    for (auto entry = nonces_.begin(); entry != nonces_.end();) {
      if (now - entry->second.issued > kNonceLifetimeSeconds)
        entry = nonces_.erase(entry);
      else
        ++entry;
    }
  }
  if (nonces_.size() >= kMaxNonces) {
    auto oldest = nonces_.begin();
    for (auto entry = nonces_.begin(); entry != nonces_.end(); ++entry)
      if (entry->second.issued < oldest->second.issued) oldest = entry;
    nonces_.erase(oldest);
  }
  nonces_[nonce].issued = now;
  return nonce;
}

std::vector<StringBuffer> Authenticator::Challenges(bool stale, std::int64_t now) {
  std::string quotedRealm;
  for (char c : realmUtf8_) {
    if (c == '"' || c == '\\') quotedRealm += '\\';
    quotedRealm += c;
  }
  std::vector<StringBuffer> challenges;
  for (const char* algorithm : {"SHA-256", "MD5"}) {
    std::string challenge = "Digest realm=\"" + quotedRealm +
                            "\", qop=\"auth\", algorithm=" + algorithm + ", nonce=\"" +
                            IssueNonce(now) + "\", opaque=\"" + opaque_ + "\"";
    if (stale) challenge += ", stale=true";
    challenges.push_back(UTF8to16(challenge.c_str()));
  }
  challenges.push_back(
      UTF8to16(("Basic realm=\"" + quotedRealm + "\", charset=\"UTF-8\"").c_str()));
  return challenges;
}

}  // namespace Detail

namespace {

bool Authorize(const Client& client, Detail::Authenticator* authenticator,
               const std::shared_ptr<Message>& message,
               const Detail::Authenticator::FixedUser* fixed, bool answerRefusal) {
  if (!authenticator || !message) return false;
  StringBuffer authorization;
  StringBuffer method;
  StringBuffer target;
  {
    std::unique_lock<std::recursive_mutex> lock = message->Lock();
    if (!message->Request || !message->Url) return false;
    const Header::Collection& headers = message->Request->Headers;
    authorization = headers[Header::Authorization];
    method = Methods::ToString(message->Method);
    target = message->Url->Text;
  }
  const std::int64_t now = Detail::MonotonicNanoseconds() / 1000000000;
  const Detail::Authenticator::Verdict verdict =
      authorization.isEmpty() ? Detail::Authenticator::Verdict::Refused
                              : authenticator->Check(authorization, method, target, fixed, now);
  if (verdict == Detail::Authenticator::Verdict::Accepted) return true;
  if (!authorization.isEmpty())
    Logger::Line(Logger::Severity::Information, "Veskan::Client::Authorized")
        << " refused " << method << " " << target << " from " << client.PeerAddress()
        << (verdict == Detail::Authenticator::Verdict::Stale ? " (stale nonce)" : "");
  if (!answerRefusal) return false;
  const std::vector<StringBuffer> challenges =
      authenticator->Challenges(verdict == Detail::Authenticator::Verdict::Stale, now);
  std::unique_lock<std::recursive_mutex> lock = message->Lock();
  if (!message->Reply) message->Reply = Detail::NewBody();
  Body& reply = *message->Reply;
  message->StatusCode = 401;
  reply.Headers.Remove(Header::WWWAuthenticate);
  for (const StringBuffer& challenge : challenges)
    reply.Headers.AddAnother(Header(StringBuffer(Header::WWWAuthenticate), challenge));
  reply.Headers[Header::ContentType] = Content::Types::TextPlain;
  reply.Content = std::make_shared<Content>(u"Unauthorized");
  reply.Content->Sealed(Content::Types::TextPlain);
  return false;
}

}  // namespace

bool Client::Authorized(const std::shared_ptr<Message>& message) {
  std::shared_ptr<Server> server = GetServer();
  return server && Authorize(*this, server->Authentication().get(), message, nullptr, true);
}

bool Client::Authorized(const std::shared_ptr<Message>& message, const char16_t* userName,
                        const char16_t* password, bool answerRefusal) {
  const Detail::Authenticator::FixedUser fixed{StringBuffer(userName ? userName : u""),
                                               StringBuffer(password ? password : u"")};
  std::shared_ptr<Server> server = GetServer();
  return server && Authorize(*this, server->Authentication().get(), message, &fixed, answerRefusal);
}

}  // namespace Veskan
