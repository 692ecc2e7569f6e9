// Url: parsing every scheme, joining, percent-encoding and file URLs.
#include <veskan/Url.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <string>

namespace Veskan {
namespace {

struct Parts {
  const char16_t* text;
  int scheme;
  bool isAbsolute;
  bool hasHost;
  const char16_t* host;
  bool hasPort;
  int port;
  const char16_t* path;
  const char16_t* pathAndQuery;
};

TEST(UrlParseTest, EveryShapeOfText) {
  const Parts cases[] = {
      {u"http://host:8080/a/b?x=1&y", 0, true, true, u"host", true, 8080, u"/a/b", u"/a/b?x=1&y"},
      {u"https://host", 1, true, true, u"host", false, 443, u"/", u"/"},
      {u"http://host:80abc/p", 0, true, true, u"host", true, 80, u"/p", u"/p"},
      {u"http://host?q=1", 0, true, true, u"host?q=1", false, 80, u"/", u"/"},
      {u"http://h:/x", 0, true, true, u"h", true, 0, u"/x", u"/x"},
      {u"http://:8080/x", 0, true, false, u"", false, 80, u"/:8080/x", u":8080/x"},
      {u"file:///C:/dir/f.txt", 2, true, false, u"localhost", false, 0, u"/C:/dir/f.txt",
       u"/C:/dir/f.txt"},
      {u"file://server/share/f", 2, true, false, u"", false, 0, u"/server/share/f",
       u"server/share/f"},
      {u"urn:isbn:0451450523", 3, true, true, u"isbn", false, 0, u"0451450523", u"0451450523"},
      {u"urn:bare", 3, true, true, u"bare", false, 0, u"", u""},
      {u"/index?a=1&a=2", 0, false, false, u"", false, 0, u"/index", u"/index?a=1&a=2"},
      {u"a/b", 0, false, true, u"a", false, 0, u"/b", u"/b"},
      {u"?q=1", 0, false, true, u"?q=1", false, 0, u"/", u"/"},  // a host, like "a" in "a/b"
      {u"file://?q=1", 2, true, false, u"", false, 0, u"/", u"/?q=1"},
      {u"", 0, false, false, u"", false, 0, u"/", u"/"},
      {u"HTTP://HOST/", 0, false, true, u"HTTP", true, 0, u"//HOST/", u"//HOST/"},
  };
  for (const Parts& c : cases) {
    SCOPED_TRACE(StringBuffer(c.text));
    const Url url(c.text);
    EXPECT_EQ(url.Text, c.text);
    EXPECT_EQ(url.Scheme, c.scheme);
    EXPECT_EQ(url.IsAbsolute, c.isAbsolute);
    EXPECT_EQ(url.HasHost, c.hasHost);
    EXPECT_EQ(url.Host, c.host);
    EXPECT_EQ(url.HasPort, c.hasPort);
    EXPECT_EQ(url.Port, c.port);
    EXPECT_EQ(url.Path, c.path);
    EXPECT_EQ(url.PathAndQuery, c.pathAndQuery);
    EXPECT_TRUE(url.Fragment.isEmpty());
  }
  EXPECT_EQ(Url(nullptr).Path, u"/");
}

TEST(UrlParseTest, QueryParametersStayEncodedAndTheLastValueWins) {
  const Url url(u"/p?a=1&b&a=2&&c=x%20y&=v");
  ASSERT_EQ(url.Query.Count(), 4);
  EXPECT_EQ(url.Query(0), Header(u"a", u"2"));
  EXPECT_EQ(url.Query(1), Header(u"b", u""));
  EXPECT_EQ(url.Query(2), Header(u"c", u"x%20y"));
  EXPECT_EQ(url.Query(3), Header(u"", u"v"));
  EXPECT_EQ(Url(u"http://h/?x=1").Query[u"x"], u"1");
}

TEST(UrlParseTest, CopiesAreIndependentValues) {
  Url copy(u"http://first/a?x=1");
  {
    const Url other(u"https://second:9/b");
    copy = other;
  }  // the references of `copy` must not point into the destroyed `other`
  EXPECT_EQ(copy.Host, u"second");
  EXPECT_EQ(copy.Port, 9);
  EXPECT_EQ(copy.Query.Count(), 0);
  const Url twin(copy);
  EXPECT_EQ(twin.Text, u"https://second:9/b");
  EXPECT_NE(&twin.Host, &copy.Host);
}

TEST(UrlJoinTest, BaseSuppliesTheAuthorityAndPathsMeetAtOneSlash) {
  const Url joined = Url(u"http://example.org:8080/api/") + Url(u"/items?id=7");
  EXPECT_EQ(joined.Text, u"http://example.org:8080/api/items?id=7");
  EXPECT_EQ(joined.Path, u"/api/items");
  EXPECT_EQ(joined.PathAndQuery, u"/api/items?id=7");
  EXPECT_EQ(joined.Port, 8080);

  const Url merged = Url(u"https://h/base?a=1&b=2") + Url(u"/x?b=new value");
  EXPECT_EQ(merged.Text, u"https://h/base/x?a=1&b=new%20value");
  EXPECT_EQ(merged.Port, 443);

  const Url relativeOnly = Url(u"/") + Url(u"/");
  EXPECT_EQ(relativeOnly.Text, u"/");
}

TEST(UrlEncodingTest, EncodeKeepsUnreservedAndEscapesUtf8Bytes) {
  EXPECT_EQ(Url::Encode(u"a b"), u"a%20b");
  EXPECT_EQ(Url::Encode(u"abc-_.!~*'()"), u"abc-_.!~*'()");
  EXPECT_EQ(Url::Encode(u"a+b/c?d"), u"a%2Bb%2Fc%3Fd");
  EXPECT_EQ(Url::Encode(u"\u00E9\u20AC"), u"%C3%A9%E2%82%AC");
  EXPECT_TRUE(Url::Encode(nullptr).isEmpty());
}

TEST(UrlEncodingTest, DecodeFollowsItsByteRules) {
  EXPECT_EQ(Url::Decode(u"a%20b"), u"a b");
  EXPECT_EQ(Url::Decode(u"%C3%a9"), u"\u00E9");
  EXPECT_EQ(Url::Decode(u"a+b"), u"a+b");
  EXPECT_EQ(Url::Decode(u"100%"), u"100%");
  EXPECT_EQ(Url::Decode(u"5%2"), u"5%2");
  EXPECT_TRUE(Url::Decode(u"%zz").isEmpty());  // "zz" reads as 00: the NUL ends the text
  EXPECT_EQ(Url::Decode(u"ok%00tail"), u"ok");
  EXPECT_TRUE(Url::Decode(u"%FF%41").isEmpty());  // not UTF-8
  EXPECT_EQ(Url::Decode(u"x%41\u0142"), u"xAB");  // U+0142 outside an escape keeps 8 bits: 0x42
  for (const char16_t* text : {u"a b", u"\u00E9t\u00E9 & co", u"100%", u"~*'()"}) {
    EXPECT_EQ(Url::Decode(Url::Encode(text).c_str()), text);
  }
}

TEST(FileUrlTest, PathsAndFileUrlsConvertBothWays) {
  Testing::TemporaryFolder folder;
  const StringBuffer path = folder.WriteFile("quiz one.xml", "<quiz/>");
  const StringBuffer url = Url::FileUrlFromPath(path);
  EXPECT_TRUE(url.startsWith(u"file:///"));
  EXPECT_TRUE(url.endsWith(u"/quiz%20one.xml"));
  EXPECT_EQ(Url::PathFromFileUrl(url),
            StringBuffer(std::filesystem::canonical(folder.Path() / "quiz one.xml").string()));

  EXPECT_EQ(Url::FileUrlFromPath(u"/no/such/../file"), u"file:///no/file");
  EXPECT_EQ(Url::PathFromFileUrl(u"file://localhost/no/such%20file"), u"/no/such file");
  EXPECT_TRUE(Url::PathFromFileUrl(u"http://host/x").isEmpty());
  EXPECT_TRUE(Url::PathFromFileUrl(u"file://otherhost/x").isEmpty());
  EXPECT_TRUE(Url::FileUrlFromPath(u"").isEmpty());
}

}  // namespace
}  // namespace Veskan
