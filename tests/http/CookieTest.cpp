// Cookies: reading them out of headers and writing them back.
#include <veskan/Cookie.h>

#include <veskan/Logger.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace Veskan {
namespace {

Header::Collection HeadersWith(const char16_t* name, const char16_t* value) {
  Header::Collection headers;
  headers.Add(Header(u"Host", u"h"));
  headers.Add(Header(name, value));
  return headers;
}

TEST(CookieAttributesTest, ReservedNames) {
  for (const char16_t* name : {u"Max-Age", u"max-age", u"COMMENT", u"Domain", u"path", u"Secure",
                               u"Version", u"discard", u"$Version", u"$x"}) {
    EXPECT_TRUE(Cookie::Attributes::Reserved(name)) << StringBuffer(name);
  }
  for (const char16_t* name :
       {u"$", u"session", u"Max-Ages", u"", static_cast<const char16_t*>(nullptr)}) {
    EXPECT_FALSE(Cookie::Attributes::Reserved(name)) << StringBuffer(name);
  }
}

TEST(CookieReadTest, NameValueAndAttributes) {
  Header::Collection headers = HeadersWith(Header::SetCookie, u"a=1;Max-Age=60;Version=1");
  Cookie::Collection cookies;
  cookies.Read(headers);
  ASSERT_EQ(cookies.Count(), 1);
  EXPECT_EQ(cookies[u"a"]->Value, u"1");
  EXPECT_EQ(cookies[u"a"]->MaxAge, 60);
  EXPECT_FALSE(cookies[u"a"]->Discard);
  EXPECT_EQ(headers.Count(), 1);  // the cookie header is gone, the others stay
  EXPECT_TRUE(headers.Contains(u"Host"));
}

TEST(CookieReadTest, AttributesBeforeAnyCookieAreIgnored) {
  Header::Collection headers = HeadersWith(Header::Cookie, u"Max-Age=5;Discard=1;b=2");
  Cookie::Collection cookies;
  cookies.Read(headers);
  ASSERT_EQ(cookies.Count(), 1);
  EXPECT_EQ(cookies[u"b"]->MaxAge, 0);
  EXPECT_FALSE(cookies[u"b"]->Discard);
}

TEST(CookieReadTest, NothingIsTrimmedAndCommasEndValuesWithoutSemicolons) {
  Header::Collection headers = HeadersWith(Header::Cookie, u"a=1; b=\"2\"");
  Header::Collection others = HeadersWith(Header::SetCookie, u"x=1,y=2");
  headers.Copy(others);
  Cookie::Collection cookies;
  cookies.Read(headers);
  EXPECT_EQ(cookies[u" b"]->Value, u"\"2\"");
  EXPECT_EQ(cookies[u"x"]->Value, u"1");
  EXPECT_EQ(cookies[u"y"]->Value, u"2");
  EXPECT_EQ(headers.Count(), 2);  // the two Host headers
}

TEST(CookieReadTest, HeaderNamesAreCaseSensitiveButCookieNamesAreNot) {
  Header::Collection headers = HeadersWith(u"cookie", u"a=1");
  headers.Add(Header(Header::Cookie, u"SID=1;sid=2"));
  Cookie::Collection cookies;
  cookies.Read(headers);
  EXPECT_EQ(cookies.Count(), 1);
  EXPECT_EQ(cookies[u"Sid"]->Value, u"2");
  EXPECT_TRUE(headers.Contains(u"cookie"));
}

TEST(CookieWriteTest, RequestAndReplyForms) {
  Cookie::Collection cookies;
  cookies[u"x y"]->Value = u"1,2";
  Header::Collection request;
  cookies.Write(Header::Cookie, request);
  ASSERT_EQ(request.Count(), 1);
  EXPECT_EQ(request[Header::Cookie], u"x_y=1_2;$Version=1");

  Cookie::Collection session;
  auto cookie = session[u"session"];
  cookie->Value = u"a=b;c";
  cookie->MaxAge = 86400;
  cookie->Discard = true;
  Header::Collection reply;
  reply.Add(Header(Header::SetCookie, u"old"));
  session.Write(Header::SetCookie, reply);
  ASSERT_EQ(reply.Count(), 1);
  EXPECT_EQ(reply[Header::SetCookie], u"session=a_b_c;Max-Age=86400;Discard;Version=1");
}

TEST(CookieWriteTest, SeveralCookiesShareOneHeaderAndReadBack) {
  Cookie::Collection cookies;
  cookies[u"b"]->Value = u"2";
  cookies[u"a"]->Value = u"1";
  cookies[u"a"]->MaxAge = 3600;
  cookies[u"a"]->Discard = true;
  Header::Collection headers;
  cookies.Write(Header::SetCookie, headers);
  EXPECT_EQ(headers[Header::SetCookie],
            u"a=1;Max-Age=3600;Discard;Version=1;b=2;Max-Age=0;Version=1");
  Cookie::Collection read;
  read.Read(headers);
  ASSERT_EQ(read.Count(), 2);
  EXPECT_EQ(read[u"a"]->MaxAge, 3600);
  EXPECT_TRUE(read[u"a"]->Discard);
  EXPECT_FALSE(read[u"b"]->Discard);
  EXPECT_EQ(read[u"b"]->Value, u"2");
  EXPECT_EQ(headers.Count(), 0);
}

TEST(CookieWriteTest, LeavesOutCookiesHoldingControlCharacters) {
  std::vector<std::string> warnings;
  const Logger::Severity::Enumeration threshold = Logger::Threshold();
  Logger::SetThreshold(Logger::Severity::Warning);
  Logger::Sink previous =
      Logger::SetSink([&warnings](Logger::Severity::Enumeration severity, const char* text, int) {
        if (severity == Logger::Severity::Warning) warnings.push_back(text);
      });
  Cookie::Collection cookies;
  cookies[u"ok"]->Value = u"1";
  cookies[u"split"]->Value = u"1\r\nSet-Cookie: admin=1";
  cookies[u"lf"]->Value = u"\n";
  cookies[u"nul"]->Value = StringBuffer(u"1\0", 2);
  cookies[u"tab"]->Value = u"a\tb";
  cookies[u"lone"]->Value = StringBuffer(u"\xD800", 1);
  cookies[u"n\r\name"]->Value = u"1";
  Header::Collection headers;
  cookies.Write(Header::SetCookie, headers);
  ASSERT_EQ(headers.Count(), 1);
  EXPECT_EQ(headers[Header::SetCookie], u"ok=1;Max-Age=0;Version=1");

  // When every cookie is left out, no header is left to send.
  Cookie::Collection evil;
  evil[u"x"]->Value = u"\r\n\r\n<html>";
  Header::Collection request;
  request.Add(Header(Header::Cookie, u"old"));
  evil.Write(Header::Cookie, request);
  EXPECT_EQ(request.Count(), 0);

  Logger::SetSink(previous);
  Logger::SetThreshold(threshold);
  const std::string dropped =
      "Veskan::Cookie::Collection::Write cookie dropped, a control character or an unpaired "
      "surrogate in its name or value, name: ";
  EXPECT_EQ(warnings, (std::vector<std::string>{
                          dropped + "lf", dropped + "lone", dropped + "n\\x0D\\x0Aame",
                          dropped + "nul", dropped + "split", dropped + "tab", dropped + "x"}));
}

TEST(CookieWriteTest, OnlyTheLibrarysOwnConstantsAreAccepted) {
  Cookie::Collection cookies;
  cookies[u"a"]->Value = u"1";
  const std::u16string sameText = u"Cookie";
  Header::Collection headers;
  headers.Add(Header(Header::Cookie, u"keep"));
  cookies.Write(sameText.c_str(), headers);
  ASSERT_EQ(headers.Count(), 1);
  EXPECT_EQ(headers[Header::Cookie], u"keep");
}

TEST(CookieCollectionTest, OrderIndexCopyAndRemove) {
  Cookie::Collection cookies;
  cookies[u"b"]->Value = u"2";
  cookies[u"A"]->Value = u"1";
  cookies[u"c"];
  EXPECT_EQ(cookies(0)->Name, u"A");
  EXPECT_EQ(cookies(2)->Name, u"c");
  EXPECT_EQ(cookies(3), nullptr);
  EXPECT_EQ(cookies(-1), nullptr);
  Cookie::Collection copy(cookies);
  copy[u"a"]->Value = u"changed";
  EXPECT_EQ(cookies[u"A"]->Value, u"1");
  EXPECT_TRUE(cookies.Contains(u"B"));
  cookies.Remove(u"B");
  EXPECT_FALSE(cookies.Contains(u"b"));
  cookies.Clear();
  EXPECT_EQ(cookies.Count(), 0);
  EXPECT_EQ(copy.Count(), 3);
}

}  // namespace
}  // namespace Veskan
