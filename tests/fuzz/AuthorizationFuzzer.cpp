// Fuzzes the server's reading of "Authorization" headers, and the challenges it writes.
//
// Input: the header value, then (after a byte 0xFF) the method, the request target and the realm,
// each as UTF-8.
#include "net/Authorization.h"

#include <veskan/StringBuffer.h>

#include "FuzzInput.h"

#include <map>
#include <string>

using namespace Veskan;

namespace {

std::string Piece(const std::uint8_t* data, std::size_t size, std::size_t& at) {
  std::size_t end = at;
  while (end < size && data[end] != 0xFF)
    ++end;
  std::string piece(reinterpret_cast<const char*>(data) + at, end - at);
  at = end < size ? end + 1 : end;
  return piece;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::size_t at = 0;
  const std::string header = Piece(data, size, at);
  const std::string method = Piece(data, size, at);
  const std::string target = Piece(data, size, at);
  const std::string realm = Piece(data, size, at);

  Detail::Authenticator authenticator(UTF8to16(realm.c_str()),
                                      [](const StringBuffer& user, Server::Credential& credential) {
                                        if (!(user == u"user")) return false;
                                        credential.Password = u"secret";
                                        return true;
                                      });
  const Detail::Authenticator::Verdict verdict = authenticator.Check(
      UTF8to16(header.c_str()), UTF8to16(method.c_str()), UTF8to16(target.c_str()), nullptr, 1000);
  // No nonce was ever issued, so no Digest answer can pass: only the right Basic credentials
  // ("user:secret" in Base64, whose last character may vary in its unused bits) may.
  if (verdict == Detail::Authenticator::Verdict::Accepted)
    Fuzzing::Require(header.find("dXNlcjpzZWNyZX") != std::string::npos);

  // Whatever the realm holds, the challenges parse back with that realm.
  const std::string realmUtf8 = UTF8to16(realm.c_str()).ToUTF8();
  for (const StringBuffer& challenge : authenticator.Challenges(true, 1000)) {
    const std::string text = challenge.ToUTF8();
    const std::size_t space = text.find(' ');
    std::map<std::string, std::string> parameters;
    Fuzzing::Require(space != std::string::npos &&
                     Detail::ParseAuthParameters(text.substr(space + 1), parameters));
    Fuzzing::Require(parameters["realm"] == realmUtf8);
  }
  return 0;
}
