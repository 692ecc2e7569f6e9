// Fuzzes reading cookies out of headers, and writing them back.
#include <veskan/Cookie.h>

#include "FuzzInput.h"

using namespace Veskan;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Header::Collection headers;
  bool reply = false;
  for (const StringBuffer& value : Fuzzing::Texts(data, size)) {
    headers.Add(Header(StringBuffer(reply ? Header::SetCookie : Header::Cookie), value));
    reply = !reply;
  }
  headers.Add(Header(Header::Host, u"kept"));

  Cookie::Collection cookies;
  cookies.Read(headers);
  Fuzzing::Require(headers.Count() == 1 && headers.Contains(Header::Host));

  // Whatever the cookies hold, the header written holds no control character: a cookie with
  // one (or with an unpaired surrogate) is left out rather than allowed to end the line.
  Header::Collection raw;
  cookies.Write(Header::SetCookie, raw);
  for (const Header& header : raw) {
    for (int i = 0; i < header.Value.length(); ++i)
      Fuzzing::Require(header.Value.charAt(i) >= 0x20 && header.Value.charAt(i) != 0x7F);
  }

  // What the library writes it reads back: the same number of cookies with the same values,
  // once names and values are free of the characters that writing replaces or refuses.
  Cookie::Collection clean;
  for (const auto& entry : cookies) {
    StringBuffer name = entry.second->Name;
    bool unwritable = false;  // a control or an unpaired surrogate
    for (int i = 0; i < name.length(); ++i) {
      const char16_t c = name.charAt(i);
      if (c >= 0xD800 && c <= 0xDBFF && i + 1 < name.length() && name.charAt(i + 1) >= 0xDC00 &&
          name.charAt(i + 1) <= 0xDFFF) {
        ++i;
        continue;
      }
      unwritable = unwritable || c < 0x20 || c == 0x7F || (c >= 0xD800 && c <= 0xDFFF);
    }
    if (name.isEmpty() || Cookie::Attributes::Reserved(name.c_str()) || unwritable) continue;
    for (char16_t unsafe : {u'=', u';', u',', u' '})
      name.findAndReplace(unsafe, u'_');
    if (Cookie::Attributes::Reserved(name.c_str()) || clean.Contains(name.c_str())) continue;
    clean[name.c_str()]->MaxAge = entry.second->MaxAge;
  }
  Header::Collection written;
  clean.Write(Header::SetCookie, written);
  Cookie::Collection back;
  back.Read(written);
  Fuzzing::Require(back.Count() == clean.Count());
  for (const auto& entry : clean) {
    Fuzzing::Require(back.Contains(entry.first.c_str()));
    Fuzzing::Require(back[entry.first.c_str()]->MaxAge == entry.second->MaxAge);
  }
  return 0;
}
