// Cookies: reading them out of headers and writing them back.
#include <veskan/Cookie.h>

#include <gtest/gtest.h>

#include <string>

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
  cookies[u"a"]->MaxAge = 5;
  Header::Collection headers;
  cookies.Write(Header::SetCookie, headers);
  EXPECT_EQ(headers[Header::SetCookie], u"a=1;Max-Age=5;Version=1;b=2;Max-Age=0;Version=1");
  Cookie::Collection read;
  read.Read(headers);
  ASSERT_EQ(read.Count(), 2);
  EXPECT_EQ(read[u"a"]->MaxAge, 5);
  EXPECT_EQ(read[u"b"]->Value, u"2");
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

TEST(CookieWriteTest, WhatIsWrittenReadsBack) {
  Cookie::Collection cookies;
  auto cookie = cookies[u"quiz"];
  cookie->Value = u"42";
  cookie->MaxAge = 3600;
  cookie->Discard = true;
  Header::Collection headers;
  cookies.Write(Header::SetCookie, headers);
  Cookie::Collection read;
  read.Read(headers);
  ASSERT_EQ(read.Count(), 1);
  EXPECT_EQ(read[u"quiz"]->Value, u"42");
  EXPECT_EQ(read[u"quiz"]->MaxAge, 3600);
  EXPECT_TRUE(read[u"quiz"]->Discard);
  EXPECT_EQ(headers.Count(), 0);
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
