// Fuzzes the URL parser, joining and percent-encoding.
#include <veskan/Url.h>

#include "FuzzInput.h"

using namespace Veskan;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const StringBuffer text = Fuzzing::Utf16(data, size);
  const Url url(text.c_str());
  Fuzzing::Require(url.Text == text.c_str());
  Fuzzing::Require(url.Scheme == Url::UrnScheme || url.Path.startsWith(u"/"));
  Fuzzing::Require(url.Query.Count() >= 0);

  const Url joined = Url(u"http://host:8080/base/") + url;
  Fuzzing::Require(joined.Path.startsWith(u"/"));
  const Url reparsed(joined.Text.c_str());
  Fuzzing::Require(reparsed.Host == joined.Host || !joined.HasHost);

  // Encoding then decoding gives the text back when it is well-formed and has no NUL (a decoded
  // NUL byte ends the text).
  const StringBuffer encoded = Url::Encode(text.c_str());
  const StringBuffer decoded = Url::Decode(encoded.c_str());
  const bool wellFormed = text.isEmpty() || UTF16to8(text).Size() > 0;
  if (wellFormed && text.indexOf(char16_t(0)) < 0) Fuzzing::Require(decoded == text);
  Url::Decode(text.c_str());
  return 0;
}
