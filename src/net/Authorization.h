// The server's side of HTTP authentication: Basic (RFC 7617) and Digest (RFC 7616, MD5 and
// SHA-256, qop "auth") checked against the host's credential lookup, and the challenges of a
// refused request. Works on header texts only; Client::Authorized applies it to a message.
#ifndef VESKAN_NET_AUTHORIZATION_H
#define VESKAN_NET_AUTHORIZATION_H

#include <veskan/Server.h>
#include <veskan/StringBuffer.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace Veskan {
namespace Detail {

// Thread safety: every operation may be called from any thread (the nonces are guarded).
class Authenticator {
 public:
  // Digest nonces are accepted this long after they were issued, then answered as stale.
  static constexpr std::int64_t kNonceLifetimeSeconds = 300;
  // Nonces remembered at most; beyond it the oldest are forgotten (their clients are asked
  // again).
  static constexpr std::size_t kMaxNonces = 4096;

  enum class Verdict {
    Accepted,
    Refused,  // no credentials, an unknown user, a wrong password or a replayed nonce count
    Stale,    // right credentials with an expired or forgotten nonce: ask again, stale=true
  };

  // One user and password, for the second form of Client::Authorized.
  struct FixedUser {
    StringBuffer userName;
    StringBuffer password;
  };

  Authenticator(StringBuffer realm, Server::CredentialLookup lookup);

  // Checks the "Authorization" header `authorization` of a request with `method` ("GET") and
  // request target `target`. `fixed`, when given, is the only user accepted, instead of the
  // lookup. `now` is in seconds of the monotonic clock.
  Verdict Check(const StringBuffer& authorization, const StringBuffer& method,
                const StringBuffer& target, const FixedUser* fixed, std::int64_t now);
  // The "WWW-Authenticate" values of a refusal: Digest with SHA-256, Digest with MD5 (each with
  // a fresh nonce) and Basic.
  std::vector<StringBuffer> Challenges(bool stale, std::int64_t now);

  const StringBuffer& Realm() const { return realm_; }

 private:
  struct Nonce {
    std::int64_t issued = 0;
    std::uint64_t lastCount = 0;  // the highest nonce count accepted
  };
  bool Lookup(const std::string& user, const FixedUser* fixed, Server::Credential& credential);
  Verdict CheckBasic(const std::string& encoded, const FixedUser* fixed);
  Verdict CheckDigest(const std::string& parameters, const std::string& method,
                      const std::string& target, const FixedUser* fixed, std::int64_t now);
  std::string IssueNonce(std::int64_t now);

  const StringBuffer realm_;
  const std::string realmUtf8_;
  const Server::CredentialLookup lookup_;
  const std::string opaque_;
  std::mutex mutex_;
  std::map<std::string, Nonce> nonces_;
};

// Auth-params of a Digest header ("name=value" or name="quoted", comma-separated), names in lower
// case; false when the text does not parse.
bool ParseAuthParameters(const std::string& text, std::map<std::string, std::string>& parameters);

}  // namespace Detail
}  // namespace Veskan

#endif
